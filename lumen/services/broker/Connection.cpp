#include "lumen/services/broker/Connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lumen/runtime/Codec.h"

namespace lumen {

namespace {

// Room for the longest datagram; the kernel doubles it for its own needs. A smaller buffer could
// never take it.
void makeRoom(int socket) {
  const int size = static_cast<int>(2 * lm::maxDatagram);
  if (setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0) return;
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

// An empty datagram and the end look the same to recv.
bool hasHungUp(int socket) {
  pollfd state = {socket, POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1;
}

}  // namespace

Connection::Connection(Owner& owner, uint64_t number, Peer peer, Rights rights, lm::Fd socket)
    : owner_(owner),
      number_(number),
      peer_(std::move(peer)),
      rights_(std::move(rights)),
      socket_(std::move(socket)) {
  makeRoom(socket_.get());
  watch();
}

void Connection::watch() {
  const unsigned flags = queue_.empty() ? lm::watchRead : lm::watchRead | lm::watchWrite;
  watch_.start<&Connection::ready>(socket_.get(), *this, flags);
}

void Connection::ready(int /*fd*/) {
  if (!queue_.empty()) sendQueue();
  if (!dropped_ && receive() == Received::end) owner_.ended(*this, {});
}

Connection::Received Connection::receive() {
  // Shared by all: a datagram is decoded before the next one is received.
  static std::array<char, lm::maxDatagram + 1> buffer;
  const ssize_t length = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (length > 0) {
    owner_.received(*this, std::string_view(buffer.data(), static_cast<size_t>(length)));
    return Received::datagram;
  }
  if (length == 0) {
    if (hasHungUp(socket_.get())) return Received::end;
    drop("sent an empty datagram");
    return Received::datagram;
  }
  // A program that ended without reading everything shows as a reset first; what it sent follows.
  if (errno == ECONNRESET || errno == EINTR) return Received::datagram;
  if (errno == EAGAIN) return Received::nothing;
  drop(strerror(errno));
  return Received::nothing;
}

void Connection::drain() {
  // Another process may have inherited the other end. From now on the kernel refuses what it sends,
  // so that the backlog is finite.
  shutdown(socket_.get(), SHUT_RD);
  while (!dropped_ && receive() == Received::datagram) {
  }
  if (dropped_) return finish();
  owner_.ended(*this, {});
}

Connection::Sent Connection::trySend(const std::string& datagram) {
  const ssize_t sent =
      ::send(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0) return Sent::whole;
  return errno == EAGAIN || errno == EINTR || errno == ENOBUFS ? Sent::notNow : Sent::never;
}

void Connection::send(std::string datagram) {
  if (sendClosed_) return;
  if (queue_.empty()) {
    const Sent sent = trySend(datagram);
    // receive() sees its end, after everything that it has sent.
    if (sent == Sent::never) sendClosed_ = true;
    if (sent != Sent::notNow) return;
  }
  queued_ += datagram.size();
  if (queued_ > queueLimit) return drop("does not read what it is sent");
  queue_.push_back(std::move(datagram));
  if (queue_.size() == 1) watch();
}

void Connection::sendQueue() {
  while (!queue_.empty()) {
    const Sent sent = trySend(queue_.front());
    if (sent == Sent::notNow) return;
    if (sent == Sent::never) {
      sendClosed_ = true;
      queue_.clear();
      break;
    }
    queued_ -= queue_.front().size();
    queue_.pop_front();
  }
  watch();
}

void Connection::drop(std::string why) {
  if (dropped_) return;
  dropped_ = true;
  sendClosed_ = true;
  why_ = std::move(why);
  watch_.stop();
  queue_.clear();
  finish_.start<&Connection::finish>(*this, 0);
}

void Connection::finish() { owner_.ended(*this, why_); }

}  // namespace lumen
