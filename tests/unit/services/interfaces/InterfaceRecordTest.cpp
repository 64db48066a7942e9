#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "platform/wire/Interfaces.h"

namespace lumen {
namespace {

lm::interfaces::Record wan() {
  return {.id = 7,
          .hardwareType = lm::interfaces::ethernet,
          .flags = lm::interfaces::flagGone,
          .index = 3,
          .name = "wan0",
          .displayName = "to the provider",
          .disabled = true,
          .running = true,
          .counters =
              lm::interfaces::Counters{
                  .bytesReceived = 1, .bytesSent = 2, .packetsReceived = 3, .packetsSent = 4},
          .role = lm::interfaces::roleExternal};
}

lm::message written(const lm::interfaces::Record& record) {
  lm::message m;
  lm::interfaces::write(m, record);
  return m;
}

/// As its receiver decodes it.
lm::interfaces::Record sent(const lm::interfaces::Record& record) {
  const auto arrived = lm::decode(lm::encode(written(record)));
  return arrived ? lm::interfaces::readRecord(*arrived) : lm::interfaces::Record();
}

std::vector<uint32_t> keysOf(const lm::message& m) {
  std::vector<uint32_t> keys;
  for (const lm::Field& field : m.fields()) keys.push_back(field.key);
  return keys;
}

TEST(InterfaceRecord, IsReadAsItWasWritten) {
  EXPECT_EQ(sent(wan()), wan());
  lm::interfaces::Record silent = wan();
  silent.counters = lm::interfaces::Counters();
  EXPECT_EQ(sent(silent), silent) << "counters of 0 are counters";
  EXPECT_EQ(sent({}), lm::interfaces::Record());
}

TEST(InterfaceRecord, HasNeitherCountersNorRoleThatItsReaderMayNotSee) {
  lm::interfaces::Record shown = wan();
  shown.counters.reset();
  shown.role = 0;
  EXPECT_EQ(sent(shown), shown);
  EXPECT_EQ(keysOf(written(shown)),
            (std::vector<uint32_t>{0x08fe0001, 0x08010001, 0x08010003, 0x08010004, 0x20010005,
                                   0x20010006, 0x00fe000a, 0x0001000e}));
}

TEST(InterfaceRecord, HasItsFieldsInTheirOrder) {
  EXPECT_EQ(keysOf(written(wan())),
            (std::vector<uint32_t>{0x08fe0001, 0x08010001, 0x08010003, 0x08010004, 0x20010005,
                                   0x20010006, 0x00fe000a, 0x0001000e, 0x100100fc, 0x100100fd,
                                   0x100100fe, 0x100100ff, 0x08010010}));
}

}  // namespace
}  // namespace lumen
