#include "lumen/runtime/Connection.h"

#include <algorithm>
#include <utility>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "platform/wire/Broker.h"

namespace lm {
namespace {

/// The most that is queued for a platform that does not read, in bytes.
constexpr size_t maxOutgoing = 4UL * 1024 * 1024;

}  // namespace

Connection::Connection(const Clock& clock, std::unique_ptr<Transport> transport)
    : clock_(clock), transport_(std::move(transport)) {}

lumen::Result<message> Connection::call(message request, uint32_t command,
                                        std::chrono::milliseconds limit, uint32_t sender,
                                        GivenUp late) {
  const lumen::Failure connectionEnded{"connection ended"};
  const Clock::Time deadline = clock_.now() + limit;
  const uint32_t serial = addressRequest(request, command, sender);
  awaited_ = serial;
  reply_.reset();
  if (!send(request)) {
    awaited_.reset();
    if (ended_) return connectionEnded;
    return refusal("message too long");
  }
  while (true) {
    progress();
    const Clock::Time now = clock_.now();
    if (reply_ || ended_ || now >= deadline) break;
    transport_->wait(deadline - now, wantsToSend());
  }
  awaited_.reset();
  if (reply_) return *std::exchange(reply_, std::nullopt);
  if (ended_) return connectionEnded;
  if (wantsToSend()) {
    // No program may act on it once its sender has been told that it failed.
    outgoingBytes_ -= outgoing_.back().size();
    outgoing_.pop_back();
  } else if (late == GivenUp::undone) {
    message cancel;
    cancel.insert_u32(key::serial, serial);
    notify(std::move(cancel), broker::cmd::cancel, sender);
  }
  return lumen::Failure{"no answer in time"};
}

message Connection::exchange(message request, uint32_t command, std::chrono::milliseconds limit,
                             uint32_t sender, GivenUp late) {
  lumen::Result<message> reply = call(std::move(request), command, limit, sender, late);
  return reply ? std::move(*reply) : refusal(reply.failure());
}

void Connection::post(message request, uint32_t command, uint32_t sender) {
  addressRequest(request, command, sender);
  if (!send(request) && !ended_) logLine("platform: request ", command, " is too long");
}

void Connection::notify(message notification, uint32_t command, uint32_t sender) {
  notification.insert_u32_array(key::source, {0, sender});
  notification.insert_u32(key::command, command);
  if (!send(notification) && !ended_) logLine("platform: notification ", command, " is too long");
}

void Connection::reply(uint32_t serial, message answer) {
  for (uint32_t key : {key::destination, key::source, key::command}) answer.fields().erase(key);
  answer.insert_u32(key::serial, serial);
  answer.insert_bool(key::isReply, true);
  if (!send(answer) && !ended_) reply(serial, refusal("answer too long"));
}

void Connection::progress() {
  flush();
  receive();
}

std::optional<message> Connection::take() {
  if (arrived_.empty()) return std::nullopt;
  std::optional<message> first = std::move(arrived_.front());
  arrived_.pop_front();
  return first;
}

/// Writes the fields that make `request` a request; returns its serial.
uint32_t Connection::addressRequest(message& request, uint32_t command, uint32_t sender) {
  request.fields().erase(key::isReply);
  // The platform knows who we are and writes element 0 itself.
  request.insert_u32_array(key::source, {0, sender});
  request.insert_u32(key::serial, ++lastSerial_);
  request.insert_u32(key::command, command);
  return lastSerial_;
}

/// False when the message is too long for a datagram or the connection has ended.
bool Connection::send(const message& m) {
  if (ended_) return false;
  std::string datagram = encode(m);
  if (datagram.size() > maxDatagram) return false;
  outgoingBytes_ += datagram.size();
  outgoing_.push_back(std::move(datagram));
  flush();
  if (outgoingBytes_ > maxOutgoing) {
    logLine("platform: does not read");
    ended_ = true;
  }
  return !ended_;
}

void Connection::flush() {
  while (!ended_ && !outgoing_.empty()) {
    const Transport::Status status = transport_->send(outgoing_.front());
    if (status == Transport::Status::wouldBlock) return;
    if (status == Transport::Status::ended) {
      // Receive what it sent before it closed.
      receive();
      ended_ = true;
      return;
    }
    outgoingBytes_ -= outgoing_.front().size();
    outgoing_.pop_front();
  }
}

/// Stops at the awaited reply, so that its caller can tell what arrived before it.
void Connection::receive() {
  while (!ended_ && !reply_) {
    std::string datagram;
    const Transport::Status status = transport_->receive(datagram);
    if (status == Transport::Status::wouldBlock) return;
    if (status == Transport::Status::ended) {
      ended_ = true;
      return;
    }
    lumen::Result<message> m = decode(datagram);
    if (!m) {
      logLine("platform: invalid message: ", m.why());
      ended_ = true;
    } else if (!m->get_bool(key::isReply)) {
      if (!dropCancelled(*m)) arrived_.push_back(std::move(*m));
    } else if (awaited_ && m->get_u32(key::serial) == *awaited_) {
      reply_ = std::move(*m);
    }
  }
}

/// Whether `m` cancels a queued request. Removes that request without an answer, since the broker
/// has answered it.
bool Connection::dropCancelled(const message& m) {
  if (!broker::isCancellation(m)) return false;
  const auto cancelled = std::find_if(arrived_.begin(), arrived_.end(), [&m](const message& one) {
    return one.has_array(key::destination) && one.get_u32(key::serial) == m.get_u32(key::serial);
  });
  if (cancelled == arrived_.end()) return false;
  arrived_.erase(cancelled);
  return true;
}

}  // namespace lm
