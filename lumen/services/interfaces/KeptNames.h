#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "lumen/values/Result.h"
#include "platform/Store.h"
#include "platform/wire/Interfaces.h"

namespace lumen {

/// The interface names that the administrator has given a role, with their permanent ids. Record 0
/// of the store.
class KeptNames {
 public:
  /// Far more than routers have links; every write stores them all.
  static constexpr size_t limit = 256;

  struct Kept {
    uint32_t id = 0;
    uint32_t role = 0;  ///< lm::interfaces::roleExternal or roleInternal
  };

  class Listener {
   public:
    virtual ~Listener() = default;
    /// Exactly these names are kept as internal. Called from the constructor, and after each change
    /// before it returns; may not call back.
    virtual void internalNames(std::set<std::string> names) = 0;
  };

  /// Whether the kernel can have a link of that name other than the loopback.
  [[nodiscard]] static bool isName(const std::string& name);

  /// Loads what is stored. Both must outlive this.
  KeptNames(lm::Store& store, Listener& listener);
  KeptNames(const KeptNames&) = delete;
  KeptNames& operator=(const KeptNames&) = delete;

  // Fail when the change could not be stored; then nothing has changed.

  [[nodiscard]] Result<void> keep(const std::string& name, const Kept& kept);
  [[nodiscard]] Result<void> forget(const std::string& name);

  [[nodiscard]] const std::map<std::string, Kept>& all() const { return names_; }

 private:
  using Names = std::map<std::string, Kept>;

  void load();
  [[nodiscard]] Result<void> change(Names names);
  void tellInternal();

  lm::Store& store_;
  Listener& listener_;
  Names names_;
};

}  // namespace lumen
