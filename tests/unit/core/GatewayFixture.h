#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Gateway.h"
#include "core/PrivateRouter.h"
#include "platform/Looper.h"
#include "support/Describe.h"
#include "support/TestPlatform.h"

using Lines = std::vector<std::string>;

/// A gateway on a scripted platform, with a real LAN side: interface 2 is lan0, 192.168.88.1.
/// Interface 3, "WAN", exists for the platform only and has 45.45.45.2.
class GatewayTest : public testing::Test {
 public:
  GatewayTest();
  ~GatewayTest() override;

 protected:
  static constexpr uint32_t lan = 2;
  static constexpr uint32_t wan = 3;
  static constexpr uint32_t external = 1;
  static constexpr uint32_t internal = 2;
  static constexpr uint32_t lanAddress = 11;  // address object
  static constexpr uint32_t wanAddress = 12;  // address object

  // The platform's side.

  /// The tables hold these from now on; the gateway reads them when it is enabled.
  void platformHasInterface(uint32_t id, const lm::message& record);
  void platformHasAddress(uint32_t id, const lm::message& record);
  void platformForgetsAddress(uint32_t id);
  [[nodiscard]] lm::message interfaceRecord(uint32_t id) const;
  [[nodiscard]] static lm::message addressRecord(uint32_t id, uint32_t interface,
                                                 const std::string& address, bool disabled = false);
  /// As interfaceRecord, with the flags of an interface that is gone.
  [[nodiscard]] lm::message goneRecord(uint32_t id) const;
  void tellOfInterface(const lm::message& record);
  /// The platform reports that the interface is gone, and then that it is there.
  void goesAndComesBack(uint32_t interface) {
    tellOfInterface(goneRecord(interface));
    tellOfInterface(interfaceRecord(interface));
  }
  void tellStates(const std::vector<lm::message>& records);
  void tellAddresses(const std::vector<lm::message>& records);

  // The administrator's side.

  lm::message addObject(uint32_t interface, uint32_t type, bool disabled = false);
  lm::message setObject(uint32_t id, const lm::message& fields);
  lm::message removeObject(uint32_t id);
  static lm::message settings(std::optional<bool> enabled, std::optional<bool> allowDisable = {},
                              std::optional<bool> showDummy = {});
  lm::message write(const lm::message& newSettings);
  lm::message enable() { return write(settings(true)); }
  lm::message disable() { return write(settings(false)); }

  // The process.

  /// Starts looper and gateway, as main does.
  void start();
  /// Starts a gateway that is enabled, with interface 2 internal and 3 external.
  void serve();
  /// Leaves the loop, as main does then.
  void stop();
  /// What was logged since the last call.
  [[nodiscard]] Lines log();
  /// In a death test: what is logged from now on is what the test is matched against.
  static void showLog();

  // The LAN's side.

  /// Starts to listen; what is announced from then on is `announced`.
  void listen() { group = PrivateRouter::get().hostListener(); }
  /// Each datagram as its NTS value, a blank and its NT value.
  [[nodiscard]] Lines announced();
  /// The targets in the replies to a search.
  [[nodiscard]] Lines found(const std::string& target);
  /// An open connection to the HTTP server; none when it is refused or not made in two seconds.
  [[nodiscard]] static lm::Fd connectToGateway();
  static void send(const lm::Fd& client, const std::string& bytes);
  [[nodiscard]] std::string readToEnd(const lm::Fd& client);
  /// The reply to a request on its own connection; "refused" when there is no server.
  [[nodiscard]] std::string exchange(const std::string& request);
  /// The status line of the reply.
  [[nodiscard]] std::string status(const std::string& requestLine, const std::string& fields = {});
  /// Asks the service of an external interface to map TCP port 8080 to a host of the LAN.
  void openPort(uint32_t interface);
  [[nodiscard]] std::string invoke(const std::string& controlUrl, const std::string& action,
                                   const std::string& arguments = {});

  static const Lines rootTargets;               // as announced, in order
  static Lines wanTargets(uint32_t interface);  // as announced, in order
  static Lines allTargets(uint32_t interface);  // as announced, in order
  static Lines marked(const std::string& mark, const Lines& targets);

  lm::test::TestPlatform platform;
  std::optional<lm::Looper> looper;
  std::unique_ptr<Gateway> gateway;
  lm::Fd group;

 private:
  void serveTables();

  std::map<uint32_t, lm::message> interfaces;
  std::map<uint32_t, lm::message> addresses;
  std::string logged_;  // standard output until it was last read
};
