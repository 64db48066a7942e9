#include "services/interfaces/FakeLinks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/Ipv4Text.h"

namespace lumen {

LinkAddress linkAddress(const std::string& words) {
  const size_t slash = words.find('/');
  const size_t peer = words.find(" peer ");
  const Ipv4Address address = test::ip(words.substr(0, std::min(slash, peer)));
  const Ipv4Address other =
      peer == std::string::npos ? address : test::ip(words.substr(peer + 6, slash - peer - 6));
  const Ipv4Network network(other, static_cast<unsigned>(std::stoul(words.substr(slash + 1))));
  LinkAddress result{address, network, std::nullopt};
  if (network.prefix() < 31) result.broadcast = network.last();
  return result;
}

void FakeLinks::appears(const std::string& name, bool up, bool running, uint32_t hardwareType) {
  const Link link{++lastIndex_, hardwareType, name == "lo", up, running, name};
  all.links[link.index] = link;
  tell(link);
}

void FakeLinks::becomes(const std::string& name, bool up, bool running) {
  Link& link = all.links[indexOf(name)];
  link.up = up;
  link.running = running;
  if (!up) routeTable.erase(link.index);
  tell(link);
}

void FakeLinks::becomesOfType(const std::string& name, uint32_t hardwareType) {
  Link& link = all.links[indexOf(name)];
  link.hardwareType = hardwareType;
  tell(link);
}

void FakeLinks::isRenamed(const std::string& name, const std::string& newName) {
  Link& link = all.links[indexOf(name)];
  link.name = newName;
  tell(link);
}

void FakeLinks::leaves(const std::string& name) {
  const uint32_t index = indexOf(name);
  // The kernel reports the addresses first.
  const std::set<LinkAddress> held = all.addresses[index];
  for (const LinkAddress& address : held) {
    all.addresses[index].erase(address);
    if (!silent && listener_) listener_->addressRemoved(index, address);
  }
  all.addresses.erase(index);
  all.links.erase(index);
  routeTable.erase(index);
  if (!silent && listener_) listener_->linkGone(index);
}

void FakeLinks::getsAddress(const std::string& name, const std::string& words) {
  const uint32_t index = indexOf(name);
  all.addresses[index].insert(linkAddress(words));
  if (!silent && listener_) listener_->addressAdded(index, linkAddress(words));
}

void FakeLinks::losesAddress(const std::string& name, const std::string& words) {
  const uint32_t index = indexOf(name);
  all.addresses[index].erase(linkAddress(words));
  if (!silent && listener_) listener_->addressRemoved(index, linkAddress(words));
}

void FakeLinks::getsRoute(const std::string& name, const std::string& content, bool gateway) {
  const uint32_t index = indexOf(name);
  routeTable[index].push_back({index, gateway, content});
}

uint32_t FakeLinks::indexOf(const std::string& name) const {
  const auto it = std::find_if(all.links.begin(), all.links.end(),
                               [&](const auto& item) { return item.second.name == name; });
  return it == all.links.end() ? 0 : it->first;
}

void FakeLinks::start(Listener& listener) {
  listener_ = &listener;
  readsEverything();
}

std::optional<LinkStatus> FakeLinks::read(uint32_t index) {
  const auto it = all.links.find(index);
  if (it == all.links.end()) return std::nullopt;
  return LinkStatus{it->second, counters};
}

Result<void> FakeLinks::setUp(uint32_t index, bool up) {
  const auto it = all.links.find(index);
  if (it == all.links.end()) return Failure{strerror(ENODEV)};
  calls.push_back(it->second.name + (up ? " up" : " down"));
  if (setUpError != 0) return Failure{strerror(setUpError)};
  return {};
}

Result<std::vector<Route>> FakeLinks::routes(uint32_t index) {
  if (!routesAreReadable) return Failure{"the link's routes could not be read"};
  return routeTable[index];
}

int FakeLinks::addRoute(const Route& route, uint32_t index) {
  const int error = refusesRoute(route.content);
  calls.push_back("route " + route.content + " by " + std::to_string(index) +
                  (error == 0 ? "" : " refused"));
  return error;
}

void FakeLinks::tell(const Link& link) {
  if (!silent && listener_) listener_->linkChanged(link);
}

}  // namespace lumen
