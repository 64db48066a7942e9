// A service that prints how it was started and waits for its end.

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

namespace {

void showLimit(const char* name, decltype(RLIMIT_CORE) resource) {
  rlimit limit = {};
  getrlimit(resource, &limit);
  std::cout << name << ": ";
  if (limit.rlim_max == RLIM_INFINITY) {
    std::cout << "unlimited\n";
  } else {
    std::cout << limit.rlim_max << '\n';
  }
}

void showFork() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  std::cout << "fork: " << (child < 0 ? strerror(errno) : "done") << '\n';
}

}  // namespace

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
  showLimit("longest core", RLIMIT_CORE);
  showLimit("most descriptors", RLIMIT_NOFILE);
  showLimit("most address space", RLIMIT_AS);
  showLimit("longest file", RLIMIT_FSIZE);
  showFork();
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
