#include "lumen/services/system/netfilter/SetElements.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "lumen/services/system/netfilter/ElementMessages.h"

namespace lumen {

namespace {

// How often a dump begins again because of other programs' changes.
constexpr int mostDumps = 8;

bool sendBytes(int socket, std::span<const char> bytes) {
  const sockaddr_nl kernel = {.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 0};
  ssize_t sent = -1;
  do {
    sent = sendto(socket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                  sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(bytes.size());
}

bool sendAll(int socket, std::span<const char> bytes) {
  if (sendBytes(socket, bytes)) return true;
  // A transaction is one datagram, which must fit into what the socket may have under way.
  const int size = static_cast<int>(bytes.size());
  return errno == EMSGSIZE &&
         setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0 &&
         sendBytes(socket, bytes);
}

/// Reads what the kernel has answered by the time that a request is sent.
class Reader {
 public:
  explicit Reader(int socket) : socket_(socket), buffer_(elementReplyBytes / sizeof(nlmsghdr)) {}

  // Also after an error: what were left would be taken for an answer to the next request.
  ElementAnswers readAll(const ElementVisitor& visit) {
    ElementAnswers answers;
    while (const size_t length = receive(answers)) answers.read(buffer_.data(), length, visit);
    return answers;
  }

 private:
  // The length of the next datagram; 0: there is none.
  size_t receive(ElementAnswers& answers) {
    while (true) {
      sockaddr_nl sender = {};
      iovec part = {.iov_base = buffer_.data(), .iov_len = buffer_.size() * sizeof(nlmsghdr)};
      msghdr datagram = {};
      datagram.msg_name = &sender;
      datagram.msg_namelen = sizeof sender;
      datagram.msg_iov = &part;
      datagram.msg_iovlen = 1;
      const ssize_t length = recvmsg(socket_, &datagram, MSG_DONTWAIT);
      if (length < 0 && errno == EINTR) continue;
      if (length < 0 && errno != EAGAIN) {
        answers.fail(errno);
        if (errno == ENOBUFS) continue;  // an answer was lost, others are still there
      }
      if (length <= 0) return 0;
      if (sender.nl_pid != 0) continue;
      if ((datagram.msg_flags & MSG_TRUNC) == 0) return static_cast<size_t>(length);
      answers.fail(EMSGSIZE);
    }
  }

  int socket_;
  std::vector<nlmsghdr> buffer_;  // aligned as messages are
};

/// Sends a request and reads its answers.
Result<ElementAnswers> ask(int socket, const ElementRequest& request, const ElementVisitor& visit) {
  if (!request.fits()) return Failure{std::strerror(ENAMETOOLONG)};
  if (!sendAll(socket, request.bytes())) return Failure{std::strerror(errno)};
  const ElementAnswers answers = Reader(socket).readAll(visit);
  const auto result = answers.result(request.answers());
  if (!result) return result.failure();
  return answers;
}

}  // namespace

Result<void> changeElements(int socket, std::span<const ElementChange> changes) {
  const auto answers = ask(socket, ElementRequest(changes), [](const SetElement&) {});
  return answers ? Result<void>() : answers.failure();
}

Result<SetElement> readElement(int socket, const ElementSet& set, const ElementParts& key) {
  std::optional<SetElement> found;
  const auto answers =
      ask(socket, ElementRequest(set, key), [&](const SetElement& element) { found = element; });
  if (!answers) return answers.failure();
  if (!found) return Failure{std::strerror(ENOENT)};
  return *std::move(found);
}

Result<void> readElements(int socket, const ElementSet& set, const ElementVisitor& visit) {
  for (int dump = 0; dump < mostDumps; ++dump) {
    const auto answers = ask(socket, ElementRequest(set), visit);
    if (!answers) return answers.failure();
    if (!answers->interrupted()) return {};
  }
  return Failure{std::strerror(EINTR)};
}

}  // namespace lumen
