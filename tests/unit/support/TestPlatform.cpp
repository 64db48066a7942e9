#include "support/TestPlatform.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Paging.h"
#include "platform/Keys.h"
#include "platform/Looper.h"

namespace lm::test {

using namespace std::chrono_literals;

namespace {

message decoded(std::string_view datagram) {
  auto m = decode(datagram);
  if (!m) {
    std::cerr << "the program sent an invalid message: " << m.why() << std::endl;
    std::abort();
  }
  return std::move(*m);
}

}  // namespace

/// The program's end of the connection.
class TestPlatform::Wire : public Transport {
 public:
  explicit Wire(TestPlatform& platform) : platform_(platform) {}
  ~Wire() override { platform_.runtime_ = nullptr; }

  Status send(std::string_view datagram) override {
    if (platform_.ended_) return Status::ended;
    platform_.received(decoded(datagram));
    return Status::done;
  }

  Status receive(std::string& datagram) override {
    auto first = platform_.inbox_.begin();
    const bool none = first == platform_.inbox_.end();
    if (none && platform_.ended_) return Status::ended;
    if (none || first->first > platform_.clock_.now()) {
      uint64_t count = 0;
      (void)!read(fd(), &count, sizeof count);
      return Status::wouldBlock;
    }
    datagram = std::move(first->second);
    platform_.inbox_.erase(first);
    return Status::done;
  }

  void wait(std::chrono::milliseconds limit, bool) override {
    Clock::Time until = platform_.clock_.now() + limit;
    if (!platform_.inbox_.empty()) until = std::min(until, platform_.inbox_.begin()->first);
    platform_.clock_.moveTo(until);
  }

  [[nodiscard]] int fd() const override { return platform_.event_.get(); }

 private:
  TestPlatform& platform_;
};

TestPlatform::TestPlatform() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

TestPlatform::~TestPlatform() = default;

std::unique_ptr<Runtime> TestPlatform::makeRuntime() {
  auto runtime = std::make_unique<Runtime>(clock_, std::make_unique<Wire>(*this));
  runtime_ = runtime.get();
  return runtime;
}

void TestPlatform::onRequest(const Path& path, uint32_t command, Script script) {
  reactionTo(path, command).script = std::move(script);
}

void TestPlatform::answer(const Path& path, uint32_t command, const message& reply) {
  onRequest(path, command, [reply](const message&) { return reply; });
}

void TestPlatform::refuse(const Path& path, uint32_t command, const std::string& text) {
  answer(path, command, errorMsg(errorRefused, text));
}

void TestPlatform::serveTable(const Path& path, uint32_t command,
                              std::map<uint32_t, message> records) {
  onRequest(path, command, [records = std::move(records)](const message& request) {
    return pagedAnswer(request, records, [](uint32_t, const message& record) { return record; });
  });
}

void TestPlatform::ignore(const Path& path, uint32_t command) { onRequest(path, command, {}); }

void TestPlatform::delay(const Path& path, uint32_t command, std::chrono::milliseconds time) {
  reactionTo(path, command).delay = time;
}

void TestPlatform::endConnection() {
  ended_ = true;
  wake();
}

void TestPlatform::deliverRaw(std::string_view datagram) {
  inbox_.emplace(clock_.now(), datagram);
  wake();
}

std::vector<message> TestPlatform::sentTo(const Path& path, uint32_t command) const {
  std::vector<message> result;
  for (const message& m : sent_) {
    if (m.get_u32_array_ref(key::destination) == path && m.get_u32(key::command) == command) {
      result.push_back(m);
    }
  }
  return result;
}

std::vector<message> TestPlatform::notified(uint32_t command) const { return sentTo({}, command); }

message TestPlatform::request(uint32_t number, uint32_t command, const message& fields,
                              const Path& from) {
  const uint32_t serial = postRequest(number, command, fields, from);
  turn();
  std::optional<message> reply = replyTo(serial);
  if (!reply) return errorMsg(0, "no reply: is there a looper?");
  reply->fields().erase(key::serial);
  reply->fields().erase(key::isReply);
  return *reply;
}

void TestPlatform::notify(uint32_t command, const Path& source, const message& fields) {
  postNotification(command, source, fields);
  turn();
}

uint32_t TestPlatform::postRequest(uint32_t number, uint32_t command, const message& fields,
                                   const Path& from) {
  message m = fields;
  m.insert_u32_array(key::destination, {serviceNumber, number});
  m.insert_u32_array(key::source, from);
  m.insert_u32(key::serial, ++lastSerial_);
  m.insert_u32(key::command, command);
  deliver(clock_.now(), m);
  return lastSerial_;
}

void TestPlatform::postNotification(uint32_t command, const Path& source, const message& fields) {
  message m = fields;
  m.insert_u32_array(key::source, source);
  m.insert_u32(key::command, command);
  deliver(clock_.now(), m);
}

std::optional<message> TestPlatform::replyTo(uint32_t serial) const {
  const auto found = replies_.find(serial);
  if (found == replies_.end()) return std::nullopt;
  return found->second;
}

void TestPlatform::turn() {
  if (!runtime_) return;
  do {
    wake();
    runtime_->turn(0ms);
  } while (runtime_ && !runtime_->stopped() &&
           (runtime_->busy() || (!inbox_.empty() && inbox_.begin()->first <= clock_.now())));
}

bool TestPlatform::turnUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds limit) {
  const SystemClock real;
  const Clock::Time deadline = real.now() + limit;
  while (!condition()) {
    if (!runtime_ || real.now() >= deadline) return false;
    wake();
    runtime_->turn(10ms);
  }
  return true;
}

void TestPlatform::advance(std::chrono::milliseconds time) {
  const Clock::Time target = clock_.now() + time;
  while (runtime_) {
    Clock::Time next = runtime_->loop().nextDue().value_or(target);
    if (!inbox_.empty()) next = std::min(next, inbox_.begin()->first);
    clock_.moveTo(std::min(next, target));
    turn();
    if (next >= target) return;
  }
}

bool TestPlatform::stopped() const { return !runtime_ || runtime_->stopped(); }

/// The program has sent `m`.
void TestPlatform::received(const message& m) {
  if (m.get_bool(key::isReply)) {
    replies_[m.get_u32(key::serial)] = m;
    return;
  }
  sent_.push_back(m);
  if (!m.has_array(key::destination)) return;
  const Path& path = m.get_u32_array_ref(key::destination);
  const Reaction& reaction = reactionTo(path, m.get_u32(key::command));
  if (!reaction.script) return;
  message reply = reaction.script(m);
  reply.insert_u32(key::serial, m.get_u32(key::serial));
  reply.insert_bool(key::isReply, true);
  deliver(clock_.now() + reaction.delay, reply);
}

void TestPlatform::deliver(Clock::Time time, const message& m) {
  inbox_.emplace(time, encode(m));
  wake();
}

void TestPlatform::wake() {
  if (!ended_ && (inbox_.empty() || inbox_.begin()->first > clock_.now())) return;
  const uint64_t one = 1;
  (void)!write(event_.get(), &one, sizeof one);
}

TestPlatform::Reaction& TestPlatform::reactionTo(const Path& path, uint32_t command) {
  const bool isBroker = path == Path{service::broker};
  Reaction unscripted{[isBroker](const message&) {
                        return isBroker ? message() : errorMsg(errorRefused, "no such service");
                      },
                      0ms};
  return reactions_.try_emplace({path, command}, std::move(unscripted)).first->second;
}

message contentOf(const message& m) { return withoutTransportFields(m); }

}  // namespace lm::test
