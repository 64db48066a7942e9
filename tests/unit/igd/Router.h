#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "http/Server.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "support/Describe.h"
#include "support/Logged.h"
#include "support/TestPlatform.h"
#include "upnp/Service.h"
#include "upnp/SoapRequest.h"

using lm::test::logged;

/// A router whose other programs the test plays, and a control point on its LAN.
class Router : public ::testing::Test {
 protected:
  /// Argument names and values, in their order.
  using Arguments = std::vector<std::pair<std::string, std::string>>;

  static inline const lm::test::Path interfaceTable{20, 0};
  static inline const lm::test::Path natTable{20, 5};

  /// The whole reply to a control point that asks for an action; `log` has what was logged.
  std::string invoke(Service& service, const std::string& action, const Arguments& in = {}) {
    // The parser gives an empty element the text before it, so those come first.
    std::string empty;
    std::string others;
    for (const auto& [name, value] : in) {
      (value.empty() ? empty : others) += leaf(name, value);
    }
    std::string reply;
    log = logged(
        [&] { reply = bytesOf(service.post(actionRequest("urn:x", action, empty + others))); });
    return reply;
  }

  /// The log without the lines that every action writes.
  [[nodiscard]] std::string ownLog() const {
    std::string own;
    for (size_t at = 0; at < log.size();) {
      const std::string line = log.substr(at, log.find('\n', at) + 1 - at);
      const bool common =
          line.starts_with("action: ") || line.starts_with("arg: ") || line.starts_with("ret: ");
      if (!common) own += line;
      at += line.size();
    }
    return own;
  }

  static std::string response(const std::string& serviceType, const std::string& action,
                              const Arguments& out = {}) {
    std::string element = "    <u:" + action + "Response xmlns:u=\"" + serviceType + "\">";
    if (!out.empty()) element += "\r\n";
    for (const auto& [name, value] : out) {
      element.append("      ").append(leaf(name, value)).append("\r\n");
    }
    if (!out.empty()) element += "    ";
    element += "</u:" + action + "Response>\r\n";
    return wholeReply("200 OK", soapBody(element), SERVER_STRING);
  }

  static std::string fault(int code, const std::string& description) {
    return wholeReply("500 Internal Server Error", faultBody(code, description), SERVER_STRING);
  }

  lm::test::TestPlatform platform;
  lm::Looper looper{platform.makeRuntime()};
  std::string log;
};
