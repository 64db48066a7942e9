#include "lumen/services/nat/PolicyBook.h"

#include <array>
#include <utility>
#include <variant>

#include "lumen/runtime/Fields.h"
#include "lumen/services/nat/PolicyFile.h"
#include "lumen/services/system/processes/PlainFile.h"
#include "platform/wire/NatRules.h"

namespace lumen {

namespace {

namespace key = lm::nat::key;

struct Setting {
  uint32_t field;
  const char* name;
};
constexpr Setting settingsByField[] = {
    {key::externalPorts, "external-ports"}, {key::internalClients, "internal-clients"},
    {key::internalPorts, "internal-ports"}, {key::routerPorts, "router-ports"},
    {key::maxRules, "max-rules"},           {key::maxRulesPerClient, "max-rules-per-client"},
};

// Applies the fields of `written` to `policy`.
Result<void> apply(const lm::message& written, Policy& policy) {
  for (const Setting& setting : settingsByField) {
    const lm::Value* value = written.fields().find(setting.field);
    if (value == nullptr) continue;
    const auto* number = std::get_if<uint32_t>(value);
    const auto* text = std::get_if<std::string>(value);
    auto set = policy.set(setting.name, number != nullptr ? std::to_string(*number)
                                        : text != nullptr ? *text
                                                          : std::string());
    if (!set) return set;
  }
  return {};
}

}  // namespace

PolicyBook::PolicyBook(std::string filePath, std::string storeDirectory)
    : filePath_(std::move(filePath)), store_(std::move(storeDirectory), 1) {}

Result<Policy> PolicyBook::readFile() const {
  // One byte more than is allowed is read, so that a file that is too long shows.
  const auto text = readPlainFile(filePath_, maxPolicyFile + 1);
  if (!text) return Failure{filePath_ + ": " + text.why()};
  auto policy = parsePolicyFile(text->value_or(""));
  if (!policy) return Failure{filePath_ + policy.why()};
  return policy;
}

Result<void> PolicyBook::load() {
  const auto policy = readFile();
  if (!policy) return policy.failure();
  state_.fromFile = *policy;
  state_.policy = state_.fromFile;
  state_.written = store_.get(0).value_or(lm::message());
  if (const auto applied = apply(state_.written, state_.policy); !applied) {
    return Failure{"stored NAT policy: " + applied.why()};
  }
  return {};
}

lm::message PolicyBook::settings() const {
  lm::message result;
  result.insert_string(key::externalPorts, state_.policy.externalPorts.text());
  result.insert_string(key::internalClients, state_.policy.internalClients.text());
  result.insert_string(key::internalPorts, state_.policy.internalPorts.text());
  result.insert_string(key::routerPorts, state_.policy.routerPorts.text());
  result.insert_u32(key::maxRules, state_.policy.maxRules);
  result.insert_u32(key::maxRulesPerClient, state_.policy.maxRulesPerClient);
  return result;
}

Result<void> PolicyBook::write(const lm::message& request) {
  static constexpr std::array fields = {key::externalPorts,     key::internalClients, key::maxRules,
                                        key::maxRulesPerClient, key::reset,           key::reload,
                                        key::internalPorts,     key::routerPorts};
  if (auto known = lm::checkFields(request, fields); !known) return known;
  bool writes = request.get_bool(key::reset);
  lm::message written = writes ? lm::message() : state_.written;
  for (const Setting& setting : settingsByField) {
    if (const lm::Value* value = request.fields().find(setting.field)) {
      written.fields().set(setting.field, *value);
      writes = true;
    }
  }
  Policy fromFile = state_.fromFile;
  if (request.get_bool(key::reload)) {
    const auto read = readFile();
    if (!read) return read.failure();
    fromFile = *read;
  }
  Policy policy = fromFile;
  if (auto applied = apply(written, policy); !applied) return applied;
  if (writes && !store_.set(0, written)) return Failure{"the policy could not be stored"};
  state_.written = std::move(written);
  state_.fromFile = std::move(fromFile);
  state_.policy = std::move(policy);
  return {};
}

void PolicyBook::restore(const State& state) {
  (void)store_.set(0, state.written);
  state_ = state;
}

}  // namespace lumen
