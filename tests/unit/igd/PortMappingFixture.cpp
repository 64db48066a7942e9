#include "igd/PortMappingFixture.h"

void PortMapping::SetUp() {
  platform.onRequest(natTable, lm::cmd::addObject, [this](const lm::message&) {
    lm::message reply;
    reply.insert_u32(0xfe0001, ++lastRule);
    return reply;
  });
  platform.answer(natTable, lm::cmd::setObject, {});
  platform.answer(natTable, lm::cmd::removeObject, {});
  (void)logged([this] { connection.emplace(7U, strtoip("45.45.45.1")); });
  platform.forgetSent();
}

void PortMapping::TearDown() {
  (void)logged([this] { connection.reset(); });
}

std::string PortMapping::open(const Wish& wish) {
  return invoke(*connection, "AddPortMapping",
                {{"NewRemoteHost", wish.remoteHost},
                 {"NewExternalPort", wish.port},
                 {"NewProtocol", wish.protocol},
                 {"NewInternalPort", wish.internalPort},
                 {"NewInternalClient", wish.internalClient},
                 {"NewEnabled", wish.enabled},
                 {"NewPortMappingDescription", wish.description},
                 {"NewLeaseDuration", wish.lease}});
}

void PortMapping::fillDescriptions(size_t bytes) {
  for (size_t i = 0; i < bytes / (64 * kibibyte); ++i) {
    ASSERT_EQ(open({.port = std::to_string(2000 + i),
                    .internalClient = "192.168.88." + std::to_string(10 + i / 4),
                    .description = text(64 * kibibyte)}),
              opened())
        << i;
  }
}

std::string PortMapping::listed(const Wish& wish) {
  Arguments out = key(wish.port, wish.protocol, "");
  for (const auto& argument : target(wish)) out.push_back(argument);
  return response(type, "GetGenericPortMappingEntry", out);
}

std::vector<lm::message> PortMapping::requests(uint32_t command) {
  std::vector<lm::message> contents;
  for (const lm::message& m : platform.sentTo(natTable, command)) {
    contents.push_back(lm::test::contentOf(m));
  }
  return contents;
}

PortMapping::Arguments PortMapping::target(const Wish& wish) {
  return {{"NewInternalPort", wish.internalPort},
          {"NewInternalClient", wish.internalClient},
          {"NewEnabled", wish.enabled},
          {"NewPortMappingDescription", wish.description},
          {"NewLeaseDuration", wish.lease}};
}
