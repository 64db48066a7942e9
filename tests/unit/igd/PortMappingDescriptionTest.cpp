#include "igd/PortMappingFixture.h"

namespace {

// Promise [mapping-description]: A description comes back as it was given.
TEST_F(PortMapping, ReturnsADescriptionUnchanged) {
  const Wish wish{.description = "a 'quoted' name; (x) = 1"};
  open(wish);
  EXPECT_EQ(entryOf("8080", "TCP"), found(wish));
}

// Promise [mapping-descriptions]: The descriptions of all mappings of an interface have at most 4
// MiB together, and those of one internal client 256 KiB: one that goes beyond either is refused
// with 501 and the line `addPortMapping: no room for the description`, and the platform is not
// asked.
// Promise [mapping-description-room]: A description of up to 256 bytes, or one that is not longer
// than the one it replaces, always has room.
TEST_F(PortMapping, KeepsAtMostFourMebibytesOfDescriptions) {
  fillDescriptions(4096 * kibibyte);
  platform.forgetSent();
  const std::string other = "192.168.88.200";
  for (const size_t length : {size_t{257}, 64 * kibibyte}) {
    EXPECT_EQ(open({.port = "999", .internalClient = other, .description = text(length)}), failed)
        << length;
    EXPECT_EQ(ownLog(),
              "add map 999->80, 192.168.88.200\naddPortMapping: no room for the description\n");
  }
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(entries(), "65") << "with the dummy";

  EXPECT_EQ(open({.port = "999", .internalClient = other, .description = text(256)}), opened())
      << "a short one always has room";
  close("2001", "TCP");
  EXPECT_EQ(open({.port = "2001", .internalClient = other, .description = text(257)}), opened());
}

// Also proves [mapping-descriptions], [mapping-description-room].
TEST_F(PortMapping, Keeps256KibibytesOfDescriptionsForEachClient) {
  for (const std::string port : {"2000", "2001", "2002", "2003"}) {
    ASSERT_EQ(open({.port = port, .description = text(64 * kibibyte)}), opened()) << port;
  }
  platform.forgetSent();
  for (const size_t length : {size_t{257}, 64 * kibibyte}) {
    EXPECT_EQ(open({.port = "2004", .description = text(length)}), failed) << length;
    EXPECT_EQ(ownLog(),
              "add map 2004->80, 192.168.88.10\naddPortMapping: no room for the description\n");
  }
  EXPECT_TRUE(platform.sent().empty());

  EXPECT_EQ(open({.port = "2004", .description = text(256)}), opened())
      << "a short one always has room";
  const Wish ofAnother{
      .port = "2005", .internalClient = "192.168.88.11", .description = text(64 * kibibyte)};
  EXPECT_EQ(open(ofAnother), opened()) << "another client has its own room";
  EXPECT_EQ(entryOf("2005", "TCP"), found(ofAnother));
  close("2003", "TCP");
  EXPECT_EQ(open({.port = "2003", .description = text(63 * kibibyte)}), opened())
      << "the room of a closed port is free";
}

// Promise: A description that is replaced does not count against its successor.
TEST_F(PortMapping, DoesNotCountAReplacedDescription) {
  for (const std::string port : {"2000", "2001", "2002", "2003"}) {
    ASSERT_EQ(open({.port = port, .description = text(63 * kibibyte)}), opened()) << port;
  }
  // 4 KiB are free.
  EXPECT_EQ(open({.port = "2000", .description = text(67 * kibibyte)}), opened());
  EXPECT_EQ(open({.port = "2001", .description = text(63 * kibibyte + 1)}), failed);
  EXPECT_EQ(ownLog(),
            "set map 2001->80, 192.168.88.10\naddPortMapping: no room for the description\n");
  EXPECT_EQ(entryOf("2001", "TCP"), found({.description = text(63 * kibibyte)})) << "as it was";
  EXPECT_EQ(open({.port = "2000", .description = text(66 * kibibyte)}), opened());
  EXPECT_EQ(open({.port = "2001", .description = text(64 * kibibyte)}), opened());
}

// Also proves [mapping-description-room].
TEST_F(PortMapping, ChangesAMappingWithoutRoomIfItsDescriptionDoesNotGrow) {
  for (const std::string port : {"2000", "2001", "2002", "2003"}) {
    ASSERT_EQ(open({.port = port, .description = text(64 * kibibyte)}), opened()) << port;
  }
  // A short one is stored nevertheless: more than the limit is in use.
  ASSERT_EQ(open({.port = "2004", .description = text(256)}), opened());
  EXPECT_EQ(open({.port = "2000", .enabled = "0", .description = text(64 * kibibyte)}), opened());
  EXPECT_EQ(open({.port = "2000", .description = text(64 * kibibyte - 1)}), opened());
  EXPECT_EQ(open({.port = "2000", .description = text(64 * kibibyte)}), failed);
}

// Promise: The line `set map` or `add map`, and the conflict with another client, come before the
// room for the description.
TEST_F(PortMapping, ChecksForAConflictBeforeTheRoomForTheDescription) {
  fillDescriptions(4096 * kibibyte);
  platform.forgetSent();
  EXPECT_EQ(
      open(
          {.port = "2000", .internalClient = "192.168.88.200", .description = text(64 * kibibyte)}),
      fault(718, "ConflictInMappingEntry"));
  EXPECT_EQ(ownLog(), "set map 2000->80, 192.168.88.200\naddPortMapping: CONFLICT_IN_ENTRY\n");
  EXPECT_TRUE(platform.sent().empty());
}

}  // namespace
