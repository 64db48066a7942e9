#include "support/Describe.h"

#include <sstream>
#include <vector>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"

namespace lm {
namespace {

std::string typeName(uint32_t key) {
  std::string name;
  switch (key & type::mask & ~type::arrayFlag) {
    case type::boolean:
      name = "bool";
      break;
    case type::u32:
      name = "u32";
      break;
    case type::u64:
      name = "u64";
      break;
    case type::string:
      name = "string";
      break;
    default:
      name = "message";
      break;
  }
  return (key & type::arrayFlag) ? name + "[]" : name;
}

void write(std::ostream& out, bool value) { out << (value ? 1 : 0); }
void write(std::ostream& out, uint32_t value) { out << value; }
void write(std::ostream& out, uint64_t value) { out << value; }
void write(std::ostream& out, const std::string& value) { out << '"' << value << '"'; }
void write(std::ostream& out, const message& value) { out << test::describe(value); }
template <typename T>
void write(std::ostream& out, const std::vector<T>& values) {
  out << '[';
  const char* separator = "";
  for (const auto& value : values) {
    out << separator;
    write(out, value);
    separator = " ";
  }
  out << ']';
}

}  // namespace

bool operator==(const message& a, const message& b) { return encode(a) == encode(b); }

void PrintTo(const message& m, std::ostream* out) { *out << test::describe(m); }

namespace test {

std::string describe(const message& m) {
  std::ostringstream out;
  out << '{';
  const char* separator = "";
  for (const Field& field : m.fields()) {
    out << separator << typeName(field.key) << " 0x" << std::hex << (field.key & ~type::mask)
        << std::dec << '=';
    std::visit([&out](const auto& value) { write(out, value); }, field.value);
    separator = ", ";
  }
  out << '}';
  return out.str();
}

}  // namespace test
}  // namespace lm
