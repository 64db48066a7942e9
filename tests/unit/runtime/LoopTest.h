#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "support/ManualClock.h"
#include "support/Sockets.h"

namespace lm::test {

/// An event loop on a clock that the test moves, with callbacks that record their names.
class LoopTest : public testing::Test {
 protected:
  /// Waits for a descriptor or a timer; `then` runs when it is called.
  struct Probe {
    std::string name;
    std::vector<std::string>* calls = nullptr;
    std::function<void()> then;
    bool progress = true;  // what it returns to the loop
    unsigned flags = 0;    // of the last call

    bool ready(int, unsigned readyFlags) {
      flags = readyFlags;
      called();
      return progress;
    }
    void due() { called(); }
    void called() {
      calls->push_back(name);
      if (then) then();
    }
  };

  static void startTimer(Probe& p, uint32_t hundredths) {
    getRunner().addTimer(&p, &LoopTest::due, hundredths);
  }
  static void stopTimer(Probe& p) { getRunner().removeTimer(&p, &LoopTest::due); }

  Probe& probe(const std::string& name) {
    probes_.push_back(std::make_unique<Probe>());
    probes_.back()->name = name;
    probes_.back()->calls = &calls_;
    return *probes_.back();
  }

  Probe& watch(const std::string& name, int fd, unsigned flags = watchRead) {
    Probe& p = probe(name);
    addSocket<&Probe::ready>(fd, p, flags);
    return p;
  }

  Probe& timer(const std::string& name, uint32_t hundredths) {
    Probe& p = probe(name);
    startTimer(p, hundredths);
    return p;
  }

  void turn() { loop_.turn(std::chrono::milliseconds(0)); }
  void turns(int count) {
    while (count-- > 0) turn();
  }

  /// The names of the callbacks since the last call.
  std::vector<std::string> calls() { return std::exchange(calls_, {}); }

  using Names = std::vector<std::string>;

  ManualClock clock_;
  EventLoop loop_{clock_};

 private:
  static void due(void* probe) { static_cast<Probe*>(probe)->due(); }

  std::vector<std::unique_ptr<Probe>> probes_;
  Names calls_;
};

}  // namespace lm::test
