// Writes the completions of a shell while the package is built: the file TEMPLATE with the tables
// of lumenctl's command line in place of its line @TABLES@.
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/completion/CompletionTables.h"
#include "lumen/ctl/machine/LinuxMachine.h"
#include "lumen/ctl/router/SocketClient.h"

namespace {

/// False when the files cannot be read or written, or the template has no such line.
bool complete(const std::string& path, const std::string& output) {
  lumenctl::LinuxMachine machine;
  lumenctl::Session session(lumenctl::SocketClient::connect, machine, std::cout);
  CLI::App app("", "lumenctl");
  lumenctl::addCommandLine(app, session);

  std::ifstream frame(path);
  std::ofstream file(output);
  bool found = false;
  for (std::string line; std::getline(frame, line);) {
    if (line == "@TABLES@") {
      file << lumenctl::completionTables(app);
      found = true;
    } else {
      file << line << '\n';
    }
  }
  return found && file.flush();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: lumenctl_completion TEMPLATE OUTPUT\n";
    return 2;
  }
  try {
    if (complete(argv[1], argv[2])) return 0;
    std::cerr << argv[1] << ": cannot be made into " << argv[2] << '\n';
  } catch (const std::exception& error) {
    std::cerr << argv[1] << ": " << error.what() << '\n';
  }
  std::remove(argv[2]);
  return 1;
}
