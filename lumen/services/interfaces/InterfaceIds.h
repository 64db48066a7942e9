#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace lumen {

/// Gives each interface name an id of its own: a name that returns gets the same id, and no other
/// name ever gets it. Of the names out of use only the latest are remembered, since short-lived
/// links (containers, tunnels) always have new names; one that was forgotten gets a new id.
class InterfaceIds {
 public:
  static constexpr size_t rememberedNames = 4096;

  /// The id of `name`, which is in use from now on.
  [[nodiscard]] uint32_t take(const std::string& name);
  /// `name` is in use and has this id, from an earlier run. Ids given from now on are higher.
  void restore(const std::string& name, uint32_t id);
  /// `name` is in use no more.
  void release(const std::string& name);

 private:
  struct Known {
    uint32_t id = 0;
    uint64_t released = 0;  // when, counted in releases; 0: in use
  };

  uint32_t last_ = 0;
  uint64_t releases_ = 0;
  std::map<std::string, Known> names_;
  std::map<uint64_t, std::string> released_;  // names not in use, by the time of their release
};

}  // namespace lumen
