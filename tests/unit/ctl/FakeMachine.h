#pragma once

#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lumen/ctl/machine/Machine.h"

namespace lumenctl {

/// A machine with the files that a test writes, and no terminal until the user types something.
struct FakeMachine : Machine {
  std::optional<std::string> read(const std::string& path) override {
    const auto it = files.find(path);
    if (it != files.end()) return it->second;
    errno = ENOENT;
    return std::nullopt;
  }
  bool isBridge(const std::string& link) override { return bridges.count(link) != 0; }
  bool carriesMulticast(const std::string& link) override { return unicastOnly.count(link) == 0; }
  std::string userName(uint32_t number) override { return "user" + std::to_string(number); }
  Process ownerOf(uint64_t inode) override {
    const auto it = owners.find(inode);
    return it == owners.end() ? Process{} : it->second;
  }
  SocketLinks socketLinks() override { return links; }
  std::optional<std::vector<ForwardChain>> forwardChains() override { return chains; }
  bool hasTerminal() override { return terminal; }
  bool showsColours() override { return colours; }
  std::unique_ptr<Screen> screen() override { return std::move(drawable); }
  bool pause(std::chrono::milliseconds) override { return pauses-- > 0; }
  std::optional<std::string> typedLine() override {
    if (typed.empty()) return std::nullopt;
    std::string line = typed.front();
    typed.pop_front();
    return line;
  }

  /// The user sits at a terminal and will type that.
  void userTypes(const std::string& line) {
    terminal = true;
    typed.push_back(line);
  }

  std::map<std::string, std::string> files;
  std::set<std::string> bridges;
  std::set<std::string> unicastOnly;
  std::map<uint64_t, Process> owners;  ///< of sockets, by inode
  SocketLinks links;                   ///< of sockets, by inode
  std::optional<std::vector<ForwardChain>> chains;
  bool terminal = false;
  bool colours = false;
  std::unique_ptr<Screen> drawable;  ///< null: no terminal
  int pauses = 0;                    ///< after that many it is asked to end
  std::deque<std::string> typed;
};

}  // namespace lumenctl
