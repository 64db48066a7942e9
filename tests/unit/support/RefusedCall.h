#pragma once

#include <gtest/gtest.h>
#include <seccomp.h>

#include <array>
#include <functional>
#include <thread>

/// A system call that the kernel shall refuse: those with the given second and third arguments, or
/// every one when `level` is below 0. Where the C library makes another call in its place, as musl
/// does and GNU's on some processors, that one is refused too; what it adds to
/// F_SETFL is left out of the comparison.
struct RefusedCall {
  int number = 0;  ///< SCMP_SYS(name)
  int level = -1;
  int option = -1;
};

/// Runs `work` in a thread for which the kernel refuses `call` with `error`, by a filter that ends
/// with the thread.
inline void whileRefused(const RefusedCall& call, int error, const std::function<void()>& work) {
  std::thread([&] {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    const auto action = SCMP_ACT_ERRNO(static_cast<uint32_t>(error));
    constexpr scmp_datum_t largeFile = 0100000;  // asm-generic/fcntl.h: O_LARGEFILE
    const std::array<scmp_arg_cmp, 2> arguments = {{
        {1, SCMP_CMP_EQ, static_cast<scmp_datum_t>(call.level), 0},
        {2, SCMP_CMP_MASKED_EQ, ~largeFile, static_cast<scmp_datum_t>(call.option)},
    }};
    const unsigned compared = call.level < 0 ? 0 : 2;
    int added = seccomp_rule_add_array(filter, action, call.number, compared, arguments.data());
    constexpr std::array<std::array<int, 2>, 4> others = {{
        {SCMP_SYS(openat), SCMP_SYS(open)},
        {SCMP_SYS(sendto), SCMP_SYS(send)},
        {SCMP_SYS(recvfrom), SCMP_SYS(recv)},
        {SCMP_SYS(fcntl), SCMP_SYS(fcntl64)},
    }};
    for (const auto& [number, other] : others) {
      if (call.number != number) continue;
      added |= seccomp_rule_add_array(filter, action, other, compared, arguments.data());
    }
    const int loaded = seccomp_load(filter);
    seccomp_release(filter);
    ASSERT_EQ(added, 0);
    ASSERT_EQ(loaded, 0);
    work();
  }).join();
}
