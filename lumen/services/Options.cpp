#include "lumen/services/Options.h"

#include <getopt.h>

#include <cstdio>

#include "base/ProgramUsage.h"

namespace lumen {

namespace {

constexpr ProgramUsage usage(
    "lumend",
    "Usage: lumend [--root DIR]\n"
    "The platform of this router: passes messages between its programs, runs its services, and\n"
    "changes links, addresses and NAT for them. Must be started by root.\n"
    "\n"
    "  --root DIR  use DIR as /lumen, for a test or a demonstration; no other program sees it "
    "there\n"
    "  --help      show this\n"
    "  --version   show the version\n");

Options endWith(int status) {
  Options options;
  options.status = status;
  return options;
}

}  // namespace

Options readOptions(int argc, char** argv) {
  static const option known[] = {{"root", required_argument, nullptr, 'r'},
                                 {"help", no_argument, nullptr, 'h'},
                                 {"version", no_argument, nullptr, 'v'},
                                 {nullptr, 0, nullptr, 0}};
  Options options;
  for (int found = 0; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    switch (found) {
      case 'r':
        options.root = optarg;
        break;
      case 'h':
        return endWith(usage.showHelp());
      case 'v':
        return endWith(usage.showVersion());
      default:
        return endWith(usage.refuse());
    }
    if (options.root.empty()) {
      std::fputs("lumend: --root takes a directory\n", stderr);
      return endWith(ProgramUsage::statusWrongUsage);
    }
  }
  if (optind == argc) return options;
  return endWith(usage.refuse());
}

}  // namespace lumen
