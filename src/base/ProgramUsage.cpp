#include "base/ProgramUsage.h"

#include <cstdio>
#include <string_view>

std::optional<int> ProgramUsage::answer(int argc, const char* const* argv) const {
  if (argc < 2) return std::nullopt;
  const std::string_view asked = argv[1];
  if (argc == 2 && asked == "--help") return showHelp();
  if (argc == 2 && asked == "--version") return showVersion();
  return refuse();
}

int ProgramUsage::showHelp() const { return finish(std::fputs(usage_, stdout) >= 0); }

int ProgramUsage::showVersion() const {
  return finish(std::printf("%s %s\n", name_, PALINODE_VERSION) >= 0);
}

int ProgramUsage::refuse() const {
  std::fputs(usage_, stderr);
  return statusWrongUsage;
}

int ProgramUsage::finish(bool written) const {
  if (written && std::fflush(stdout) == 0) return 0;
  std::fprintf(stderr, "%s: standard output cannot be written\n", name_);
  return statusRefused;
}
