#include <gtest/gtest.h>

#include "http/Server.h"
#include "net/Address.h"
#include "platform/System.h"

// Promise [server-field]: The daemon names itself `Palinode/` with its version, a blank and
// `UPnP/1.0 Kestrava UPnP/1.0` in every `SERVER` field.
// Promise: The base URL of an interface is `http://`, its address and `:2828`.
// Promise: SERVER reads `Palinode/<version> UPnP/1.0 Kestrava UPnP/1.0` in every message that has
// it.
TEST(Server, NamesThisSoftware) {
  EXPECT_EQ(SERVER_STRING, "Palinode/" + getOSVersion() + "UPnP/1.0 Kestrava UPnP/1.0");
  EXPECT_EQ(SERVER_STRING, "Palinode/" PALINODE_VERSION " UPnP/1.0 Kestrava UPnP/1.0");
  EXPECT_EQ(serverUrl(strtoip("10.0.0.1")), "http://10.0.0.1:2828");
}
