#pragma once

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "lumen/services/system/netfilter/SetElements.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The most that the kernel puts into one answer (NLMSG_GOODSIZE and its growth in
/// net/netlink/af_netlink.c).
constexpr size_t elementReplyBytes = 32UL * 1024;

/// A request about elements, in the bytes of nfnetlink (linux/netfilter/nf_tables.h).
class ElementRequest {
 public:
  /// Changes, in one transaction.
  explicit ElementRequest(std::span<const ElementChange> changes);
  /// Reads the element with the key `key`.
  ElementRequest(const ElementSet& set, const ElementParts& key);
  /// Reads all elements.
  explicit ElementRequest(const ElementSet& set);

  [[nodiscard]] std::span<const char> bytes() const { return {bytes_.data(), used_}; }
  /// How many acknowledgements and ends answer it.
  [[nodiscard]] size_t answers() const { return answers_; }
  /// No name and no value is longer than the kernel can take; otherwise there are no bytes.
  [[nodiscard]] bool fits() const { return used_ != 0; }

 private:
  void mark(uint16_t type);
  void addChange(const ElementChange& change);
  nlmsghdr* begin(int type, int flags, const ElementSet& set);
  nlmsghdr* beginMessage(uint16_t type, int flags, uint8_t family, uint16_t resource);
  void end(const nlmsghdr* message) { used_ += (message->nlmsg_len + 3) & ~size_t{3}; }

  std::vector<char> bytes_;
  size_t used_ = 0;
  size_t answers_ = 0;
};

/// The answers to one request.
class ElementAnswers {
 public:
  /// Reads a datagram that begins at `first`, and calls `visit` with each element in it.
  void read(const nlmsghdr* first, size_t length, const ElementVisitor& visit);

  /// Keeps the first error.
  void fail(int error) {
    if (error_ == 0) error_ = error;
  }

  /// A dump that other changes interrupted may have missed elements.
  [[nodiscard]] bool interrupted() const { return interrupted_; }
  /// Fails unless `count` acknowledgements and ends came, and nothing went wrong.
  [[nodiscard]] Result<void> result(size_t count) const;

 private:
  void take(const nlmsghdr* message, const ElementVisitor& visit);
  void noteGeneration(const nfgenmsg& header);

  size_t done_ = 0;
  std::optional<uint16_t> generation_;  // of the tables, in the last message
  int error_ = 0;
  bool interrupted_ = false;
};

}  // namespace lumen
