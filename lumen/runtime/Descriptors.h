#pragma once

namespace lm {

// Looks at a descriptor that do not wait and take nothing from it, neither bytes nor an error.

/// Whether it is a socket that listens.
[[nodiscard]] bool isListening(int fd);

/// Whether `fd` has something to read, for a listening socket a client to accept.
[[nodiscard]] bool isReadable(int fd);

/// Whether waiting for `flags` (watchRead, watchWrite) of `fd` would end at once for no other
/// reason than that the peer is gone, or the descriptor itself.
[[nodiscard]] bool isSpent(int fd, unsigned flags);

/// The lowest free descriptor number; it changes when a descriptor is opened and kept. -1: there is
/// none. `anyOpen` is any open descriptor.
[[nodiscard]] int lowestFreeDescriptor(int anyOpen);

}  // namespace lm
