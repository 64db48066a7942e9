#pragma once

#include "lumen/services/system/netlink/Links.h"

namespace lumen {

/// The kernel's links for two listeners: `first` is told of each change before the one that is
/// given to start.
class LinkRelay : public Links, private Links::Listener {
 public:
  /// Both must outlive this.
  LinkRelay(Links& links, Links::Listener& first) : links_(links), first_(first) {}
  LinkRelay(const LinkRelay&) = delete;
  LinkRelay& operator=(const LinkRelay&) = delete;

  void start(Links::Listener& listener) override {
    second_ = &listener;
    links_.start(*this);
  }
  [[nodiscard]] std::optional<LinkStatus> read(uint32_t index) override {
    return links_.read(index);
  }
  [[nodiscard]] Result<void> setUp(uint32_t index, bool up) override {
    return links_.setUp(index, up);
  }
  [[nodiscard]] Result<std::vector<Route>> routes(uint32_t index) override {
    return links_.routes(index);
  }
  [[nodiscard]] int addRoute(const Route& route, uint32_t index) override {
    return links_.addRoute(route, index);
  }

 private:
  void tablesRead(const LinkSnapshot& all) override {
    first_.tablesRead(all);
    second_->tablesRead(all);
  }
  void linkChanged(const Link& link) override {
    first_.linkChanged(link);
    second_->linkChanged(link);
  }
  void linkGone(uint32_t index) override {
    first_.linkGone(index);
    second_->linkGone(index);
  }
  void addressAdded(uint32_t index, const LinkAddress& address) override {
    first_.addressAdded(index, address);
    second_->addressAdded(index, address);
  }
  void addressRemoved(uint32_t index, const LinkAddress& address) override {
    first_.addressRemoved(index, address);
    second_->addressRemoved(index, address);
  }
  void ipv6AddressAdded(uint32_t index, const Ipv6LinkAddress& address) override {
    first_.ipv6AddressAdded(index, address);
    second_->ipv6AddressAdded(index, address);
  }
  void ipv6AddressRemoved(uint32_t index, const Ipv6LinkAddress& address) override {
    first_.ipv6AddressRemoved(index, address);
    second_->ipv6AddressRemoved(index, address);
  }

  Links& links_;
  Links::Listener& first_;
  Links::Listener* second_ = nullptr;  // not owned; set by start
};

}  // namespace lumen
