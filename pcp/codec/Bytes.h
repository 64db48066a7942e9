#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace pcp {

/// Reads big-endian numbers from the front of a datagram. A read past its end gives zeros, and
/// `complete` is false from then on. The bytes must outlive this.
class ByteReader {
 public:
  explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  [[nodiscard]] uint8_t u8() { return array<1>()[0]; }
  [[nodiscard]] uint16_t u16() {
    const auto b = array<2>();
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
  }
  [[nodiscard]] uint32_t u32() {
    const uint32_t high = u16();
    return high << 16 | u16();
  }
  template <size_t N>
  [[nodiscard]] std::array<uint8_t, N> array() {
    std::array<uint8_t, N> value = {};
    const std::span<const uint8_t> taken = take(N);
    std::copy(taken.begin(), taken.end(), value.begin());
    return value;
  }
  /// The next `size` bytes; none of them when there are fewer.
  std::span<const uint8_t> take(size_t size) {
    if (size > bytes_.size()) {
      complete_ = false;
      bytes_ = {};
      return {};
    }
    const std::span<const uint8_t> taken = bytes_.first(size);
    bytes_ = bytes_.subspan(size);
    return taken;
  }

  [[nodiscard]] size_t left() const { return bytes_.size(); }
  /// Every read found its bytes.
  [[nodiscard]] bool complete() const { return complete_; }

 private:
  std::span<const uint8_t> bytes_;
  bool complete_ = true;
};

/// Appends big-endian numbers to a datagram.
class ByteWriter {
 public:
  ByteWriter& u8(uint8_t value) {
    bytes_.push_back(value);
    return *this;
  }
  ByteWriter& u16(uint16_t value) {
    return u8(static_cast<uint8_t>(value >> 8)).u8(static_cast<uint8_t>(value));
  }
  ByteWriter& u32(uint32_t value) {
    return u16(static_cast<uint16_t>(value >> 16)).u16(static_cast<uint16_t>(value));
  }
  ByteWriter& bytes(std::span<const uint8_t> value) {
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return *this;
  }
  ByteWriter& zeros(size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
  }

  [[nodiscard]] std::vector<uint8_t> take() { return std::move(bytes_); }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace pcp
