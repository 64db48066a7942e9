#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "igd/Router.h"
#include "igd/WANIPConnection.h"
#include "net/Address.h"
#include "support/NatRequests.h"

/// What a control point asks for when it opens a port.
struct Wish {
  std::string port = "8080";
  std::string protocol = "TCP";
  std::string internalPort = "80";
  std::string internalClient = "192.168.88.10";
  std::string enabled = "1";
  std::string description = "web";
  std::string lease = "0";
  std::string remoteHost = {};
};

/// A connection whose NAT rule table gives rules the ids 501, 502 and so on.
class PortMapping : public Router {
 protected:
  void SetUp() override;
  void TearDown() override;

  // What a control point sends; the reply to it.

  std::string open(const Wish& wish);
  std::string close(const std::string& port, const std::string& protocol,
                    const std::string& remoteHost = {}) {
    return invoke(*connection, "DeletePortMapping", key(port, protocol, remoteHost));
  }
  std::string entryAt(const std::string& index) {
    return invoke(*connection, "GetGenericPortMappingEntry", {{"NewPortMappingIndex", index}});
  }
  std::string entryOf(const std::string& port, const std::string& protocol,
                      const std::string& remoteHost = {}) {
    return invoke(*connection, "GetSpecificPortMappingEntry", key(port, protocol, remoteHost));
  }
  /// Opens ports from 2000 on with descriptions of 64 KiB, four for each client, until they have
  /// `bytes` together.
  void fillDescriptions(size_t bytes);
  static std::string text(size_t length) { return std::string(length, 'x'); }

  // What it expects.

  static std::string opened() { return response(type, "AddPortMapping"); }
  static std::string closed() { return response(type, "DeletePortMapping"); }
  /// The reply that lists this mapping by index.
  static std::string listed(const Wish& wish);
  /// The reply that finds this mapping by its key.
  static std::string found(const Wish& wish) {
    return response(type, "GetSpecificPortMappingEntry", target(wish));
  }
  std::string entries() { return connection->getVar("PortMappingNumberOfEntries"); }

  /// What the NAT rule table was asked, without the transport fields.
  std::vector<lm::message> requests(uint32_t command);

  static constexpr const char* type = "urn:schemas-upnp-org:service:WANIPConnection:1";
  static constexpr const char* client = "192.168.88.10";
  static constexpr uint32_t cancel = 0x16;
  static constexpr size_t kibibyte = 1024;
  const Wish dummy{.port = "0",
                   .internalPort = "0",
                   .internalClient = "0.0.0.0",
                   .enabled = "0",
                   .description = "Dummy inactive rule for windows to work"};
  const std::string noSuchEntry = fault(714, "NoSuchEntryInArray");
  const std::string noSuchIndex = fault(713, "SpecifiedArrayIndexInvalid");
  const std::string failed = fault(501, "Action Failed");

  std::optional<WANIPConnection> connection;
  uint32_t lastRule = 500;

 private:
  static Arguments key(const std::string& port, const std::string& protocol,
                       const std::string& remoteHost) {
    return {{"NewRemoteHost", remoteHost}, {"NewExternalPort", port}, {"NewProtocol", protocol}};
  }
  static Arguments target(const Wish& wish);
};
