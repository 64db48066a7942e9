#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The multicast group and the port of SSDP (UPnP Device Architecture 1.0 section 1).
inline constexpr const char* SSDP_IP = "239.255.255.250";
inline constexpr uint16_t SSDP_PORT = 1900;

/// The port of an HTTP URL without one. Not the port of our server.
inline constexpr uint16_t DEFAULT_HTTP_PORT = 80;

/// The most bytes that one read takes from a socket.
inline constexpr size_t BUFLEN = 4096;

// Every socket is bound to one network device before use and is closed on exec. On failure the
// makers log one line and return -1. The caller owns the socket.

/// A UDP socket that sends and receives on the device `ifname` only.
[[nodiscard]] int makeUdpSocket(const std::string& ifname);

/// A UDP socket on port 1900 of the device, joined to the SSDP group. `ifindex` is the kernel's
/// index of the device, `ifaddr` its IPv4 address in network byte order.
[[nodiscard]] int makeDiscoverySocket(const std::string& ifname, unsigned int ifindex,
                                      unsigned int ifaddr);

/// A TCP socket that listens on `port` (host byte order) of the device, with a backlog of one. It
/// blocks.
[[nodiscard]] int makeTcpSocket(const std::string& ifname, unsigned int port);

/// The system drops the TCP connection `fd` when its peer does not take what is sent within ten
/// seconds, even after `fd` was closed. Without this it tries for minutes and keeps the bytes. A
/// peer with a window below one segment has no longer, although it reads little by little. The
/// connections of a listening socket have its limit. Logs a line when that cannot be set.
void dropWhenUnread(int fd);

/// Writes `text` to the blocking connection `fd`. What the send buffer does not take at once
/// follows with a single write, before which the buffer is enlarged to hold all of `text`, as far
/// as the system allows. For what exceeds even that, a peer that does not read delays the loop by
/// at most a hundredth of a second. Returns false when not all of `text` was accepted, and also,
/// after a log line, when the buffer could not be enlarged.
[[nodiscard]] bool writeOnce(int fd, std::string_view text);

/// Does the same for the last text of a connection, which the caller closes next: a text of usual
/// size waits for that, and leaves with the end in one packet.
[[nodiscard]] bool writeLast(int fd, std::string_view text);
