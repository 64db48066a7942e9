#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lm {

/// A list of typed fields in insertion order, the unit of communication between this router's
/// programs.
///
/// A key is 32 bits: the top five bits are the type, the low 27 the field number. Every accessor
/// sets the type bits itself, so `insert_u32(1, v)` and `insert_u32(0x08000001, v)` are equivalent.
/// Inserting a key that is present replaces its value in place.
///
/// A message is a value: copying it copies every field. A moved-from message is empty.
class message {
 public:
  /// The fields; only the platform's own code knows their layout.
  class Fields;

  message() noexcept;
  message(const message& other);
  message(message&& other) noexcept;
  message& operator=(const message& other);
  message& operator=(message&& other) noexcept;
  ~message();

  void insert_bool(uint32_t key, bool value);
  void insert_u32(uint32_t key, uint32_t value);
  /// The same as insert_u32.
  void insert(uint32_t key, uint32_t value);
  void insert_u64(uint32_t key, uint64_t value);
  /// `address` is an IPv4 address in network byte order, as inet_addr gives it.
  void insert_be32(uint32_t key, uint32_t address);
  void insert_string(uint32_t key, std::string value);
  void insert_message(uint32_t key, message value);
  void insert_u32_array(uint32_t key, std::vector<uint32_t> values);
  void insert_message_array(uint32_t key, std::vector<message> values);

  /// The value of a field, or `absent` when there is none.
  [[nodiscard]] bool get_bool(uint32_t key, bool absent = false) const;
  [[nodiscard]] uint32_t get_u32(uint32_t key, uint32_t absent = 0) const;
  [[nodiscard]] uint64_t get_u64(uint32_t key, uint64_t absent = 0) const;
  /// In network byte order, as inet_ntoa takes it; so is `absent`.
  [[nodiscard]] uint32_t get_be32(uint32_t key, uint32_t absent = 0) const;
  [[nodiscard]] std::string get_string(uint32_t key, const std::string& absent = {}) const;
  /// An empty message when the field is absent.
  [[nodiscard]] message get_message(uint32_t key) const;

  /// A writable reference to a field, created as false or 0 when absent. Valid until the next
  /// insertion into this message.
  [[nodiscard]] bool& get_bool_ref(uint32_t key);
  [[nodiscard]] uint32_t& get_u32_ref(uint32_t key);

  /// The elements of an array; empty when the field is absent. Valid until this message changes.
  [[nodiscard]] const std::vector<uint32_t>& get_u32_array_ref(uint32_t key) const;
  [[nodiscard]] const std::vector<message>& get_message_array_ref(uint32_t key) const;

  /// The number of elements of a message array, 0 when it is absent.
  [[nodiscard]] size_t size_message_array(uint32_t key) const;

  /// Whether the array field is present, even if empty. Unlike the accessors, it takes the element
  /// type from the key and sets only the array flag.
  [[nodiscard]] bool has_array(uint32_t key) const;

  /// For the platform's own code: the fields, for iterating, encoding and decoding.
  [[nodiscard]] const Fields& fields() const;
  [[nodiscard]] Fields& fields();

 private:
  std::unique_ptr<Fields> fields_;  // null: none
};

/// An error reply with this code and text.
[[nodiscard]] message errorMsg(uint32_t code, const std::string& text);

/// Whether `reply` is an error reply.
[[nodiscard]] bool isError(const message& reply);

/// The text of an error reply, for the log; empty for any other reply.
[[nodiscard]] std::string getError(const message& reply);

}  // namespace lm
