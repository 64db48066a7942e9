#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "upnp/UPNPStatus.h"

namespace {

// Promise [fault-texts]: The faults' descriptions are `Invalid Action` (401), `Invalid Args` (402),
// `Out of Sync` (403), `Invalid Var` (404), `Action Failed` (501), `SpecifiedArrayIndexInvalid`
// (713), `NoSuchEntryInArray` (714), `WildcardNotPermittedInExtPort` (716),
// `ConflictInMappingEntry` (718), `OnlyPermanentLeasesSupported` (725) and
// `RemoteHostOnlySupportsWildcard` (726).
TEST(UpnpStatus, HasTheDescriptionsOfTheUpnpForum) {
  const std::vector<std::pair<int, std::string>> descriptions = {
      {401, "Invalid Action"},
      {402, "Invalid Args"},
      {403, "Out of Sync"},
      {404, "Invalid Var"},
      {501, "Action Failed"},
      {713, "SpecifiedArrayIndexInvalid"},
      {714, "NoSuchEntryInArray"},
      {716, "WildcardNotPermittedInExtPort"},
      {718, "ConflictInMappingEntry"},
      {725, "OnlyPermanentLeasesSupported"},
      {726, "RemoteHostOnlySupportsWildcard"},
  };
  for (const auto& [code, text] : descriptions) {
    EXPECT_EQ(upnpStatusText(static_cast<UPNPStatus>(code)), text) << code;
  }
}

// Promise: A fault of any other code has an empty description.
TEST(UpnpStatus, DescribesNeitherSuccessNorAnUnknownCode) {
  EXPECT_EQ(upnpStatusText(UPNP_SUCCESS), "");
  for (const int code : {999, 400, 717, -1}) {
    EXPECT_EQ(upnpStatusText(static_cast<UPNPStatus>(code)), "") << code;
  }
}

}  // namespace
