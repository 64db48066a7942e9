#include <iostream>
#include <string>
#include <vector>

#include "lumen/ctl/CommandLine.h"
#include "lumen/ctl/machine/LinuxMachine.h"
#include "lumen/ctl/router/SocketClient.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  lumenctl::LinuxMachine machine;
  return lumenctl::run(arguments, lumenctl::SocketClient::connect, machine, std::cout, std::cerr);
}
