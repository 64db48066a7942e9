#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The multicast group and the port of SSDP (UPnP Device Architecture 1.0 section 1).
inline constexpr const char* SSDP_IP = "239.255.255.250";
inline constexpr uint16_t SSDP_PORT = 1900;

/// The port of an HTTP URL that names none. Not the port of our server.
inline constexpr uint16_t DEFAULT_HTTP_PORT = 80;

/// The most bytes that one read takes from a socket.
inline constexpr size_t BUFLEN = 4096;

// Every socket is bound to one network device before it is used, and closed on exec. On failure the
// makers log one line and return -1. The caller owns the socket.

/// A UDP socket that sends and receives on the device `ifname` only.
[[nodiscard]] int makeUdpSocket(const std::string& ifname);

/// A UDP socket on port 1900 of the device that has joined the SSDP group. `ifindex` is the
/// kernel's index of the device, `ifaddr` its IPv4 address in network byte order.
[[nodiscard]] int makeDiscoverySocket(const std::string& ifname, unsigned int ifindex,
                                      unsigned int ifaddr);

/// A TCP socket that listens on `port` (host byte order) of the device, with a backlog of one. It
/// blocks.
[[nodiscard]] int makeTcpSocket(const std::string& ifname, unsigned int port);

/// Writes `text` to the connection `fd`, which blocks, with one write; there is no second one. The
/// send buffer first gets room for all of it, as far as the system allows it, and a peer that does
/// not read what is more than that holds up the loop for a hundredth of a second at most. False
/// when not all of `text` was taken, and, after a log line, when the socket could not be prepared:
/// then nothing is written.
[[nodiscard]] bool writeOnce(int fd, std::string_view text);
