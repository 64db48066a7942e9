#include "lumen/runtime/Codec.h"

#include <algorithm>
#include <cstdio>
#include <type_traits>
#include <utility>

#include "lumen/runtime/Fields.h"

namespace lm {
namespace {

class Writer {
 public:
  void fields(const message& m) {
    for (const Field& field : m.fields()) {
      number(field.key, 4);
      std::visit([this](const auto& value) { write(value); }, field.value);
    }
  }

  std::string bytes;

 private:
  void number(uint64_t value, unsigned size) {
    while (size-- > 0) bytes.push_back(static_cast<char>(value >> (8 * size)));
  }

  void write(bool value) { number(value ? 1 : 0, 1); }
  void write(uint32_t value) { number(value, 4); }
  void write(uint64_t value) { number(value, 8); }
  void write(const std::string& value) {
    number(value.size(), 4);
    bytes += value;
  }
  void write(const message& value) {
    const size_t start = bytes.size();
    number(0, 4);
    fields(value);
    const size_t length = bytes.size() - start - 4;
    for (unsigned i = 0; i < 4; ++i) {
      bytes[start + i] = static_cast<char>(length >> (8 * (3 - i)));
    }
  }
  template <typename T>
  void write(const std::vector<T>& values) {
    number(values.size(), 4);
    for (const auto& value : values) write(value);
  }
};

/// Reads from the front of its bytes, up to the first failure.
class Reader {
 public:
  Reader(std::string_view bytes, lumen::Failure& failure) : bytes_(bytes), failure_(failure) {}

  bool fields(message& m, int depth) {
    if (depth > maxNesting) return fail("nested too deep");
    std::vector<uint32_t> keys;
    while (!bytes_.empty()) {
      uint32_t key = 0;
      Value value;
      if (!read(key) || !this->value(key, value, depth)) return false;
      keys.push_back(key);
      m.fields().append(key, std::move(value));
    }
    std::sort(keys.begin(), keys.end());
    auto twice = std::adjacent_find(keys.begin(), keys.end());
    return twice == keys.end() || fail("key twice", *twice);
  }

 private:
  bool value(uint32_t key, Value& value, int depth) {
    switch (key & type::mask) {
      case type::boolean:
        return read(value.emplace<bool>(), depth);
      case type::u32:
        return read(value.emplace<uint32_t>(), depth);
      case type::u64:
        return read(value.emplace<uint64_t>(), depth);
      case type::string:
        return read(value.emplace<std::string>(), depth);
      case type::message:
        return read(value.emplace<message>(), depth);
      case type::arrayFlag | type::boolean:
        return array(value.emplace<std::vector<bool>>(), 1, depth);
      case type::arrayFlag | type::u32:
        return array(value.emplace<std::vector<uint32_t>>(), 4, depth);
      case type::arrayFlag | type::u64:
        return array(value.emplace<std::vector<uint64_t>>(), 8, depth);
      case type::arrayFlag | type::string:
        return array(value.emplace<std::vector<std::string>>(), 4, depth);
      case type::arrayFlag | type::message:
        return array(value.emplace<std::vector<message>>(), 4, depth);
      default:
        return fail("unknown type", key);
    }
  }

  template <typename T>
  bool number(T& value) {
    if (bytes_.size() < sizeof(T)) return fail("truncated");
    uint64_t result = 0;
    for (char byte : bytes_.substr(0, sizeof(T))) {
      result = result << 8 | static_cast<unsigned char>(byte);
    }
    bytes_.remove_prefix(sizeof(T));
    value = static_cast<T>(result);
    return true;
  }

  bool read(uint32_t& value, int = 0) { return number(value); }
  bool read(uint64_t& value, int) { return number(value); }
  bool read(bool& value, int) {
    uint8_t byte = 0;
    if (!number(byte)) return false;
    if (byte > 1) return fail("bool neither 0 nor 1");
    value = byte == 1;
    return true;
  }
  bool read(std::string& value, int) {
    std::string_view content;
    if (!sized(content)) return false;
    value = content;
    return true;
  }
  bool read(message& value, int depth) {
    std::string_view content;
    return sized(content) && Reader(content, failure_).fields(value, depth + 1);
  }

  /// A u32 length and as many bytes.
  bool sized(std::string_view& content) {
    uint32_t length = 0;
    if (!read(length)) return false;
    if (length > bytes_.size()) return fail("truncated");
    content = bytes_.substr(0, length);
    bytes_.remove_prefix(length);
    return true;
  }

  /// `smallest` is the number of bytes that an element takes at least; it bounds what a wrong count
  /// can make us allocate.
  template <typename T>
  bool array(std::vector<T>& values, size_t smallest, int depth) {
    uint32_t count = 0;
    if (!read(count)) return false;
    if (count > bytes_.size() / smallest) return fail("truncated");
    values.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      T element{};
      if (!read(element, depth)) return false;
      values.push_back(std::move(element));
    }
    return true;
  }

  bool fail(const char* reason) {
    failure_.text = reason;
    return false;
  }
  bool fail(const char* reason, uint32_t key) {
    char text[64];
    std::snprintf(text, sizeof text, "%s: 0x%08x", reason, static_cast<unsigned>(key));
    failure_.text = text;
    return false;
  }

  std::string_view bytes_;
  lumen::Failure& failure_;
};

}  // namespace

std::string encode(const message& m) {
  Writer writer;
  writer.fields(m);
  return std::move(writer.bytes);
}

lumen::Result<message> decode(std::string_view datagram) {
  if (datagram.empty()) return lumen::Failure{"empty"};
  if (datagram.size() > maxDatagram) return lumen::Failure{"too long"};
  message result;
  lumen::Failure failure;
  if (!Reader(datagram, failure).fields(result, 0)) return failure;
  return result;
}

}  // namespace lm
