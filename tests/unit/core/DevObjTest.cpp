#include <gtest/gtest.h>

#include "core/DevObj.h"
#include "platform/Keys.h"
#include "support/Describe.h"

namespace {

// Promise [gateway-interface]: A configured interface is bool `0xfe000a` disabled, u32 `0x8000001`
// interface and u32 `0x8000002` type, 1 for external and 2 for internal, in this order.
TEST(DevObj, WritesItsThreeFieldsInOrder) {
  DevObj object;
  object.disabled = true;
  object.interface = 7;
  object.type = interface_type::internal;
  lm::message config;
  object.getConfig(config);
  EXPECT_EQ(lm::test::describe(config), "{bool 0xfe000a=1, u32 0x1=7, u32 0x2=2}");
}

TEST(DevObj, IsEnabledAndStartsNothingByDefault) {
  DevObj object;
  object.setConfig({});
  lm::message config;
  object.getConfig(config);
  EXPECT_EQ(lm::test::describe(config), "{bool 0xfe000a=0, u32 0x1=0, u32 0x2=0}");
}

// Promise: A change of a configured interface may leave out what stays.
TEST(DevObj, TakesTheFieldsThatArePresentAndKeepsTheOthers) {
  DevObj object;
  object.interface = 7;
  object.type = interface_type::external;
  lm::message change;
  change.insert_bool(lm::key::disabled, true);
  object.setConfig(change);
  EXPECT_TRUE(object.disabled);
  EXPECT_EQ(object.interface, 7U);
  EXPECT_EQ(object.type, interface_type::external);

  lm::message rest;
  rest.insert_u32(1, 8);
  rest.insert_u32(2, 2);
  object.setConfig(rest);
  EXPECT_TRUE(object.disabled);
  EXPECT_EQ(object.interface, 8U);
  EXPECT_EQ(object.type, interface_type::internal);
}

// Promise: A configured interface is saved, its changes are notified, and it is called `upnp
// interface`.
TEST(DevObj, IsStoredUndoableAndNotified) {
  const DevObj object;
  EXPECT_TRUE(object.isStorable());
  EXPECT_TRUE(object.isUndoable());
  EXPECT_TRUE(object.needNotify());
  EXPECT_EQ(object.getName(), "upnp interface");
}

}  // namespace
