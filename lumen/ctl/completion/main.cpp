// Writes the completions of a shell while the package is built: the file TEMPLATE with the tables
// of lumenctl's command line in place of its line @TABLES@.
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/completion/CompletionTables.h"
#include "lumen/ctl/machine/LinuxMachine.h"
#include "lumen/ctl/router/SocketClient.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: lumenctl_completion TEMPLATE OUTPUT\n";
    return 2;
  }
  lumenctl::LinuxMachine machine;
  lumenctl::Session session(lumenctl::SocketClient::connect, machine, std::cout);
  CLI::App app("", "lumenctl");
  lumenctl::addCommandLine(app, session);

  std::ifstream frame(argv[1]);
  std::ofstream output(argv[2]);
  bool complete = false;
  for (std::string line; std::getline(frame, line);) {
    if (line == "@TABLES@") {
      output << lumenctl::completionTables(app);
      complete = true;
    } else {
      output << line << '\n';
    }
  }
  if (!complete || !output.flush()) {
    std::cerr << argv[1] << ": cannot be made into " << argv[2] << '\n';
    std::remove(argv[2]);
    return 1;
  }
}
