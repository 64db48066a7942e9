#pragma once

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cstdint>

#include "base/SystemCalls.h"

/// Of the low bits of socket(2)'s type; the others are flags.
inline constexpr uint64_t socketKind = 0xF;

/// Lists of system calls that several programs allow, by what needs them. Names that only other C
/// libraries or 32-bit machines have stand beside. None has socketcall, whose arguments cannot be
/// seen: kernels that have owned tables have the single calls everywhere.

/// Sockets of UDP and TCP over IPv4 that send first.
inline constexpr SystemCall clientCalls[] = {
    {"socket", {0, SystemCall::number, AF_INET}, {1, socketKind, SOCK_DGRAM}},
    {"socket", {0, SystemCall::number, AF_INET}, {1, socketKind, SOCK_STREAM}},
    {"connect"},
};

/// Sockets that listen.
inline constexpr SystemCall serverCalls[] = {
    {"listen"},
    {"accept"},
    {"accept4"},
};

/// Sockets that there are.
inline constexpr SystemCall socketCalls[] = {
    {"bind"},   {"getsockname"}, {"getpeername"}, {"getsockopt"}, {"setsockopt"}, {"send"},
    {"sendto"}, {"sendmsg"},     {"recv"},        {"recvfrom"},   {"recvmsg"},
};

/// Folders that are listed, and stores, which are written.
inline constexpr SystemCall storeCalls[] = {
    {"lstat"},  {"lstat64"},  {"getdents"},  {"getdents64"}, {"fsync"},
    {"rename"}, {"renameat"}, {"renameat2"}, {"unlink"},     {"unlinkat"},
};

/// What every program does: reads files, waits in the loop, and ends.
inline constexpr SystemCall commonCalls[] = {
    // Files to read.
    {"open"},
    {"openat"},
    {"access"},
    {"faccessat"},
    {"faccessat2"},
    {"stat"},
    {"stat64"},
    {"fstat"},
    {"fstat64"},
    {"fstatat64"},
    {"newfstatat"},
    {"statx"},
    {"lseek"},
    {"_llseek"},

    // Descriptors.
    {"read"},
    {"readv"},
    {"write"},
    {"writev"},
    {"close"},
    {"fcntl"},
    {"fcntl64"},
    {"ioctl", {1, SystemCall::number, TCGETS}},      // isatty, before the log is written
    {"ioctl", {1, SystemCall::number, TIOCGWINSZ}},  // the same

    // The loop and its clock.
    {"epoll_create1"},
    {"epoll_ctl"},
    {"epoll_wait"},
    {"epoll_pwait"},
    {"eventfd2"},
    {"poll"},
    {"ppoll"},
    {"ppoll_time64"},
    {"restart_syscall"},
    {"clock_gettime"},
    {"clock_gettime64"},
    {"nanosleep"},
    {"clock_nanosleep"},
    {"clock_nanosleep_time64"},
    {"gettimeofday"},
    {"time"},

    // Memory, none of it executable.
    {"brk"},
    {"mmap", {2, PROT_EXEC, 0}},
    {"mmap2", {2, PROT_EXEC, 0}},
    {"mprotect", {2, PROT_EXEC, 0}},
    {"munmap"},
    {"mremap"},
    {"madvise"},

    // What libraries ask for: random numbers, locks, the process.
    {"getrandom"},
    {"futex"},
    {"futex_time64"},
    {"getpid"},
    {"getppid"},
    {"gettid"},
    {"getuid"},
    {"getuid32"},
    {"sysinfo"},
    {"uname"},

    // The end, by abort as well.
    {"rt_sigprocmask"},
    {"tgkill"},
    {"tkill"},
    {"exit"},
    {"exit_group"},
};
