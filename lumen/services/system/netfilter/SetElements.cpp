#include "lumen/services/system/netfilter/SetElements.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace lumen {

namespace {

// The length of the list of elements has 16 bits.
constexpr size_t elementsPerMessage = 1000;

// More than one takes: five headers of attributes, the key and the client.
constexpr size_t elementBytes = 64;

// More than a message takes beside its elements: headers and two names.
constexpr size_t messageBytes = 256;

/// The messages of one transaction.
class Batch {
 public:
  explicit Batch(size_t elements)
      : messages_((elements + elementsPerMessage - 1) / elementsPerMessage),
        bytes_((messages_ + 2) * messageBytes + elements * elementBytes) {}

  /// Also before the first message and after the last.
  void mark(uint16_t type) {
    end(begin(type, NLM_F_REQUEST, AF_UNSPEC, htons(NFNL_SUBSYS_NFTABLES)));
  }

  void add(ElementChange change, const ElementMap& map, std::span<const MapElement> elements) {
    const bool adds = change == ElementChange::add;
    const int type = NFNL_SUBSYS_NFTABLES << 8 | (adds ? NFT_MSG_NEWSETELEM : NFT_MSG_DELSETELEM);
    nlmsghdr* const message =
        begin(static_cast<uint16_t>(type), NLM_F_REQUEST | NLM_F_ACK | (adds ? NLM_F_CREATE : 0),
              NFPROTO_IPV4, 0);
    mnl_attr_put_strz(message, NFTA_SET_ELEM_LIST_TABLE, map.table);
    mnl_attr_put_strz(message, NFTA_SET_ELEM_LIST_SET, map.name);
    nlattr* const list = mnl_attr_nest_start(message, NFTA_SET_ELEM_LIST_ELEMENTS);
    for (const MapElement& element : elements) {
      nlattr* const one = mnl_attr_nest_start(message, NFTA_LIST_ELEM);
      putData(message, NFTA_SET_ELEM_KEY, element.key);
      if (adds) putData(message, NFTA_SET_ELEM_DATA, element.client);
      mnl_attr_nest_end(message, one);
    }
    mnl_attr_nest_end(message, list);
    end(message);
  }

  [[nodiscard]] size_t messages() const { return messages_; }
  [[nodiscard]] std::span<const char> bytes() const { return {bytes_.data(), used_}; }

 private:
  nlmsghdr* begin(uint16_t type, int flags, uint8_t family, uint16_t resource) {
    nlmsghdr* const message = mnl_nlmsg_put_header(bytes_.data() + used_);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<uint16_t>(flags);
    auto* const header =
        static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    header->nfgen_family = family;
    header->version = NFNETLINK_V0;
    header->res_id = resource;
    return message;
  }

  void end(const nlmsghdr* message) { used_ += (message->nlmsg_len + 3) & ~size_t{3}; }

  template <size_t count>
  static void putData(nlmsghdr* message, uint16_t type,
                      const std::array<ElementPart, count>& parts) {
    nlattr* const data = mnl_attr_nest_start(message, type);
    mnl_attr_put(message, NFTA_DATA_VALUE, sizeof parts, &parts);
    mnl_attr_nest_end(message, data);
  }

  size_t messages_;
  std::vector<char> bytes_;
  size_t used_ = 0;
};

bool sendAll(int socket, std::span<const char> bytes) {
  const sockaddr_nl kernel = {.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 0};
  ssize_t sent = -1;
  do {
    sent = sendto(socket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                  sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(bytes.size());
}

/// What the kernel has answered by the time that the messages are sent.
struct Answers {
  size_t done = 0;
  int error = 0;  // the first one
};

Answers readAnswers(int socket) {
  Answers answers;
  // Each answer is a datagram of its own. Behind an error comes the whole message that it is about,
  // which is left out.
  struct Answer {
    nlmsghdr header;
    nlmsgerr body;
  };
  while (true) {
    Answer answer = {};
    const ssize_t length = recv(socket, &answer, sizeof answer, MSG_DONTWAIT);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && errno != EAGAIN && answers.error == 0) answers.error = errno;
    if (length <= 0) return answers;
    if (length < static_cast<ssize_t>(sizeof answer) || answer.header.nlmsg_type != NLMSG_ERROR) {
      continue;
    }
    if (answer.body.error == 0) ++answers.done;
    if (answers.error == 0) answers.error = -answer.body.error;
  }
}

}  // namespace

Result<void> changeElements(int socket, ElementChange change, const ElementMap& map,
                            std::span<const MapElement> elements) {
  Batch batch(elements.size());
  batch.mark(NFNL_MSG_BATCH_BEGIN);
  for (auto rest = elements; !rest.empty();) {
    const auto some = rest.first(std::min(rest.size(), elementsPerMessage));
    batch.add(change, map, some);
    rest = rest.subspan(some.size());
  }
  batch.mark(NFNL_MSG_BATCH_END);
  if (!sendAll(socket, batch.bytes())) return Failure{std::strerror(errno)};
  const Answers answers = readAnswers(socket);
  if (answers.error != 0) return Failure{std::strerror(answers.error)};
  if (answers.done < batch.messages()) return Failure{"the kernel does not answer"};
  return {};
}

}  // namespace lumen
