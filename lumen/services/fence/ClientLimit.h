#pragma once

#include "lumen/services/system/netfilter/Nftables.h"
#include "lumen/services/system/netlink/Links.h"

namespace lumen {

/// Lets the kernel refuse what goes beyond 32 connections at a time from one address to the
/// gateway. Such a host then fills neither the gateway's queue, which holds one connection and
/// costs the next client a second when it is full, nor its limits. The table is one of this
/// process's and ends with it. A kernel that cannot count connections is reported in the log: the
/// gateway's own limits remain.
///
/// The kernel counts a connection until it has seen its end, which it never does when the link or
/// the address goes meanwhile. Then all counts begin again.
class ClientLimit : public Links::Listener {
 public:
  /// `nftables` must outlive this.
  explicit ClientLimit(Nftables& nftables) : nftables_(nftables) {}
  ClientLimit(const ClientLimit&) = delete;
  ClientLimit& operator=(const ClientLimit&) = delete;

  /// Makes the table, which must not exist.
  void open();

  void tablesRead(const LinkSnapshot& all) override;
  void linkChanged(const Link& link) override;
  void linkGone(uint32_t index) override;
  void addressAdded(uint32_t index, const LinkAddress& address) override;
  void addressRemoved(uint32_t index, const LinkAddress& address) override;

 private:
  void countAgain();

  Nftables& nftables_;
  bool open_ = false;
};

}  // namespace lumen
