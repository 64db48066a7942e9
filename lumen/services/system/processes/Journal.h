#pragma once

#include <string>

#include "platform/Fd.h"

namespace lumen {

/// The system's journal, if this process's own output goes there.
namespace journal {

inline const std::string socket = "/run/systemd/journal/stdout";

/// Whether `fd` is what the variable JOURNAL_STREAM ("device:inode", systemd.exec(5)) names.
/// `variable` may be null.
[[nodiscard]] bool isStream(int fd, const char* variable);

/// A stream on which each line becomes an entry under `identifier`; invalid when there is no
/// journal at `socketPath`. The identifier holds no line end.
[[nodiscard]] lm::Fd open(const std::string& identifier, const std::string& socketPath = socket);

}  // namespace journal
}  // namespace lumen
