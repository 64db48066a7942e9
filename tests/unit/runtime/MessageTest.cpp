#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "lumen/runtime/Fields.h"
#include "platform/Keys.h"
#include "platform/message.h"
#include "support/Describe.h"

namespace lm {
namespace {

using test::describe;

// Promise: An accessor puts its own type into the key, so that `insert_u32(1, v)` and
// `insert_u32(0x08000001, v)` set the same field.
TEST(Message, AccessorsSetTheTypeBitsThemselves) {
  message m;
  m.insert_u32(1, 7);
  m.insert_u32(0x08000001, 8);
  EXPECT_EQ(describe(m), "{u32 0x1=8}");
  EXPECT_EQ(m.get_u32(1), 8U);
  EXPECT_EQ(m.get_u32(0x08000001), 8U);
}

// Promise: Fields of one number and different types are different fields.
TEST(Message, KeepsFieldsOfOneNumberAndDifferentTypesApart) {
  message m;
  m.insert_bool(1, true);
  m.insert_u32(1, 2);
  m.insert_u64(1, 3);
  m.insert_string(1, "four");
  m.insert_u32_array(1, {5});
  EXPECT_EQ(describe(m), "{bool 0x1=1, u32 0x1=2, u64 0x1=3, string 0x1=\"four\", u32[] 0x1=[5]}");
  EXPECT_TRUE(m.get_bool(1));
  EXPECT_EQ(m.get_u32(1), 2U);
  EXPECT_EQ(m.get_u64(1), 3U);
  EXPECT_EQ(m.get_string(1), "four");
  EXPECT_EQ(m.get_u32_array_ref(1), std::vector<uint32_t>{5});
}

// Promise: Setting a key that is present replaces its value in its place.
// Also proves [msg-form].
TEST(Message, KeepsTheOrderOfInsertionAndReplacesInPlace) {
  message m;
  m.insert_u32(3, 1);
  m.insert(2, 2);
  m.insert_u32(1, 3);
  m.insert_u32(2, 9);
  EXPECT_EQ(describe(m), "{u32 0x3=1, u32 0x2=9, u32 0x1=3}");
}

// Promise: Reading an absent field gives the default that the reader names, else false, 0, an empty
// text, array or message.
TEST(Message, GivesTheDefaultOfAnAbsentField) {
  const message m;
  EXPECT_FALSE(m.get_bool(1));
  EXPECT_TRUE(m.get_bool(1, true));
  EXPECT_EQ(m.get_u32(1), 0U);
  EXPECT_EQ(m.get_u32(1, 7), 7U);
  EXPECT_EQ(m.get_u64(1, 8), 8U);
  EXPECT_EQ(m.get_be32(1, inet_addr("10.0.0.1")), inet_addr("10.0.0.1"));
  EXPECT_EQ(m.get_string(1, "x"), "x");
  EXPECT_EQ(m.get_message(1), message());
  EXPECT_TRUE(m.get_u32_array_ref(1).empty());
  EXPECT_TRUE(m.get_message_array_ref(1).empty());
  EXPECT_EQ(m.size_message_array(1), 0U);
}

// Also proves [msg-address].
TEST(Message, HoldsAddressesAsInetAddrGivesThem) {
  message m;
  m.insert_be32(0x34, inet_addr("192.168.88.10"));
  EXPECT_EQ(m.get_be32(0x34), inet_addr("192.168.88.10"));
  EXPECT_EQ(m.get_u32(0x34), 0xC0A8580AU) << "the number that a big-endian machine sees";
}

TEST(Message, WritableReferencesCreateTheField) {
  message m;
  m.get_bool_ref(2) = true;
  m.get_u32_ref(1) += 5;
  m.get_u32_ref(1) += 1;
  EXPECT_EQ(describe(m), "{bool 0x2=1, u32 0x1=6}");
}

// Promise: An array that is present and empty is distinguished from one that is absent.
TEST(Message, DistinguishesAnEmptyArrayFromAnAbsentOne) {
  message m;
  EXPECT_FALSE(m.has_array(key::records));
  m.insert_message_array(key::records, {});
  EXPECT_TRUE(m.has_array(key::records));
  EXPECT_TRUE(m.has_array(key::records & ~type::arrayFlag)) << "the array flag is set for us";
  EXPECT_FALSE(m.has_array(0xfe0002)) << "the element type is that of the key: bool";
  EXPECT_EQ(m.size_message_array(0xfe0002), 0U);
}

// Promise: The elements of an array of messages are counted without being copied, and a field that
// is written in place is created when it is absent.
TEST(Message, CountsTheElementsOfAMessageArray) {
  message m;
  m.insert_message_array(1, {message(), message()});
  EXPECT_EQ(m.size_message_array(1), 2U);
}

// Promise: A copied message is independent of the first, and a moved one is empty and usable.
TEST(Message, CopiesAreIndependent) {
  message inner;
  inner.insert_u32(1, 1);
  message a;
  a.insert_message(2, inner);
  message b = a;
  b.insert_u32(3, 3);
  a = b;
  b.get_u32_ref(3) = 4;
  EXPECT_EQ(describe(a), "{message 0x2={u32 0x1=1}, u32 0x3=3}");
  message& self = a;
  a = self;
  EXPECT_EQ(a.get_u32(3), 3U);
}

TEST(Message, IsEmptyAndUsableAfterAMove) {
  message a;
  a.insert_u32(1, 1);
  message b = std::move(a);
  EXPECT_EQ(b.get_u32(1), 1U);
  a = message();
  a.insert_u32(2, 2);
  EXPECT_EQ(describe(a), "{u32 0x2=2}");
}

// Promise [error-fields]: An error reply carries the code `0xfe0009` (`0x08ff0008`) and a text
// (`0x20ff0009`); a reply without the code is no error.
TEST(ErrorReply, CarriesCodeAndText) {
  const message reply = errorMsg(0xfe0009, "Interface already added");
  EXPECT_TRUE(isError(reply));
  EXPECT_EQ(getError(reply), "Interface already added");
  EXPECT_EQ(describe(reply),
            "{u32 0xff0008=16646153, string 0xff0009=\"Interface already added\"}");
}

// Also proves [error-fields].
TEST(ErrorReply, AnyOtherReplyIsNoError) {
  message reply;
  EXPECT_FALSE(isError(reply));
  reply.insert_string(key::errorText, "not an error without a code");
  EXPECT_FALSE(isError(reply));
  EXPECT_EQ(getError(reply), "");
}

// Promise: Paths, serial, reply field, command and error fields are never part of a message's
// content.
TEST(TransportFields, AreNoContentOfAMessage) {
  message m;
  m.insert_u32_array(key::destination, {40, 0});
  m.insert_bool(1, true);
  m.insert_u32_array(key::source, {20, 0});
  m.insert_u32(key::serial, 1);
  m.insert_bool(key::isReply, true);
  m.insert_u32(key::command, 1);
  m.insert_u32(key::errorCode, 1);
  m.insert_string(key::errorText, "x");
  m.insert_u32(key::objectId, 3);
  EXPECT_EQ(describe(withoutTransportFields(m)), "{bool 0x1=1, u32 0xfe0001=3}");
}

// Promise: A record of an object starts with its id.
TEST(Record, StartsWithTheId) {
  message config;
  config.insert_bool(key::disabled, true);
  config.insert_u32(key::objectId, 99);
  EXPECT_EQ(describe(makeRecord(3, config)), "{u32 0xfe0001=3, bool 0xfe000a=1}");
}

}  // namespace
}  // namespace lm
