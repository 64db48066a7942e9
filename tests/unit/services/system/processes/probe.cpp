// A service that writes down how it was started and waits for its end.

#include <dirent.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

int main(int, char** argv) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) std::cout << line << '\n';
  status.close();
  const std::unique_ptr<DIR, int (*)(DIR*)> descriptors(opendir("/proc/self/fd"), closedir);
  while (const dirent* entry = readdir(descriptors.get())) {
    const std::string name = entry->d_name;
    const int own = dirfd(descriptors.get());
    if (name[0] != '.' && name != std::to_string(own)) std::cout << "descriptor: " << name << '\n';
  }
  for (char** variable = environ; *variable != nullptr; ++variable) {
    std::cout << "variable: " << *variable << '\n';
  }
  int atParentsEnd = 0;
  prctl(PR_GET_PDEATHSIG, &atParentsEnd);
  char directory[256] = "";
  std::cout << "name: " << argv[0] << '\n'
            << "parent's end: " << atParentsEnd << '\n'
            << "leads its session: " << (getsid(0) == getpid()) << '\n'
            << "directory: " << (getcwd(directory, sizeof directory) ? directory : "") << '\n'
            << "input is at its end: " << (std::cin.get() == EOF) << '\n'
            << "ready" << std::endl;
  pause();
}
