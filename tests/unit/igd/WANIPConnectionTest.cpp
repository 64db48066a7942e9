#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "igd/Router.h"
#include "igd/WANIPConnection.h"
#include "net/Address.h"

namespace {

using namespace std::chrono_literals;

const std::string type = "urn:schemas-upnp-org:service:WANIPConnection:1";
constexpr uint32_t wan = 7;  // its interface's object id

class WanIpConnection : public Router {
 protected:
  void SetUp() override {
    log = logged([this] { connection.emplace(wan, strtoip("45.45.45.2")); });
    platform.forgetSent();
  }
  void TearDown() override {
    EXPECT_EQ(logged([this] { connection.reset(); }), "");
  }

  static std::string ok(const std::string& action, const Arguments& out = {}) {
    return response(type, action, out);
  }
  std::string status() { return connection->getVar("ConnectionStatus"); }

  /// The action succeeds, with exactly one request that disables or enables the interface.
  void expectSwitch(const std::string& action, bool disabled) {
    platform.answer(interfaceTable, lm::cmd::setObject, {});
    EXPECT_EQ(invoke(*connection, action), ok(action));
    EXPECT_EQ(log, "action: " + action + "\n");
    lm::message wanted;
    wanted.insert_u32(0xfe0001, wan);
    wanted.insert_bool(0xfe000a, disabled);
    const auto requests = platform.sentTo(interfaceTable, lm::cmd::setObject);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(lm::test::contentOf(requests[0]), wanted);
    EXPECT_EQ(platform.sent().size(), 1U);
  }

  std::optional<WANIPConnection> connection;
};

// Promise: A service that is made logs `initial external addr: ` with its address, and asks the
// platform for nothing.
TEST_F(WanIpConnection, LogsItsFirstAddress) {
  EXPECT_EQ(log, "initial external addr: 45.45.45.2\n");
}

TEST_F(WanIpConnection, AsksThePlatformForNothingWhenItIsMade) {
  EXPECT_TRUE(platform.sent().empty());
}

// Promise [ip-variables]: WANIPConnection has the 18 variables of a routed connection with their
// types, allowed values and evented flags; `PossibleConnectionTypes`, `ConnectionStatus`,
// `ExternalIPAddress` and `PortMappingNumberOfEntries` are evented.
// Promise: At first `ConnectionType` and `PossibleConnectionTypes` are `IP_Routed`,
// `ConnectionStatus` is `Unconfigured`, `X_Name` is `Local Area Connection`, `LastConnectionError`
// is `ERROR_NONE`, `RSIPAvailable` is `0`, `NATEnabled` is `1` and `PortMappingNumberOfEntries` is
// `0`.
// Promise: The eight variables that only type the arguments of port mappings never have a value: a
// query of them is a fault.
// Promise: The uptime is not evented.
TEST_F(WanIpConnection, HasTheVariablesOfARoutedConnection) {
  struct Row {
    std::string name;
    VarType type;
    std::vector<std::string> allowed;
    bool evented;
    std::optional<std::string> value;
  };
  const std::vector<Row> rows = {
      {"ConnectionType",
       VAR_STRING,
       {"Unconfigured", "IP_Routed", "IP_Bridged"},
       false,
       "IP_Routed"},
      {"PossibleConnectionTypes", VAR_STRING, {"IP_Routed"}, true, "IP_Routed"},
      {"ConnectionStatus",
       VAR_STRING,
       {"Unconfigured", "Connected", "Disconnected", "Connecting"},
       true,
       "Unconfigured"},
      {"X_Name", VAR_STRING, {}, false, "Local Area Connection"},
      {"Uptime", VAR_UI4, {}, false, "1000"},
      {"LastConnectionError", VAR_STRING, {"ERROR_NONE"}, false, "ERROR_NONE"},
      {"RSIPAvailable", VAR_BOOLEAN, {}, false, "0"},
      {"NATEnabled", VAR_BOOLEAN, {}, false, "1"},
      {"ExternalIPAddress", VAR_STRING, {}, true, "45.45.45.2"},
      {"PortMappingNumberOfEntries", VAR_UI2, {}, true, "0"},
      {"PortMappingEnabled", VAR_BOOLEAN, {}, false, {}},
      {"PortMappingLeaseDuration", VAR_UI4, {}, false, {}},
      {"RemoteHost", VAR_STRING, {}, false, {}},
      {"ExternalPort", VAR_UI2, {}, false, {}},
      {"InternalPort", VAR_UI2, {}, false, {}},
      {"PortMappingProtocol", VAR_STRING, {"TCP", "UDP"}, false, {}},
      {"InternalClient", VAR_STRING, {}, false, {}},
      {"PortMappingDescription", VAR_STRING, {}, false, {}},
  };
  EXPECT_EQ(connection->getVariables().size(), rows.size());
  for (const Row& row : rows) {
    const auto found = connection->getVariables().find(row.name);
    ASSERT_NE(found, connection->getVariables().end()) << row.name;
    const Variable& variable = found->second;
    EXPECT_EQ(variable.type, row.type) << row.name;
    EXPECT_EQ(variable.allowed, row.allowed) << row.name;
    EXPECT_EQ(variable.evented, row.evented) << row.name;
    EXPECT_FALSE(variable.hasRange) << row.name;
    std::string value;
    EXPECT_EQ(variable.getValue(value), row.value.has_value()) << row.name;
    EXPECT_EQ(value, row.value.value_or("")) << row.name;
  }
}

// Promise [ip-actions]: WANIPConnection has eleven actions, with the arguments that its description
// lists.
TEST_F(WanIpConnection, HasTheActionsOfARoutedConnection) {
  std::vector<std::string> names;
  for (const auto& [name, action] : connection->getActions()) names.push_back(name);
  EXPECT_EQ(names,
            (std::vector<std::string>{"AddPortMapping", "DeletePortMapping", "ForceTermination",
                                      "GetConnectionTypeInfo", "GetExternalIPAddress",
                                      "GetGenericPortMappingEntry", "GetNATRSIPStatus",
                                      "GetSpecificPortMappingEntry", "GetStatusInfo",
                                      "RequestConnection", "SetConnectionType"}));
}

// Promise [ip-type]: GetConnectionTypeInfo answers `IP_Routed` and `IP_Routed`.
// Promise [ip-rsip]: GetNATRSIPStatus answers `0` and `1`.
TEST_F(WanIpConnection, AnswersItsTypeAndNatState) {
  EXPECT_EQ(invoke(*connection, "GetConnectionTypeInfo"),
            ok("GetConnectionTypeInfo",
               {{"NewConnectionType", "IP_Routed"}, {"NewPossibleConnectionTypes", "IP_Routed"}}));
  EXPECT_EQ(invoke(*connection, "GetNATRSIPStatus"),
            ok("GetNATRSIPStatus", {{"NewRSIPAvailable", "0"}, {"NewNATEnabled", "1"}}));
}

// Promise [ip-uptime]: GetStatusInfo answers the status, `ERROR_NONE` and the router's uptime in
// seconds.
// Promise: The uptime is that of the router at the moment of the read; a change of the status does
// not reset it.
TEST_F(WanIpConnection, AnswersItsStatusWithTheCurrentUptime) {
  const auto statusInfo = [](const std::string& status, const std::string& uptime) {
    return ok("GetStatusInfo", {{"NewConnectionStatus", status},
                                {"NewLastConnectionError", "ERROR_NONE"},
                                {"NewUptime", uptime}});
  };
  EXPECT_EQ(invoke(*connection, "GetStatusInfo"), statusInfo("Unconfigured", "1000"));
  platform.clock().advance(61'999ms);
  connection->setStatus(WANIPConnection::STATUS_CONNECTED);
  EXPECT_EQ(invoke(*connection, "GetStatusInfo"), statusInfo("Connected", "1061"))
      << "a status change does not restart it";
}

// Promise: The status texts are `Connecting`, `Connected`, `Disconnected` and, for anything else,
// `Unconfigured`.
TEST_F(WanIpConnection, NamesEachStatus) {
  const auto named = [this](int status) {
    connection->setStatus(static_cast<WANIPConnection::Status>(status));
    return this->status();
  };
  EXPECT_EQ(named(1), "Connecting");
  EXPECT_EQ(named(2), "Connected");
  EXPECT_EQ(named(3), "Disconnected");
  EXPECT_EQ(named(0), "Unconfigured");
  EXPECT_EQ(named(2), "Connected");
  EXPECT_EQ(named(4), "Unconfigured");
  EXPECT_EQ(named(-1), "Unconfigured");
}

// Promise: GetExternalIPAddress answers the interface's address of the moment.
// Promise: A new external address logs `set external ip ` with the address and is notified to
// subscribers.
TEST_F(WanIpConnection, FollowsItsExternalAddress) {
  EXPECT_EQ(invoke(*connection, "GetExternalIPAddress"),
            ok("GetExternalIPAddress", {{"NewExternalIPAddress", "45.45.45.2"}}));
  EXPECT_EQ(logged([this] { connection->setExternalIP(strtoip("45.45.45.9")); }),
            "set external ip 45.45.45.9\n");
  EXPECT_EQ(invoke(*connection, "GetExternalIPAddress"),
            ok("GetExternalIPAddress", {{"NewExternalIPAddress", "45.45.45.9"}}));
  EXPECT_TRUE(platform.sent().empty());
}

// Promise [ip-set-type]: SetConnectionType is a fault 501 for every allowed type and 402 for any
// other; the type stays `IP_Routed`.
TEST_F(WanIpConnection, NeverChangesItsConnectionType) {
  for (const char* wanted : {"IP_Routed", "IP_Bridged", "Unconfigured"}) {
    EXPECT_EQ(invoke(*connection, "SetConnectionType", {{"NewConnectionType", wanted}}),
              fault(501, "Action Failed"))
        << wanted;
  }
  EXPECT_EQ(invoke(*connection, "SetConnectionType", {{"NewConnectionType", "PPPoE"}}),
            fault(402, "Invalid Args"));
  EXPECT_EQ(connection->getVar("ConnectionType"), "IP_Routed");
}

// Promise [ip-request]: RequestConnection asks the interface table for `disabled` false and sets
// the status to `Connecting`.
// Promise [link-disable]: RequestConnection and ForceTermination send the command 0xfe0003 to
// service 20, handler 0, with the interface's id and the flag, in this order, and nothing else.
TEST_F(WanIpConnection, EnablesTheInterfaceOnRequest) {
  expectSwitch("RequestConnection", false);
  EXPECT_EQ(status(), "Connecting");
}

// Promise [ip-terminate]: ForceTermination asks the interface table for `disabled` true and sets
// the status to `Disconnected`.
// Also proves [link-disable].
TEST_F(WanIpConnection, DisablesTheInterfaceOnTermination) {
  expectSwitch("ForceTermination", true);
  EXPECT_EQ(status(), "Disconnected");
}

// Promise [fault-501-link]: When the platform refuses, RequestConnection logs `enable device
// failed: ` and ForceTermination `disable device failed: ` with the platform's text; both are
// faults 501, and the status stays.
TEST_F(WanIpConnection, KeepsItsStatusWhenThePlatformRefuses) {
  platform.refuse(interfaceTable, lm::cmd::setObject, "no such object");
  connection->setStatus(WANIPConnection::STATUS_CONNECTED);
  EXPECT_EQ(invoke(*connection, "RequestConnection"), fault(501, "Action Failed"));
  EXPECT_EQ(log, "action: RequestConnection\nenable device failed: no such object\n");
  EXPECT_EQ(invoke(*connection, "ForceTermination"), fault(501, "Action Failed"));
  EXPECT_EQ(log, "action: ForceTermination\ndisable device failed: no such object\n");
  EXPECT_EQ(status(), "Connected");
}

// Promise [ip-timeout]: A platform that does not answer is waited for for six seconds, and counts
// as one that refuses.
TEST_F(WanIpConnection, WaitsSixSecondsForThePlatform) {
  platform.ignore(interfaceTable, lm::cmd::setObject);
  const auto before = platform.clock().now();
  EXPECT_EQ(invoke(*connection, "RequestConnection"), fault(501, "Action Failed"));
  EXPECT_EQ(platform.clock().now() - before, 6s);
  EXPECT_EQ(ownLog().substr(0, 22), "enable device failed: ");
  EXPECT_EQ(status(), "Unconfigured");
}

// Promise [ip-forbidden]: Where the administrator does not allow it, both actions are faults 501,
// and the platform is not asked.
TEST_F(WanIpConnection, LeavesTheInterfaceAloneWhenControlPointsMayNotSwitchIt) {
  platform.answer(interfaceTable, lm::cmd::setObject, {});
  connection->setAllowDisIface(false);
  EXPECT_EQ(invoke(*connection, "RequestConnection"), fault(501, "Action Failed"));
  EXPECT_EQ(log, "action: RequestConnection\n");
  EXPECT_EQ(invoke(*connection, "ForceTermination"), fault(501, "Action Failed"));
  EXPECT_EQ(log, "action: ForceTermination\n");
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(status(), "Unconfigured");

  connection->setAllowDisIface(true);
  EXPECT_EQ(invoke(*connection, "ForceTermination"), ok("ForceTermination"));
}

// Also proves [query-any].
TEST_F(WanIpConnection, AnswersAQueryOfEachOfItsVariables) {
  for (const auto& [name, variable] : connection->getVariables()) {
    HTTPMessage reply;
    const HTTPMessage request = variableRequest(name);
    (void)logged([&] { reply = connection->post(request); });
    EXPECT_EQ(reply.startLine,
              variable.hasValue ? "HTTP/1.1 200 OK" : "HTTP/1.1 500 Internal Server Error")
        << name;
  }
}

}  // namespace
