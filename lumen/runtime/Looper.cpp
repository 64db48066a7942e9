#include "platform/Looper.h"

#include <chrono>
#include <csignal>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Runtime.h"

namespace lm {
namespace {

Looper* theLooper = nullptr;

}  // namespace

Looper::Looper() : Looper(Runtime::connect()) {}

Looper::Looper(std::unique_ptr<Runtime> runtime) : runtime_(std::move(runtime)) {
  if (theLooper) fatal("platform: there is a looper already");
  theLooper = this;
  // A peer that has gone is seen as an error of the write.
  std::signal(SIGPIPE, SIG_IGN);
}

Looper::~Looper() { theLooper = nullptr; }

void Looper::addHandler(uint32_t id, Handler& handler) { runtime_->addHandler(id, handler); }

void Looper::run() { runtime_->run(); }

void Looper::setupLeave(uint32_t delay) { runtime_->setupLeave(std::chrono::milliseconds(delay)); }

Looper& getLooper() {
  if (!theLooper) fatal("platform: no looper");
  return *theLooper;
}

Runtime* currentRuntime() { return theLooper ? &theLooper->runtime() : nullptr; }

}  // namespace lm
