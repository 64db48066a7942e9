#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "http/HTTPMessage.h"
#include "upnp/Action.h"
#include "upnp/Subscription.h"
#include "upnp/UPNPStatus.h"
#include "upnp/Variable.h"

class XMLNode;

/// The base of every UPnP service. It answers control requests (SOAP) from two tables, the state
/// variables and the actions, and notifies subscribers of changes (GENA). A concrete service
/// derives from it, fills the tables in its constructor and afterwards only calls `setVar`. The
/// tables must agree with the service's description file in etc/upnp.
class Service {
 public:
  /// `typeName` is the service type URN, "urn:schemas-upnp-org:service:WANIPConnection:1".
  explicit Service(std::string typeName);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  virtual ~Service();

  /// Answers a POST to the control URL: runs an action or answers QueryStateVariable (UPnP Device
  /// Architecture 1.0, section 3). The reply is a bare 400 when the request is no SOAP request, and
  /// a SOAP fault when it cannot be carried out.
  [[nodiscard]] HTTPMessage post(const HTTPMessage& request);

  /// Answers SUBSCRIBE at the event URL: creates a subscription, whose initial event is sent in a
  /// later turn of the loop, or renews one (section 4.1). The reply to a refused request is a bare
  /// 412, or 500 when there are too many subscriptions.
  [[nodiscard]] HTTPMessage subscribe(const HTTPMessage& request);
  /// Answers UNSUBSCRIBE at the event URL: 200, or 412 when there is no such subscription.
  [[nodiscard]] HTTPMessage unsubscribe(const HTTPMessage& request);
  /// Ends every subscription without notice.
  void flushSubscriptions();
  /// Ends a subscription whose time is over.
  void expireSubscription(const std::string& sid);
  /// Resumes the deliveries to this subscription that wait for their turn.
  void resumeEvents(const std::string& sid);

  /// Sets the value of a variable and drops its getter. An unknown name is ignored. If the value of
  /// an evented variable changed, a delivery to each subscriber starts at once, within the limits
  /// of deliveries under way.
  void setVar(const std::string& variableName, const std::string& value);
  /// The value of a variable; empty when the variable is unknown or has no value.
  [[nodiscard]] std::string getVar(const std::string& variableName) const;

  /// The tables, by name.
  [[nodiscard]] const std::map<std::string, Variable>& getVariables() const { return variables; }
  [[nodiscard]] const std::map<std::string, Action>& getActions() const { return actions; }

 protected:
  /// Registers a state variable, replacing an earlier one of that name. The reference stays valid
  /// for the life of the service or until the name is registered again.
  Variable& addVar(std::string variableName, Variable variable);

  /// Registers an action that `(owner->*handler)(in, out)` carries out, replacing an earlier one of
  /// that name. Without an owner or a handler, the action returns the values of `outVars`. `owner`
  /// must outlive the service's last request.
  template <typename Owner>
  void addAct(std::string actionName, const std::vector<std::string>& inVars,
              const std::vector<std::string>& inArgs, const std::vector<std::string>& outVars,
              const std::vector<std::string>& outArgs, Owner* owner,
              UPNPStatus (Owner::*handler)(const std::vector<std::string>& in,
                                           std::vector<std::string>& out));
  /// Registers an action that returns the values of `outVars`. Without `outArgs` the arguments are
  /// named "New" + variable name.
  void addAct(std::string actionName, const std::vector<std::string>& outVars,
              const std::vector<std::string>& outArgs = {});

 private:
  class Event;

  /// The most subscriptions of one service.
  static constexpr size_t SUBSCRIPTION_LIMIT = 100;
  /// With so many deliveries under way each subscription has only one at a time. There is always a
  /// place for that one: a subscriber waits for its own answers, never for those of others.
  static constexpr size_t SHARED_DELIVERIES = 64;
  /// The most deliveries under way of one service.
  static constexpr size_t DELIVERY_LIMIT = SHARED_DELIVERIES + SUBSCRIPTION_LIMIT;

  void addAction(std::string actionName, Action action);

  [[nodiscard]] HTTPMessage invokeAction(const XMLNode& body, const std::string& actionName);
  [[nodiscard]] HTTPMessage queryStateVariable(const XMLNode& body) const;

  /// Appends the values of the out variables.
  [[nodiscard]] UPNPStatus readOutVars(const Action& action, std::vector<std::string>& out) const;
  /// Checks the arguments in `request`, then calls the action's handler.
  [[nodiscard]] UPNPStatus runHandler(const Action& action, const XMLNode& request,
                                      std::vector<std::string>& out) const;

  [[nodiscard]] HTTPMessage newSubscription(const HTTPMessage& request, uint32_t granted);
  [[nodiscard]] HTTPMessage renewSubscription(const HTTPMessage& request, uint32_t granted);
  /// Grants the time, in seconds. Returns the reply that states it.
  [[nodiscard]] static HTTPMessage confirm(Subscription& subscription, uint32_t granted);
  void removeSubscription(const std::string& sid);

  void sendInitialEvent(Subscription& subscription);
  /// Starts a delivery of the variable, or lets it wait until earlier ones have ended.
  void sendEvent(Subscription& subscription, const std::string& variableName);
  /// Starts a delivery and returns its socket, or -1 when it failed at once.
  int startDelivery(Subscription& subscription, const Subscription::Change& change);
  /// Starts the deliveries that have waited and need not any longer.
  void startPending();
  /// The subscription with the change that has waited longest of those that may start; null when
  /// there is none.
  [[nodiscard]] Subscription* longestPending() const;
  [[nodiscard]] bool mayStart(const Subscription& subscription) const;
  /// Drops the oldest delivery whose subscription has ended, if there is one.
  void dropOldestOrphan();
  /// Writes the NOTIFY of a connected delivery if it is its turn. May destroy it.
  void deliver(Event& event);
  /// Adds the variable, or every evented one for an empty name. Returns false, after a log line,
  /// when there is no value to send.
  [[nodiscard]] bool addProperties(XMLNode& set, const std::string& variableName) const;
  /// Destroys the delivery.
  void endEvent(const Event& event);
  void initialEventEnded(Subscription& subscription);

  std::string name;
  std::map<std::string, Variable> variables;
  std::map<std::string, Action> actions;
  std::map<std::string, std::unique_ptr<Subscription>> subscriptions;  ///< by SID; never null
  std::map<int, std::unique_ptr<Event>> events;  ///< deliveries by socket; never null
  uint64_t lastChange_ = 0;                      ///< number of the newest one to be delivered
};

template <typename Owner>
void Service::addAct(std::string actionName, const std::vector<std::string>& inVars,
                     const std::vector<std::string>& inArgs,
                     const std::vector<std::string>& outVars,
                     const std::vector<std::string>& outArgs, Owner* owner,
                     UPNPStatus (Owner::*handler)(const std::vector<std::string>& in,
                                                  std::vector<std::string>& out)) {
  Action action{inVars, inArgs, outVars, outArgs, {}};
  if (owner != nullptr && handler != nullptr) {
    action.callback = [owner, handler](const std::vector<std::string>& in,
                                       std::vector<std::string>& out) {
      return (owner->*handler)(in, out);
    };
  }
  addAction(std::move(actionName), std::move(action));
}
