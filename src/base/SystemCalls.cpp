#include "base/SystemCalls.h"

#include <errno.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/Log.h"

namespace {

constexpr bool confined = PALINODE_CONFINEMENT;

void put(std::string_view text) {
  if (write(STDOUT_FILENO, text.data(), text.size()) < 0) return;
}

// Looking the name up allocates memory. The process has one thread, so the C library waits for no
// lock, and it ends in any case.
void report(int /*signal*/, siginfo_t* info, void* /*context*/) {
  put(program_invocation_short_name);
  put(": forbidden system call ");
  const char* const name = seccomp_syscall_resolve_num_arch(info->si_arch, info->si_syscall);
  put(name == nullptr ? "without a name" : name);
  put("\n");
  // The disposition is the default again.
  raise(SIGSYS);
  _exit(EXIT_FAILURE);
}

void reportForbiddenCalls() {
  struct sigaction action = {};
  action.sa_sigaction = report;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND | SA_NODEFER);
  sigaction(SIGSYS, &action, nullptr);
}

[[noreturn]] void cannotConfine(const char* what, int error) {
  logLine("cannot forbid system calls: ", what, ": ", strerror(error));
  std::exit(EXIT_FAILURE);
}

/// Whether this machine has one system call, socketcall, for the one of this number and all others
/// of sockets, as x86 with 32 bits and s390x do: libseccomp then has these pseudo numbers.
bool isSocketCall(int number) { return number <= -101 && number >= -120; }

class Filter {
 public:
  explicit Filter(uint32_t otherwise) : context_(seccomp_init(otherwise), seccomp_release) {
    if (context_ == nullptr) cannotConfine("libseccomp", ENOMEM);
    // Calls in the way of another word size would pass by the list.
    seccomp_attr_set(context_.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
  }

  void add(const SystemCall& call, uint32_t action) {
    const int number = seccomp_syscall_resolve_name(call.name);
    if (number == __NR_SCMP_ERROR) return;
    std::array<scmp_arg_cmp, 2> conditions = {};
    unsigned count = 0;
    for (const SystemCall::Argument& argument : {call.first, call.second}) {
      if (argument.mask == 0) continue;
      conditions[count++] = {argument.index, SCMP_CMP_MASKED_EQ, argument.mask, argument.value};
    }
    // Where the C library makes it by socketcall, its arguments lie in memory that no filter reads:
    // every such call is allowed, and none refused.
    if (count > 0 && isSocketCall(number)) {
      if (action != SCMP_ACT_ALLOW) return;
      count = 0;
    }
    const int status =
        seccomp_rule_add_array(context_.get(), action, number, count, conditions.data());
    if (status != 0) cannotConfine(call.name, -status);
  }

  void load() {
    const int status = seccomp_load(context_.get());
    if (status != 0) cannotConfine("the kernel", -status);
  }

 private:
  std::unique_ptr<void, void (*)(scmp_filter_ctx)> context_;
};

void apply(std::initializer_list<std::span<const SystemCall>> lists, uint32_t action,
           uint32_t otherwise, std::span<const RefusedCall> refused) {
  if (!confined) return;
  if (prctl(PR_GET_SECCOMP) < 0) {
    logLine("this kernel cannot forbid system calls");
    return;
  }
  Filter filter(otherwise);
  for (const std::span<const SystemCall>& calls : lists) {
    for (const SystemCall& call : calls) filter.add(call, action);
  }
  for (const RefusedCall& call : refused) {
    filter.add(call.call, SCMP_ACT_ERRNO(static_cast<uint32_t>(call.error)));
  }
  reportForbiddenCalls();
  filter.load();
}

}  // namespace

void allowOnly(std::initializer_list<std::span<const SystemCall>> allowed,
               std::span<const RefusedCall> refused) {
  apply(allowed, SCMP_ACT_ALLOW, SCMP_ACT_TRAP, refused);
}

void forbid(std::span<const SystemCall> forbidden, std::span<const RefusedCall> refused) {
  apply({forbidden}, SCMP_ACT_TRAP, SCMP_ACT_ALLOW, refused);
}
