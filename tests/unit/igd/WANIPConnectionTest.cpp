#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "igd/Router.h"
#include "igd/WANIPConnection.h"

namespace {

const std::string type = "urn:schemas-upnp-org:service:WANIPConnection:1";
constexpr uint32_t wan = 7;  // its interface's object id

class WanIpConnection : public Router {
 protected:
  void SetUp() override {
    log = logOf([this] { connection.emplace(wan, strtoip("45.45.45.2")); });
    platform.forgetSent();
  }
  void TearDown() override {
    EXPECT_EQ(logOf([this] { connection.reset(); }), "");
  }

  static std::string ok(const std::string& action, const Arguments& out = {}) {
    return response(type, action, out);
  }
  std::string status() { return connection->getVar("ConnectionStatus"); }

  static lm::message switchRequest(bool disabled) {
    lm::message request;
    request.insert_u32(0xfe0001, wan);
    request.insert_bool(0xfe000a, disabled);
    return request;
  }

  std::optional<WANIPConnection> connection;
};

TEST_F(WanIpConnection, LogsItsFirstAddress) {
  EXPECT_EQ(log, "initial external addr: 45.45.45.2\n");
}

TEST_F(WanIpConnection, AsksThePlatformForNothingWhenItIsMade) {
  EXPECT_TRUE(platform.sent().empty());
}

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

TEST_F(WanIpConnection, AnswersItsTypeAndNatState) {
  EXPECT_EQ(invoke(*connection, "GetConnectionTypeInfo"),
            ok("GetConnectionTypeInfo",
               {{"NewConnectionType", "IP_Routed"}, {"NewPossibleConnectionTypes", "IP_Routed"}}));
  EXPECT_EQ(invoke(*connection, "GetNATRSIPStatus"),
            ok("GetNATRSIPStatus", {{"NewRSIPAvailable", "0"}, {"NewNATEnabled", "1"}}));
}

TEST_F(WanIpConnection, AnswersItsStatusWithTheUptimeOfThisMoment) {
  const auto statusInfo = [](const std::string& status, const std::string& uptime) {
    return ok("GetStatusInfo", {{"NewConnectionStatus", status},
                                {"NewLastConnectionError", "ERROR_NONE"},
                                {"NewUptime", uptime}});
  };
  EXPECT_EQ(invoke(*connection, "GetStatusInfo"), statusInfo("Unconfigured", "1000"));
  platform.clock().advance(61'999);
  connection->setStatus(WANIPConnection::STATUS_CONNECTED);
  EXPECT_EQ(invoke(*connection, "GetStatusInfo"), statusInfo("Connected", "1061"))
      << "a status change does not start it anew";
}

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

TEST_F(WanIpConnection, FollowsItsExternalAddress) {
  EXPECT_EQ(invoke(*connection, "GetExternalIPAddress"),
            ok("GetExternalIPAddress", {{"NewExternalIPAddress", "45.45.45.2"}}));
  EXPECT_EQ(logOf([this] { connection->setExternalIP(strtoip("45.45.45.9")); }),
            "set external ip 45.45.45.9\n");
  EXPECT_EQ(invoke(*connection, "GetExternalIPAddress"),
            ok("GetExternalIPAddress", {{"NewExternalIPAddress", "45.45.45.9"}}));
  EXPECT_TRUE(platform.sent().empty());
}

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

TEST_F(WanIpConnection, EnablesTheInterfaceOnRequest) {
  platform.answer(interfaceTable, lm::cmd::setObject, {});
  EXPECT_EQ(invoke(*connection, "RequestConnection"), ok("RequestConnection"));
  EXPECT_EQ(log, "action: RequestConnection\n");
  EXPECT_EQ(status(), "Connecting");
  const auto requests = platform.sentTo(interfaceTable, lm::cmd::setObject);
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(lm::test::contentOf(requests[0]), switchRequest(false));
  EXPECT_EQ(platform.sent().size(), 1U);
}

TEST_F(WanIpConnection, DisablesTheInterfaceOnTermination) {
  platform.answer(interfaceTable, lm::cmd::setObject, {});
  EXPECT_EQ(invoke(*connection, "ForceTermination"), ok("ForceTermination"));
  EXPECT_EQ(log, "action: ForceTermination\n");
  EXPECT_EQ(status(), "Disconnected");
  const auto requests = platform.sentTo(interfaceTable, lm::cmd::setObject);
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(lm::test::contentOf(requests[0]), switchRequest(true));
}

TEST_F(WanIpConnection, KeepsItsStatusWhenThePlatformRefuses) {
  platform.refuse(interfaceTable, lm::cmd::setObject, "no such object");
  connection->setStatus(WANIPConnection::STATUS_CONNECTED);
  EXPECT_EQ(invoke(*connection, "RequestConnection"), fault(501, "Action Failed"));
  EXPECT_EQ(log, "action: RequestConnection\nenable device failed: no such object\n");
  EXPECT_EQ(invoke(*connection, "ForceTermination"), fault(501, "Action Failed"));
  EXPECT_EQ(log, "action: ForceTermination\ndisable device failed: no such object\n");
  EXPECT_EQ(status(), "Connected");
}

TEST_F(WanIpConnection, WaitsSixSecondsForThePlatform) {
  platform.ignore(interfaceTable, lm::cmd::setObject);
  const uint64_t before = platform.clock().now();
  EXPECT_EQ(invoke(*connection, "RequestConnection"), fault(501, "Action Failed"));
  EXPECT_EQ(platform.clock().now() - before, 6000U);
  EXPECT_EQ(ownLog().substr(0, 22), "enable device failed: ");
  EXPECT_EQ(status(), "Unconfigured");
}

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

TEST_F(WanIpConnection, AnswersAQueryOfEachOfItsVariables) {
  for (const auto& [name, variable] : connection->getVariables()) {
    HTTPMessage reply;
    const HTTPMessage request = variableRequest(name);
    (void)logOf([&] { reply = connection->post(request); });
    EXPECT_EQ(reply.startLine,
              variable.hasValue ? "HTTP/1.1 200 OK" : "HTTP/1.1 500 Internal Server Error")
        << name;
  }
}

}  // namespace
