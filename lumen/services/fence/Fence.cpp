#include "lumen/services/fence/Fence.h"

#include <unistd.h>

#include <map>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/services/system/processes/PlainFile.h"

namespace lumen {

namespace {

// Hundredths of a second.
constexpr uint32_t retryDelay = 100;

// More than any resolv.conf has.
constexpr size_t maxConfiguration = 65536;

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::string namesOf(const std::vector<const ServiceDefinition*>& services) {
  std::string names;
  for (const ServiceDefinition* service : services) {
    names += (names.empty() ? "" : ", ") + service->name;
  }
  return names;
}

/// The grants by user. The kernel knows the user of a packet and no more.
fence::Users readUsers(const std::vector<ServiceDefinition>& services) {
  fence::Users users;
  std::map<uid_t, std::vector<const ServiceDefinition*>> byUser;
  for (const ServiceDefinition& service : services) {
    if (!service.network) {
      lm::logLine(service.name, ": its service file has no \"network\", it may send no packets");
    }
    users[service.user].insert(service.network.value_or(NetworkGrant::none));
    byUser[service.user].push_back(&service);
  }
  for (const auto& [user, sharing] : byUser) {
    if (users[user].size() < 2) continue;
    lm::logLine("fence: ", namesOf(sharing), " share user ", user,
                ": each may send where one of them may");
  }
  return users;
}

}  // namespace

Fence::Fence(Nftables& nftables, const std::vector<ServiceDefinition>& services,
             std::vector<std::string> configurations)
    : nftables_(nftables),
      users_(readUsers(services)),
      configurations_(std::move(configurations)) {}

Result<void> Fence::open() {
  const auto ipv4 = nftables_.run(fence::makeIpv4Table(users_));
  if (!ipv4) return Failure{firstLine(ipv4.why())};
  const auto ipv6 = nftables_.run(fence::makeIpv6Table(users_));
  ipv6_ = ipv6.ok();
  // A kernel without IPv6 has nothing to fence there.
  if (!ipv6_ && access("/proc/self/net/if_inet6", F_OK) == 0) {
    return Failure{"IPv6: " + firstLine(ipv6.why())};
  }
  open_ = true;
  readNameServers();
  return {};
}

void Fence::readNameServers() {
  std::string text;
  for (const std::string& path : configurations_) {
    if (access(path.c_str(), F_OK) != 0) continue;
    const auto content = readPlainFile(path, maxConfiguration);
    if (content) text = content->value_or("");
    break;
  }
  nameServers_ = NameServers::parse(text);
  update();
}

void Fence::internalNames(std::set<std::string> names) {
  internalNames_ = std::move(names);
  update();
}

void Fence::tablesRead(const LinkSnapshot& all) {
  links_ = all;
  update();
}

void Fence::linkChanged(const Link& link) {
  links_.links[link.index] = link;
  update();
}

void Fence::linkGone(uint32_t index) {
  links_.links.erase(index);
  links_.addresses.erase(index);
  update();
}

void Fence::addressAdded(uint32_t index, const LinkAddress& address) {
  links_.addresses[index].insert(address);
  update();
}

void Fence::addressRemoved(uint32_t index, const LinkAddress& address) {
  links_.addresses[index].erase(address);
  update();
}

fence::Internal Fence::findInternal() {
  fence::Internal internal;
  size_t count = 0;
  for (const auto& [index, addresses] : links_.addresses) {
    const auto link = links_.links.find(index);
    if (link == links_.links.end() || !internalNames_.contains(link->second.name)) continue;
    const std::string& name = link->second.name;
    if (!fence::canName(name)) {
      if (unnamed_.insert(name).second) {
        lm::logLine("fence: ", name, " is no name for nftables: its hosts are not reached");
      }
      continue;
    }
    for (const LinkAddress& address : addresses) {
      if (count == maxNetworks) break;
      if (internal[name].insert(address.network).second) ++count;
    }
  }
  if (const bool full = count == maxNetworks; full != std::exchange(tooMany_, full) && full) {
    lm::logLine("fence: hosts of more than ", maxNetworks, " internal networks are not reached");
  }
  return internal;
}

void Fence::update() {
  if (!open_) return;
  bool done = true;
  if (fence::Internal internal = findInternal(); internal != grantedInternal_) {
    const bool granted = run(fence::grantInternal(internal));
    if (granted) grantedInternal_ = std::move(internal);
    done = granted;
  }
  if (ipv6_ && !updateIpv6()) done = false;
  if (nameServers_ != grantedServers_) {
    const bool granted = run(fence::grantNameServers(nameServers_)) &&
                         (!ipv6_ || run(fence::grantIpv6NameServers(nameServers_)));
    if (granted) grantedServers_ = nameServers_;
    done = done && granted;
  }
  if (!done) retry_.start<&Fence::update>(*this, retryDelay);
}

bool Fence::updateIpv6() {
  std::set<std::string> names;
  for (const std::string& name : internalNames_) {
    if (fence::canName(name)) names.insert(name);
  }
  if (names == grantedIpv6Names_) return true;
  if (!run(fence::grantIpv6Internal(names))) return false;
  grantedIpv6Names_ = std::move(names);
  return true;
}

bool Fence::run(const std::string& commands) {
  const auto result = nftables_.run(commands);
  if (!result) lm::logLine("fence: the kernel refused a change: ", firstLine(result.why()));
  return result.ok();
}

}  // namespace lumen
