#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>

#include "igd/PortMaps.h"

namespace {

PortMap describedAs(const std::string& description) {
  PortMap mapping;
  mapping.description = description;
  return mapping;
}

TEST(PortMapsTest, EveryPositionHasTheEntryThatAWalkInKeyOrderReaches) {
  PortMaps maps;
  std::map<Id, std::string> expected;
  std::minstd_rand random(1);
  for (int step = 0; step < 2000; ++step) {
    const Id id{static_cast<uint32_t>(random() % 100), static_cast<uint32_t>(random() % 2)};
    if (random() % 3 != 0) {
      const std::string description = std::to_string(step);
      maps.add(id, describedAs(description));
      expected.try_emplace(id, description);
    } else {
      maps.erase(id);
      expected.erase(id);
    }
    ASSERT_EQ(maps.size(), expected.size());
    size_t position = 0;
    for (const auto& [key, description] : expected) {
      const auto& [listed, mapping] = maps.at(position++);
      ASSERT_EQ(listed.externalPort, key.externalPort);
      ASSERT_EQ(listed.protocol, key.protocol);
      ASSERT_EQ(mapping.description, description);
      ASSERT_EQ(maps.find(key), &mapping);
    }
  }
}

TEST(PortMapsTest, AnUnknownKeyIsNeitherFoundNorErased) {
  PortMaps maps;
  maps.add({80, Id::tcp}, describedAs("web"));
  EXPECT_EQ(maps.find({80, Id::udp}), nullptr);
  maps.erase({80, Id::udp});
  EXPECT_EQ(maps.size(), 1U);
}

TEST(PortMapsTest, AMappingThatChangesIsListedAsItIs) {
  PortMaps maps;
  maps.add({80, Id::tcp}, describedAs("before"));
  maps.find({80, Id::tcp})->description = "after";
  EXPECT_EQ(maps.at(0).second.description, "after");
}

// A walk to each entry would take ten thousand million steps, and this test longer than it may.
// Promise: An entry of the list is read as fast among a hundred thousand as among ten.
TEST(PortMapsTest, EveryEntryOfALongListIsReadWithoutAWalk) {
  constexpr uint32_t count = 100'000;
  constexpr int rounds = 10;
  PortMaps maps;
  for (uint32_t port = 0; port < count; ++port) maps.add({port, Id::tcp}, {});
  for (int round = 0; round < rounds; ++round) {
    for (uint32_t port = 0; port < count; ++port) {
      ASSERT_EQ(maps.at(port).first.externalPort, port);
    }
  }
}

}  // namespace
