#include <gtest/gtest.h>

#include "lumen/ctl/text/JsonText.h"
#include "lumen/web/HostCheck.h"
#include "lumen/web/HostNames.h"
#include "lumen/web/Markup.h"
#include "lumen/web/Refusals.h"

namespace lumen::web {
namespace {

// Promise: The status page answers a request only if its Host header is an address of
// this router or a name that the administrator listed, with any port; other requests get status
// 421.
TEST(HostCheck, AcceptsTheRoutersAddressesAndListedNames) {
  const std::set<Ipv4Address> addresses = {{192, 168, 88, 1}, {45, 45, 45, 2}};
  const std::set<std::string, std::less<>> names = {"router.lan", "gw"};
  for (const char* own : {"192.168.88.1", "192.168.88.1:80", "45.45.45.2:8081", "router.lan",
                          "ROUTER.Lan:80", "router.lan.", "gw", "gw:"}) {
    EXPECT_TRUE(isOwnHost(own, addresses, names)) << own;
  }
  struct Case {
    const char* header;
    const char* why;
  };
  const Case cases[] = {
      {"", "nothing"},
      {"192.168.88.2", "an address that the router does not have"},
      {"evil.example", "a name that was not listed"},
      {"router.lan.evil.example", "a listed name in front of another"},
      {"xrouter.lan", "a listed name at the end of another"},
      {"192.168.88.1.evil.example", "an address in front of a name"},
      {"192.168.088.1", "an address that is written differently"},
      {"3232258049", "an address as one number"},
      {"192.168.88.1:80:80", "two ports"},
      {"192.168.88.1:x", "a port that is no number"},
      {"192.168.88.1:123456", "too long a port"},
      {"192.168.88.1 ", "a blank"},
      {"[::1]", "IPv6, which is not served"},
      {"user@192.168.88.1", "a user"},
      {"router.lan, evil.example", "two"},
  };
  for (const Case& c : cases) EXPECT_FALSE(isOwnHost(c.header, addresses, names)) << c.why;
}

TEST(HostCheck, KnowsWhatAHostNameIs) {
  for (const char* name : {"router", "router.lan", "r-1.example", "8.x"}) {
    EXPECT_TRUE(isHostName(name)) << name;
  }
  EXPECT_TRUE(isHostName(std::string(253, 'a')));
  EXPECT_FALSE(isHostName(std::string(254, 'a')));
  for (const char* name : {"", "-a", ".a", "a b", "a_b", "a/b", "\xC3\xA4"}) {
    EXPECT_FALSE(isHostName(name)) << name;
  }
}

// Promise: What the status page shows is text, whatever a host put into a name.
TEST(Markup, LeavesNoCharacterThatHasAMeaningInHtml) {
  EXPECT_EQ(markup("<script>alert('x') & \"y\"</script>"),
            "&lt;script&gt;alert(&#39;x&#39;) &amp; &quot;y&quot;&lt;/script&gt;");
  EXPECT_EQ(markup("Wohnzimmer \xC3\xA4"), "Wohnzimmer \xC3\xA4");
  EXPECT_EQ(markup("a\nb\xFF\x1B"),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Markup, EscapesTheValueOfALabel) {
  EXPECT_EQ(labelValue("a\"b\\c\nd"),
            "a\\\"b\\\\c\xEF\xBF\xBD"
            "d");
}

TEST(JsonText, EscapesWhatWouldEndAStringOrALine) {
  using lumenctl::jsonText;
  EXPECT_EQ(jsonText("a\"b\\c"), "\"a\\\"b\\\\c\"");
  EXPECT_EQ(jsonText("a\nb\x7F"), "\"a\\u000ab\\u007f\"");
  EXPECT_EQ(jsonText("\xE2\x80\xA8"), "\"\\u2028\"");
  EXPECT_EQ(jsonText("\xC3\xA4\xFF"), "\"\xC3\xA4\xEF\xBF\xBD\"");
  EXPECT_EQ(lumenctl::JsonObject().add("a", 1).add("b", true).add("c", "d").text(),
            "{\"a\":1,\"b\":true,\"c\":\"d\"}");
  EXPECT_EQ(lumenctl::JsonList().text(), "[]");
}

// Promise: The status page names a host as dnsmasq's leases or /etc/hosts do; the first name
// counts.
TEST(HostNames, AreThoseOfHostsFilesAndLeases) {
  NamesByAddress names;
  readHosts(
      "127.0.0.1 localhost\n"
      "# 192.168.88.9 comment\n"
      "192.168.88.10\tnas nas.lan # the disks\n"
      "::1 ip6-localhost\n"
      "192.168.88.11\n"
      "no address\n",
      names);
  readLeases(
      "1700000000 02:00:00:00:00:01 192.168.88.10 other 01:02\n"
      "1700000000 02:00:00:00:00:02 192.168.88.20 phone *\r\n"
      "1700000000 02:00:00:00:00:03 192.168.88.21 * *\n"
      "duid 00:01\n",
      names);
  EXPECT_EQ(names, (NamesByAddress{{{127, 0, 0, 1}, "localhost"},
                                   {{192, 168, 88, 10}, "nas"},
                                   {{192, 168, 88, 20}, "phone"}}));
  NamesByAddress none;
  readHosts("192.168.88.30 " + std::string(65, 'x') + "\n", none);
  EXPECT_TRUE(none.empty()) << "longer than a label of a name can be";
}

TEST(Refusals, AreOfFewKinds) {
  struct Case {
    const char* reason;
    const char* kind;
  };
  const Case cases[] = {
      {"tcp port 8080 of 45.45.45.1 is already in use", "in_use"},
      {"tcp port 22 of 45.45.45.1 is this router's own: sshd listens there", "router_port"},
      {"internal client 192.168.88.10 has all the rules that the policy allows it, 1024",
       "too_many"},
      {"there are 4096 rules already, the policy allows 4096", "too_many"},
      {"internal client 192.168.88.10 is not allowed by the policy", "policy"},
      {"the kernel refused it: Out of memory", "kernel"},
      {"chain must be \"dstnat\"", "other"},
      {"", "other"}};
  for (const Case& c : cases) {
    EXPECT_EQ(refusalKind(c.reason), c.kind) << c.reason;
    EXPECT_NE(std::find(refusalKinds.begin(), refusalKinds.end(), std::string_view(c.kind)),
              refusalKinds.end());
  }
}

}  // namespace
}  // namespace lumen::web
