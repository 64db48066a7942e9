#include "lumen/services/resolver/Resolver.h"

#include <unistd.h>

#include <optional>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/Time.h"
#include "lumen/services/resolver/HostName.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/Resolver.h"

namespace lumen {

namespace {

lm::message addressReply(Ipv4Address address) {
  lm::message reply;
  reply.insert_be32(lm::resolver::key::address, address.bytes());
  return reply;
}

void leaveWhenIdle() {
  lm::getLooper().setupLeave(
      std::chrono::duration<uint32_t, std::milli>(Resolver::idleTime).count());
}

}  // namespace

/// A name that is being looked up, and the requesters that wait for its address. When their time is
/// up they get an error, but the lookup goes on: an address that comes late is kept for the next
/// request, and the failure of a silent name server goes into the negative cache.
class Resolver::Question {
 public:
  Question(Resolver& resolver, const std::string& name)
      : started_(resolver.clock_.now()),
        resolver_(resolver),
        lookup_(resolver, name, resolver.configuration()) {}

  /// Takes over the request that is being dispatched.
  void add() {
    if (!waiting_) return lm::PendingReply::take().send(lm::refusal(Lookup::noAnswer));
    requesters_.push_back(lm::PendingReply::take());
  }

  /// May end the question.
  void start(std::chrono::milliseconds limit) {
    if (limit > limit.zero()) {
      limitTimer_.start<&Question::giveUp>(*this, timerDelay(limit));
    } else {
      giveUp();
    }
    lookup_.start();
  }

  void answer(const lm::message& reply) {
    if (waiting_) resolver_.waitBudget_.spend(resolver_.clock_.now() - started_);
    waiting_ = false;
    for (lm::PendingReply& requester : requesters_) requester.send(reply);
    requesters_.clear();
  }

  /// Whether a requester waits for the answer.
  [[nodiscard]] bool isAwaited() const { return waiting_; }

 private:
  void giveUp() { answer(lm::refusal(Lookup::noAnswer)); }

  const lm::Clock::Time started_;
  Resolver& resolver_;
  std::vector<lm::PendingReply> requesters_;
  bool waiting_ = true;
  lm::Timer limitTimer_;
  Lookup lookup_;
};

Resolver::Resolver(const lm::Clock& clock, std::vector<std::string> configurations)
    : clock_(clock),
      configurations_(std::move(configurations)),
      failures_(clock),
      late_(clock),
      waitBudget_(clock) {
  leaveWhenIdle();
}

Resolver::~Resolver() = default;

lm::message Resolver::cmdUnknown(const lm::message& request, uint32_t command) {
  if (command != lm::resolver::cmd::resolve) return Handler::cmdUnknown(request, command);
  const std::optional<std::string> name =
      toHostName(request.get_string(lm::resolver::key::hostName));
  if (!name) return lm::refusal("not a host name");
  if (const auto failure = failures_.find(*name)) return lm::refusal(*failure);
  if (const auto address = late_.find(*name)) return addressReply(*address);
  const auto asked = questions_.find(*name);
  if (asked != questions_.end()) {
    asked->second->add();
  } else if (questions_.size() >= maxLookups) {
    return lm::refusal("too many lookups at a time");
  } else {
    ask(*name);
  }
  return {};
}

void Resolver::ask(const std::string& name) {
  leaveWhenIdle();
  const auto question = questions_.emplace(name, std::make_unique<Question>(*this, name)).first;
  question->second->add();
  question->second->start(waitBudget_.left());
}

void Resolver::lookedUp(const std::string& name, const Result<Ipv4Address>& result) {
  const auto ended = questions_.extract(name);
  if (result) {
    if (!ended.mapped()->isAwaited()) late_.remember(name, *result);
    ended.mapped()->answer(addressReply(*result));
  } else {
    lm::logLine("resolver: ", name, ": ", result.why());
    failures_.add(name, result.failure());
    ended.mapped()->answer(lm::refusal(result.failure()));
  }
  leaveWhenIdle();
}

const std::string& Resolver::configuration() const {
  for (const std::string& path : configurations_) {
    if (access(path.c_str(), F_OK) == 0) return path;
  }
  return configurations_.back();
}

}  // namespace lumen
