#include "lumen/ctl/machine/LogHint.h"

namespace lumenctl {

bool hasSystemd(Machine& machine) { return machine.read("/proc/1/comm") == "systemd\n"; }

std::string logHint(Machine& machine, const std::string& root) {
  if (!root.empty()) return "lumend --root " + root + " logs to its standard output.";
  if (!hasSystemd(machine)) return "lumend logs to its standard output.";
  return "To see its log: journalctl -u lumend (root, and members of adm or systemd-journal).";
}

}  // namespace lumenctl
