#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "services/broker/BrokerFixture.h"

namespace lumen::test {
namespace {

class RightsTest : public BrokerTest {};

// Promise [rights-others]: A user who is neither an administrator nor the user of a service is
// refused at connect, members of root's group and of a service's group too.
// Also proves [rights-admin].
TEST_F(RightsTest, RefuseOtherUsersAtConnect) {
  struct Case {
    const char* who;
    std::vector<gid_t> groups;
    uid_t user;
    bool accepted;
  };
  const Case cases[] = {
      {"root", {0}, 0, true},
      {"a member of the group by its primary group", {administrators}, otherUser, true},
      {"a member of the group by another one", {100, 27, administrators}, otherUser, true},
      {"the user of a service", {100}, gatewayUser, true},
      {"anyone else", {100, 27}, otherUser, false},
      {"anyone else in root's group", {0}, otherUser, false},
      {"anyone else in a service's group", {gatewayUser}, otherUser, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.who);
    Program program = connect(c.user, c.groups);
    EXPECT_EQ(program.isDisconnected(), !c.accepted);
  }
}

// Also proves [rights-admin].
TEST_F(RightsTest, OfAnAdministratorAreUnlimited) {
  Program service = connectGateway();
  Program administrator = connect(otherUser, {100, administrators});
  EXPECT_EQ(errorOf(administrator, {0}, lm::broker::cmd::services), "");
  EXPECT_EQ(errorOf(administrator, {0}, lm::broker::cmd::registerServices, services({77})), "");
  EXPECT_EQ(errorOf(administrator, {20, 5}, lm::cmd::list), "");
  asksGateway(administrator);
  EXPECT_TRUE(service.receive());
}

// Promise [register-own]: A service may register its own number and no other: `not permitted`.
// Promise [rights-services]: A service may call the resolver, the identity and the history, and no
// other program: `not permitted`.
TEST_F(RightsTest, OfAServiceAreItsOwnNumberAndWhatItDependsOn) {
  Program service = connect(gatewayUser);
  EXPECT_EQ(errorOf(service, {0}, lm::broker::cmd::registerServices, services({resolver})),
            "not permitted");
  EXPECT_EQ(errorOf(service, {0}, lm::broker::cmd::registerServices, services({gateway, resolver})),
            "not permitted");
  EXPECT_EQ(errorOf(service, {0}, lm::broker::cmd::registerServices, services({77})),
            "not permitted");
  EXPECT_EQ(errorOf(service, {0}, lm::broker::cmd::services), "not permitted");
  EXPECT_EQ(errorOf(service, {gateway, 0}, someCommand), "not permitted");
  EXPECT_EQ(errorOf(service, {77}, someCommand), "not permitted");
  EXPECT_EQ(errorOf(service, {65}, lm::cmd::get), "no such service") << "no handler is there";
  EXPECT_EQ(errorOf(service, {66}, lm::cmd::addObject), "") << "the handler decides";
  EXPECT_EQ(errorOf(service, {20, 5}, lm::cmd::addObject), "") << "the handler decides";
  service.ask({resolver}, someCommand);
  settle();
  EXPECT_EQ(processes.started.size(), 1U) << "the resolver is starting";
}

// Promise [rights-reads]: A service that may read lists and reads interfaces, addresses, NAT rules,
// the record of ports, the history, the services and a gateway that runs. It is refused every other
// request.
TEST_F(RightsTest, OfAServiceThatReadsAreToReadAndNoMore) {
  broker.addLocal(20, 0, rules);
  broker.addLocal(20, 1, rules);
  broker.addLocal(20, 6, rules);
  broker.addLocal(20, 7, rules);
  broker.addLocal(65, 0, rules);
  Program web = connect(readerUser);
  registerAs(web, 42);
  const uint32_t reads[] = {lm::cmd::list, lm::cmd::readObject, lm::cmd::readAll, lm::cmd::get};
  const uint32_t others[] = {lm::cmd::setObject, lm::cmd::addObject, lm::cmd::removeObject,
                             lm::cmd::set,       someCommand,        0,
                             lm::cmd::changed};
  for (const auto& path : std::vector<std::vector<uint32_t>>{
           {20}, {20, 0}, {20, 1}, {20, 5}, {20, 6}, {20, 7}, {66}, {66, 0}}) {
    for (const uint32_t command : reads) EXPECT_EQ(errorOf(web, path, command), "") << command;
    for (const uint32_t command : others) {
      EXPECT_EQ(errorOf(web, path, command), "not permitted") << path[0] << " " << command;
    }
  }
  for (const Caller& caller : rules.callers) {
    EXPECT_TRUE(caller.reads);
    EXPECT_FALSE(caller.administrator);
  }
  EXPECT_EQ(rules.commands.size(), 24U);
  EXPECT_EQ(errorOf(web, {0}, lm::broker::cmd::services), "");
  for (const auto& path : std::vector<std::vector<uint32_t>>{
           {65}, {20, 2}, {20, 8}, {66, 1}, {resolver}, {77}, {gateway, 1}}) {
    for (const uint32_t command : reads) {
      EXPECT_EQ(errorOf(web, path, command), "not permitted") << path[0] << " " << command;
    }
  }
  lm::message on;
  on.insert_bool(1, true);
  EXPECT_EQ(errorOf(web, {0}, lm::broker::cmd::monitor, on), "not permitted");
  EXPECT_EQ(errorOf(web, {0}, lm::broker::cmd::registerServices, services({gateway})),
            "not permitted");
  // One that does not run is not started.
  EXPECT_EQ(errorOf(web, {gateway, 0}, lm::cmd::get), "service unavailable");
  EXPECT_TRUE(processes.started.empty());
  Program upnp = connectGateway();
  EXPECT_EQ(errorOf(web, {gateway, 0}, lm::cmd::set), "not permitted");
  EXPECT_EQ(errorOf(web, {gateway, 0}, lm::cmd::addObject), "not permitted");
  web.ask({gateway, 0}, lm::cmd::get);
  settle();
  EXPECT_EQ(upnp.next().get_u32(lm::key::command), lm::cmd::get);
}

// Also proves [rights-reads].
TEST_F(RightsTest, OfAServiceThatReadsIncludeNotificationsOfWhatItReads) {
  rules.forAdministrators = true;
  broker.addLocal(20, 6, rules);
  Program web = connect(readerUser);
  registerAs(web, 42);
  const uint32_t subscribe = lm::broker::cmd::subscribe;
  for (const auto& path : std::vector<std::vector<uint32_t>>{
           {20, 0}, {20, 1}, {20, 5}, {20, 6}, {20, 7}, {66}, {40, 0}, {0}}) {
    EXPECT_EQ(errorOf(web, {0}, subscribe, topic(lm::cmd::changed, path)), "") << path[0];
  }
  for (const auto& path : std::vector<std::vector<uint32_t>>{{65}, {20, 2}, {14}, {77}, {40, 1}}) {
    EXPECT_EQ(errorOf(web, {0}, subscribe, topic(lm::cmd::changed, path)), "not permitted");
  }
  broker.notify(lm::cmd::changed, {20, 5}, fields("opened"));
  settle();
  EXPECT_EQ(web.next().get_string(7), "opened");
  // What only readers get, another service does not.
  Program upnp = connectGateway();
  EXPECT_EQ(errorOf(upnp, {0}, subscribe, topic(lm::cmd::changed, {20, 6})), "not permitted");
  EXPECT_EQ(errorOf(upnp, {0}, subscribe, topic(lm::cmd::changed, {0})), "not permitted");
}

// Promise: A service that may open ports may subscribe to the NAT rules, and is notified of its own
// rules only; one that may not open ports may not.
TEST_F(RightsTest, OfAServiceThatOpensPortsIncludeNotificationsOfItsOwn) {
  rules.forAdministrators = true;
  Program web = connect(readerUser);
  Program upnp = connectGateway();
  Program second = connect(gatewayUser);
  Program names = connectResolver();
  const uint32_t subscribe = lm::broker::cmd::subscribe;
  const lm::message rulesTopic = topic(lm::cmd::changed, {20, 5});
  for (Program* program : {&web, &upnp, &second}) {
    EXPECT_EQ(errorOf(*program, {0}, subscribe, rulesTopic), "");
  }
  EXPECT_EQ(errorOf(names, {0}, subscribe, rulesTopic), "not permitted");
  EXPECT_EQ(errorOf(upnp, {20, 5}, lm::cmd::addObject), "");
  const uint64_t owner = rules.callers.back().connection;

  broker.notifyWithOwner(owner, lm::cmd::changed, {20, 5}, fields("ended"));
  broker.notify(lm::cmd::changed, {20, 5}, fields("opened"));
  settle();
  EXPECT_EQ(web.next().get_string(7), "ended");
  EXPECT_EQ(web.next().get_string(7), "opened");
  EXPECT_EQ(upnp.next().get_string(7), "ended");
  EXPECT_FALSE(upnp.receive());
  EXPECT_FALSE(second.receive());
  EXPECT_FALSE(names.receive());
}

TEST_F(RightsTest, OfAServiceThatOpensNoPortsIncludeNoRulesOfItsOwn) {
  const auto hears = [&](uid_t user, Path path) {
    return Rights({.pid = 1, .user = user, .groups = {100}}, supervisor, std::nullopt)
        .mayHearOfItsOwn(path);
  };
  EXPECT_TRUE(hears(gatewayUser, {20, 5}));
  EXPECT_FALSE(hears(gatewayUser, {20, 6}));
  EXPECT_FALSE(hears(gatewayUser, {66, 5}));
  EXPECT_FALSE(hears(readerUser, {20, 5}));
  EXPECT_FALSE(hears(resolverUser, {20, 5}));
}

// Promise: A service that has not subscribed is notified of nothing, not even of its own rules.
TEST_F(RightsTest, OfAServiceThatHasNotSubscribedIncludeNoNotification) {
  rules.forAdministrators = true;
  Program upnp = connectGateway();
  EXPECT_EQ(errorOf(upnp, {20, 5}, lm::cmd::addObject), "");
  broker.notifyWithOwner(rules.callers.back().connection, lm::cmd::changed, {20, 5},
                         fields("ended"));
  settle();
  EXPECT_FALSE(upnp.receive());
}

// Promise: Who reads the list of services is notified when a program registers, unregisters, ends,
// or will not come up soon.
TEST_F(RightsTest, ShowAReaderThatTheServicesChange) {
  Program web = connect(readerUser);
  registerAs(web, 42);
  EXPECT_EQ(errorOf(web, {0}, lm::broker::cmd::subscribe, topic(lm::cmd::changed, {0})), "");
  const auto isNotified = [&] {
    settle();
    const std::optional<lm::message> news = web.receive();
    while (web.receive()) {
    }
    return news && news->get_u32(lm::key::command) == lm::cmd::changed &&
           news->get_u32_array_ref(lm::key::source) == std::vector<uint32_t>{0, 0};
  };
  EXPECT_FALSE(isNotified());
  Program upnp = connectGateway();
  EXPECT_TRUE(isNotified());
  unregister(upnp, gateway);
  EXPECT_TRUE(isNotified());
  registerAs(upnp, gateway);
  EXPECT_TRUE(isNotified());
  upnp.close();
  EXPECT_TRUE(isNotified());
  broker.unavailable(gateway);
  EXPECT_TRUE(isNotified());
  // Its own end does not concern it.
  web.close();
  settle();
  EXPECT_EQ(supervisor.list().size(), 3U);
}

// Promise [rights-answers]: A service that only answers is refused every request and every
// subscription, and may still register and unregister its number.
TEST_F(RightsTest, OfAServiceThatAnswersOnlyAreItsOwnNumberAlone) {
  Program names = connectResolver();
  EXPECT_EQ(errorOf(names, {20, 5}, lm::cmd::addObject), "not permitted");
  EXPECT_EQ(errorOf(names, {66}, lm::cmd::addObject), "not permitted");
  EXPECT_EQ(errorOf(names, {gateway}, someCommand), "not permitted");
  EXPECT_EQ(errorOf(names, {0}, lm::broker::cmd::subscribe, topic(someCommand, {20, 5})),
            "not permitted");
  EXPECT_TRUE(rules.commands.empty());
  unregister(names, resolver);
}

// Promise: A service may not unregister another's number: `service 14 is not registered here`.
TEST_F(RightsTest, DoNotLetAServiceUnregisterAnother) {
  Program names = connectResolver();
  Program service = connect(gatewayUser);
  EXPECT_EQ(errorOf(service, {0}, lm::broker::cmd::unregisterServices, services({resolver})),
            "service 14 is not registered here");
}

// Promise [broker-connections]: A user of services may hold 16 connections; the next one is refused
// and logged: `refused process 1 of user 200, which has too many connections`.
TEST_F(RightsTest, BoundTheConnectionsOfAUser) {
  std::vector<Program> programs;
  for (size_t i = 0; i < 16; ++i) {
    programs.push_back(connect(gatewayUser));
    EXPECT_FALSE(programs.back().isDisconnected());
  }
  testing::internal::CaptureStdout();
  EXPECT_TRUE(connect(gatewayUser).isDisconnected());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "refused process 1 of user 200, which has too many connections\n");
  EXPECT_FALSE(connect(resolverUser).isDisconnected());
  EXPECT_FALSE(connectAdministrator().isDisconnected());
  programs.pop_back();
  settle();
  EXPECT_FALSE(connect(gatewayUser).isDisconnected());
}

// Promise: A refusal at connect is logged, `refused process 1 of user 1000, which has no rights
// here`, once for a user who keeps trying.
TEST_F(RightsTest, LogARefusedUserOnlyOnce) {
  testing::internal::CaptureStdout();
  for (int i = 0; i < 3; ++i) connect(otherUser);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "refused process 1 of user 1000, which has no rights here\n");
}

// Promise [register-range]: Registering nothing is refused with `no service numbers`, a number
// outside 1 to 65535 with `65536 is no service number`.
// Promise: Registering a number that another connection or lumend itself has is refused with
// `service 77 is already registered`, and then none of the request's numbers is registered.
// Promise: A number is free again when the connection that had it has ended.
TEST_F(RightsTest, RegisterOnlyWhatIsFree) {
  Program administrator = connectAdministrator();
  Program other = connectAdministrator();
  EXPECT_EQ(errorOf(other, {0}, lm::broker::cmd::registerServices, services({77})), "");
  struct Case {
    std::vector<uint32_t> numbers;
    const char* error;
  };
  const Case cases[] = {
      {{}, "no service numbers"},
      {{0}, "0 is no service number"},
      {{0x10000}, "65536 is no service number"},
      {{20}, "service 20 is already registered"},
      {{77}, "service 77 is already registered"},
      {{78, 77}, "service 77 is already registered"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(errorOf(administrator, {0}, lm::broker::cmd::registerServices, services(c.numbers)),
              c.error);
  }
  EXPECT_EQ(errorOf(administrator, {78}, someCommand), "no such service") << "all of them or none";
  EXPECT_EQ(errorOf(other, {0}, lm::broker::cmd::registerServices, services({77, 77})), "");
  other.close();
  settle();
  EXPECT_EQ(errorOf(administrator, {0}, lm::broker::cmd::registerServices, services({77})), "");
}

// Promise: A command that the broker does not know is answered with `unknown command`.
TEST_F(RightsTest, RefuseUnknownCommands) {
  Program administrator = connectAdministrator();
  EXPECT_EQ(errorOf(administrator, {0}, 0x99), "unknown command");
}

// Promise: Only administrators, and services that may read, get the list of services with their
// states.
TEST_F(RightsTest, LetAnAdministratorListTheServices) {
  Program administrator = connectAdministrator();
  administrator.ask({0}, lm::broker::cmd::services);
  settle();
  const lm::message reply = administrator.next();
  const auto& records = reply.get_message_array_ref(lm::key::records);
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[1].get_string(lm::broker::listed::name), "upnp");
  EXPECT_EQ(records[1].get_string(lm::broker::listed::state), "stopped");
}

}  // namespace
}  // namespace lumen::test
