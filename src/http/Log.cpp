#include "http/Log.h"

#include <algorithm>
#include <cstdio>

void writeLog(std::string line) {
  const auto isControl = [](char c) { return (c >= 0 && c < 0x20) || c == 0x7f; };
  std::replace_if(line.begin(), line.end(), isControl, '?');
  line.push_back('\n');
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}
