#include "lumen/services/system/netfilter/ElementMessages.h"

#include <arpa/inet.h>
#include <endian.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "lumen/services/system/netfilter/NetlinkAttributes.h"

namespace lumen {

namespace {

// So few that the kernel's answer, which repeats a message that it refuses, is read whole.
constexpr size_t elementsPerMessage = 100;

// The most parts of a key or value (NFT_DATA_VALUE_MAXLEN).
constexpr size_t mostParts = NFT_DATA_VALUE_MAXLEN / sizeof(ElementPart);

// More than the headers of an element's attributes and a counter take.
constexpr size_t emptyElementBytes = 104;
constexpr size_t mostElementBytes = emptyElementBytes + 3 * NFT_DATA_VALUE_MAXLEN;

// More than a message takes beside its elements: headers and two names.
constexpr size_t messageBytes = 64 + 2 * NFT_NAME_MAXLEN;
static_assert(messageBytes + elementsPerMessage * mostElementBytes + sizeof(nlmsgerr) <
              elementReplyBytes);

constexpr const char* counterName = "counter";

size_t bytesFor(const SetElement& element) {
  return emptyElementBytes +
         (element.key.size() + element.keyEnd.size() + element.data.size()) * sizeof(ElementPart);
}

bool fits(const ElementSet& set, const SetElement& element) {
  return strlen(set.table) < NFT_NAME_MAXLEN && strlen(set.name) < NFT_NAME_MAXLEN &&
         element.key.size() <= mostParts && element.keyEnd.size() <= mostParts &&
         element.data.size() <= mostParts;
}

void putParts(nlmsghdr* message, uint16_t type, const ElementParts& parts) {
  if (parts.empty()) return;
  nlattr* const data = mnl_attr_nest_start(message, type);
  mnl_attr_put(message, NFTA_DATA_VALUE, parts.size() * sizeof(ElementPart), parts.data());
  mnl_attr_nest_end(message, data);
}

void putCounter(nlmsghdr* message, const ElementCounter& counter) {
  nlattr* const expression = mnl_attr_nest_start(message, NFTA_SET_ELEM_EXPR);
  mnl_attr_put_strz(message, NFTA_EXPR_NAME, counterName);
  nlattr* const data = mnl_attr_nest_start(message, NFTA_EXPR_DATA);
  mnl_attr_put_u64(message, NFTA_COUNTER_BYTES, htobe64(counter.bytes));
  mnl_attr_put_u64(message, NFTA_COUNTER_PACKETS, htobe64(counter.packets));
  mnl_attr_nest_end(message, data);
  mnl_attr_nest_end(message, expression);
}

void putElements(nlmsghdr* message, ElementAction action, std::span<const SetElement> elements) {
  nlattr* const list = mnl_attr_nest_start(message, NFTA_SET_ELEM_LIST_ELEMENTS);
  for (const SetElement& element : elements) {
    nlattr* const one = mnl_attr_nest_start(message, NFTA_LIST_ELEM);
    putParts(message, NFTA_SET_ELEM_KEY, element.key);
    putParts(message, NFTA_SET_ELEM_KEY_END, element.keyEnd);
    if (action == ElementAction::add) {
      putParts(message, NFTA_SET_ELEM_DATA, element.data);
      if (element.counter) putCounter(message, *element.counter);
    }
    mnl_attr_nest_end(message, one);
  }
  mnl_attr_nest_end(message, list);
}

bool readParts(const nlattr* data, ElementParts& parts) {
  parts.clear();
  if (data == nullptr) return true;
  const nlattr* const value = attributesIn<NFTA_DATA_MAX + 1>(data)[NFTA_DATA_VALUE];
  const size_t length = value == nullptr ? 0 : mnl_attr_get_payload_len(value);
  if (length == 0 || length > NFT_DATA_VALUE_MAXLEN || length % sizeof(ElementPart) != 0) {
    return false;
  }
  parts.resize(length / sizeof(ElementPart));
  std::memcpy(parts.data(), mnl_attr_get_payload(value), length);
  return true;
}

std::optional<uint64_t> readNumber(const nlattr* attribute) {
  if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != sizeof(uint64_t)) {
    return std::nullopt;
  }
  return be64toh(mnl_attr_get_u64(attribute));
}

bool readCounter(const nlattr* expression, std::optional<ElementCounter>& counter) {
  counter.reset();
  if (expression == nullptr) return true;
  const auto parts = attributesIn<NFTA_EXPR_MAX + 1>(expression);
  const nlattr* const name = parts[NFTA_EXPR_NAME];
  if (name == nullptr || mnl_attr_validate(name, MNL_TYPE_NUL_STRING) < 0) return false;
  if (std::strcmp(mnl_attr_get_str(name), counterName) != 0) return true;
  const auto numbers = attributesIn<NFTA_COUNTER_MAX + 1>(parts[NFTA_EXPR_DATA]);
  const auto packets = readNumber(numbers[NFTA_COUNTER_PACKETS]);
  const auto bytes = readNumber(numbers[NFTA_COUNTER_BYTES]);
  if (!packets || !bytes) return false;
  counter = ElementCounter{.packets = *packets, .bytes = *bytes};
  return true;
}

bool readElement(const nlattr* one, SetElement& element) {
  const auto attributes = attributesIn<NFTA_SET_ELEM_MAX + 1>(one);
  return attributes[NFTA_SET_ELEM_KEY] != nullptr &&
         readParts(attributes[NFTA_SET_ELEM_KEY], element.key) &&
         readParts(attributes[NFTA_SET_ELEM_KEY_END], element.keyEnd) &&
         readParts(attributes[NFTA_SET_ELEM_DATA], element.data) &&
         readCounter(attributes[NFTA_SET_ELEM_EXPR], element.counter);
}

/// Reads the elements in a message of the kernel. False: it is malformed.
bool visitElements(const nlmsghdr* message, const ElementVisitor& visit) {
  const auto attributes = attributesIn<NFTA_SET_ELEM_LIST_MAX + 1>(message);
  const nlattr* const list = attributes[NFTA_SET_ELEM_LIST_ELEMENTS];
  if (list == nullptr) return true;
  SetElement element;
  const auto* one = static_cast<const nlattr*>(mnl_attr_get_payload(list));
  int left = mnl_attr_get_payload_len(list);
  for (; mnl_attr_ok(one, left); one = mnl_attr_next(one)) {
    if (!readElement(one, element)) return false;
    visit(element);
    left -= static_cast<int>(MNL_ALIGN(one->nla_len));
  }
  return left <= 0;
}

}  // namespace

ElementRequest::ElementRequest(std::span<const ElementChange> changes) {
  size_t size = 2 * messageBytes;
  for (const ElementChange& change : changes) {
    size += (change.elements.size() / elementsPerMessage + 1) * messageBytes;
    for (const SetElement& element : change.elements) {
      if (!lumen::fits(change.set, element)) return;
      size += bytesFor(element);
    }
  }
  bytes_.resize(size);
  mark(NFNL_MSG_BATCH_BEGIN);
  for (const ElementChange& change : changes) addChange(change);
  mark(NFNL_MSG_BATCH_END);
}

ElementRequest::ElementRequest(const ElementSet& set, const ElementParts& key) : answers_(1) {
  const SetElement element = {.key = key};
  if (!lumen::fits(set, element)) return;
  bytes_.resize(messageBytes + bytesFor(element));
  nlmsghdr* const message = begin(NFT_MSG_GETSETELEM, NLM_F_ACK, set);
  putElements(message, ElementAction::remove, {&element, 1});
  end(message);
}

ElementRequest::ElementRequest(const ElementSet& set) : answers_(1) {
  if (!lumen::fits(set, {})) return;
  bytes_.resize(messageBytes);
  end(begin(NFT_MSG_GETSETELEM, NLM_F_DUMP, set));
}

void ElementRequest::mark(uint16_t type) {
  end(beginMessage(type, 0, AF_UNSPEC, htons(NFNL_SUBSYS_NFTABLES)));
}

void ElementRequest::addChange(const ElementChange& change) {
  const bool adds = change.action == ElementAction::add;
  for (auto rest = change.elements; !rest.empty(); ++answers_) {
    const auto some = rest.first(std::min(rest.size(), elementsPerMessage));
    nlmsghdr* const message = begin(adds ? NFT_MSG_NEWSETELEM : NFT_MSG_DELSETELEM,
                                    NLM_F_ACK | (adds ? NLM_F_CREATE : 0), change.set);
    putElements(message, change.action, some);
    end(message);
    rest = rest.subspan(some.size());
  }
}

nlmsghdr* ElementRequest::begin(int type, int flags, const ElementSet& set) {
  nlmsghdr* const message = beginMessage(static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type),
                                         flags, static_cast<uint8_t>(set.family), 0);
  mnl_attr_put_strz(message, NFTA_SET_ELEM_LIST_TABLE, set.table);
  mnl_attr_put_strz(message, NFTA_SET_ELEM_LIST_SET, set.name);
  return message;
}

nlmsghdr* ElementRequest::beginMessage(uint16_t type, int flags, uint8_t family,
                                       uint16_t resource) {
  nlmsghdr* const message = mnl_nlmsg_put_header(bytes_.data() + used_);
  message->nlmsg_type = type;
  message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
  auto* const header =
      static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
  header->nfgen_family = family;
  header->version = NFNETLINK_V0;
  header->res_id = resource;
  return message;
}

void ElementAnswers::read(const nlmsghdr* first, size_t length, const ElementVisitor& visit) {
  // No message is split over two datagrams.
  int left = static_cast<int>(length);
  for (const nlmsghdr* one = first; left > 0; one = mnl_nlmsg_next(one, &left)) {
    if (!mnl_nlmsg_ok(one, left)) return fail(EBADMSG);
    take(one, visit);
  }
}

void ElementAnswers::take(const nlmsghdr* message, const ElementVisitor& visit) {
  if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) interrupted_ = true;
  if (message->nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWSETELEM)) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg)) return fail(EBADMSG);
    noteGeneration(*static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message)));
    if (!visitElements(message, visit)) fail(EBADMSG);
    return;
  }
  if (message->nlmsg_type != NLMSG_ERROR && message->nlmsg_type != NLMSG_DONE) return;
  // Both begin with an error number. After that of NLMSG_ERROR comes the message that it is about.
  int error = 0;
  if (mnl_nlmsg_get_payload_len(message) < sizeof error) return fail(EBADMSG);
  std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
  if (error == 0) {
    ++done_;
  } else {
    fail(error > INT_MIN ? -error : EBADMSG);
  }
}

void ElementAnswers::noteGeneration(const nfgenmsg& header) {
  // It counts the transactions of all tables. The kernel does not flag such a dump otherwise.
  if (generation_ && *generation_ != header.res_id) interrupted_ = true;
  generation_ = header.res_id;
}

Result<void> ElementAnswers::result(size_t count) const {
  if (error_ != 0) return Failure{std::strerror(error_)};
  if (done_ < count) return Failure{"the kernel does not answer"};
  return {};
}

}  // namespace lumen
