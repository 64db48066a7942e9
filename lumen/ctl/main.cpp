#include <iostream>
#include <string>
#include <vector>

#include "lumen/ctl/CommandLine.h"
#include "lumen/ctl/LinuxMachine.h"
#include "lumen/ctl/SocketClient.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  lumenctl::LinuxMachine machine;
  return lumenctl::run(arguments, lumenctl::SocketClient::connect, machine, std::cout, std::cerr);
}
