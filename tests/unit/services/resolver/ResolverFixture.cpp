#include "services/resolver/ResolverFixture.h"

#include "lumen/values/Ipv4.h"
#include "platform/wire/Resolver.h"

namespace lumen::test {

lm::message nameOf(const std::string& host) {
  lm::message request;
  request.insert_string(lm::resolver::key::hostName, host);
  return request;
}

ResolverTest::ResolverTest() {
  etc_.write("resolv.conf", "nameserver 127.0.0.1\n");
  resolver_.emplace(platform_.clock(), std::vector<std::string>{etc_.file("own-resolv.conf"),
                                                                etc_.file("resolv.conf")});
  looper_.addHandler(0, *resolver_);
  platform_.forgetSent();
}

std::string ResolverTest::lookUp(const std::string& name) {
  const uint32_t request = platform_.postRequest(0, lm::resolver::cmd::resolve, nameOf(name));
  EXPECT_TRUE(platform_.turnUntil([&] { return platform_.replyTo(request).has_value(); })) << name;
  return answerTo(request);
}

uint32_t ResolverTest::ask(const std::string& name) {
  const size_t before = questions();
  const uint32_t request = platform_.postRequest(0, lm::resolver::cmd::resolve, nameOf(name));
  EXPECT_TRUE(platform_.turnUntil([&] { return questions() > before; })) << name;
  return request;
}

std::string ResolverTest::answerTo(uint32_t request) {
  const std::optional<lm::message> reply = platform_.replyTo(request);
  if (!reply) return "none yet";
  if (lm::isError(*reply)) return lm::getError(*reply);
  return Ipv4Address::fromBytes(reply->get_be32(lm::resolver::key::address)).text();
}

std::string ResolverTest::failToLookUp(const std::string& name) {
  const uint32_t request = ask(name);
  platform_.advance(Lookup::limit);
  return answerTo(request);
}

void ResolverTest::serverIsSilent() {
  server_.answer = [](const DnsQuestion&) { return std::vector<std::string>(); };
}

}  // namespace lumen::test
