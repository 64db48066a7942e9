#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/services/LocalHandler.h"
#include "lumen/services/broker/Connection.h"
#include "lumen/services/broker/Requests.h"
#include "lumen/services/broker/Services.h"
#include "lumen/services/broker/Subscriptions.h"
#include "lumen/values/Result.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/message.h"

namespace lumen {

/// Passes messages between the programs of this router, and between them and the handlers of this
/// process. It handles what each program sends strictly in order and waits for none of them. A
/// program that sends anything but a request, a notification or a reply is disconnected.
class Broker : public Notifier, public Services::Observer, public Connection::Owner {
 public:
  /// How long a request waits for its service to come up.
  static constexpr std::chrono::seconds startLimit{5};
  /// Per connection.
  static constexpr size_t maxRequests = 1024;
  static constexpr size_t maxSubscriptions = 256;
  /// For each user that is no administrator.
  static constexpr size_t maxConnectionsPerUser = 16;
  /// Of all requests that wait for their service.
  static constexpr size_t maxWaitingBytes = 4UL * 1024 * 1024;

  /// Members of the group `administrators` may do everything. `services` and `clock` must outlive
  /// this.
  Broker(Services& services, const lm::Clock& clock, std::optional<gid_t> administrators);
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;
  ~Broker() override;

  /// Requests to this path are answered by `handler`, which must outlive this. To be called before
  /// the first connection.
  void addLocal(uint32_t service, uint32_t number, LocalHandler& handler);

  /// A program has connected. One that has no rights is disconnected at once.
  void admit(lm::Fd socket, const Peer& peer);

  void notify(uint32_t command, const std::vector<uint32_t>& source,
              const lm::message& fields) override;
  void notifyWithOwner(uint64_t owner, uint32_t command, const std::vector<uint32_t>& source,
                       const lm::message& fields) override;

  void drainConnections(pid_t pid) override;
  void unavailable(uint32_t number) override;

 private:
  void received(Connection& from, std::string_view datagram) override;
  void ended(Connection& connection, const std::string& why) override;

  void handleRequest(Connection& from, lm::message request);
  void handleNotification(Connection& from, lm::message notification);
  void handleReply(Connection& from, lm::message reply);
  /// `from` no longer waits for the answer to its request with that serial.
  void cancel(Connection& from, uint32_t serial);
  /// Notifies the service at that connection, if it is still connected.
  void passCancellation(SentRequest request);

  // The broker's own commands.
  void handleOwn(Connection& from, const lm::message& request);
  void registerServices(Connection& from, const lm::message& request);
  void unregisterServices(Connection& from, const lm::message& request);
  [[nodiscard]] lm::message subscribe(Connection& from, const lm::message& request);
  [[nodiscard]] lm::message unsubscribe(Connection& from, const lm::message& request);
  [[nodiscard]] lm::message listServices(const Connection& from) const;
  void monitor(Connection& from, const lm::message& request);
  [[nodiscard]] Result<void> checkRegistration(const Connection& from,
                                               const std::vector<uint32_t>& numbers) const;

  void handleLocal(Connection& from, Path to, const lm::message& request);
  void forward(Connection& from, uint32_t service, lm::message request);
  /// `datagram` is a request without serial.
  void send(Requester from, Connection& to, std::string datagram);
  void startWaiting(Requester from, uint32_t service, std::string datagram);
  void refuseLate();
  void watchDeadlines();

  /// `from` is the number of the service that answers, as monitors see it.
  void answer(uint32_t from, Requester to, lm::message reply);
  void refuse(Requester to, const std::string& text);
  /// Sends it to its subscribers: of a private path to those who may read there, and to the
  /// connection `owner`.
  void publish(uint32_t command, Path source, const lm::message& notification,
               std::optional<uint64_t> owner = std::nullopt);
  /// Notifies the readers of the list of services.
  void servicesChanged();
  void showToMonitors(uint32_t from, uint32_t to, const lm::message& message) const;

  [[nodiscard]] Connection* find(uint64_t connection) const;
  [[nodiscard]] uint32_t serviceOf(const Connection& connection) const;
  /// The number of a connection for others: serviceOf, or one of its own.
  [[nodiscard]] uint32_t numberOf(const Connection& connection) const;
  void writeSource(const Connection& from, lm::message& message) const;
  /// Whether only those who may read there may subscribe to notifications of this path.
  [[nodiscard]] bool isPrivate(Path path) const;
  [[nodiscard]] bool isLocal(uint32_t service) const { return localServices_.contains(service); }

  Services& services_;
  const lm::Clock& clock_;
  const std::optional<gid_t> administrators_;
  std::map<std::pair<uint32_t, uint32_t>, LocalHandler*> locals_;  // by service and handler
  std::set<uint32_t> localServices_;

  uint64_t lastConnection_ = 0;
  uid_t lastRefused_ = 0;  // logged once: repeated attempts must not fill the log
  std::map<uint64_t, std::unique_ptr<Connection>> connections_;
  std::map<uint32_t, uint64_t> registrations_;  // from service to connection
  Subscriptions subscriptions_;
  std::set<uint64_t> monitors_;  // connections to which each message that passes is shown
  Requests requests_;
  lm::Timer deadline_;
};

}  // namespace lumen
