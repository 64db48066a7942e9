#pragma once

#include "platform/Fd.h"
#include "platform/Watch.h"

namespace lumen {

/// The signals that ask this process to end, SIGTERM and SIGINT, as events of the loop.
class EndSignals {
 public:
  /// Blocks the signals, so that none is lost from now on, and ignores SIGPIPE.
  EndSignals();
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;

  /// Calls the member function of `owner`, which must outlive this, at each of the signals.
  template <auto Method, typename Owner>
  void watch(Owner& owner) {
    owner_ = &owner;
    call_ = [](void* o) { (static_cast<Owner*>(o)->*Method)(); };
    watch_.start<&EndSignals::ready>(signals_.get(), *this, lm::watchRead);
  }

 private:
  void ready(int fd);

  void* owner_ = nullptr;
  void (*call_)(void* owner) = nullptr;
  lm::Fd signals_;
  lm::Watch watch_;
};

}  // namespace lumen
