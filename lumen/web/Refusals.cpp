#include "lumen/web/Refusals.h"

namespace lumen::web {

std::string refusalKind(std::string_view reason) {
  const auto has = [reason](std::string_view words) {
    return reason.find(words) != std::string_view::npos;
  };
  if (has("is already in use") || has("is open already")) return "in_use";
  if (has("the kernel refused it")) return "kernel";
  if (has("listens there")) return "router_port";
  if (has("rules that the policy allows") || has("rules already") || has("places are kept") ||
      has("many pinholes") || has("all the pinholes")) {
    return "too_many";
  }
  if (has("policy") || has("not allowed") || has("directly connected") ||
      has("no network of an internal interface")) {
    return "policy";
  }
  return "other";
}

}  // namespace lumen::web
