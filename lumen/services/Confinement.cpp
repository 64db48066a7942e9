#include "lumen/services/Confinement.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <cerrno>

#include "base/SystemCalls.h"

namespace lumen {

namespace {

// A service may be any program, so what lumend would not need itself may stay.
constexpr SystemCall forbidden[] = {
    // Other processes.
    {"ptrace"},
    {"process_vm_readv"},
    {"process_vm_writev"},
    {"pidfd_getfd"},
    {"kcmp"},

    // The view of the file system, which is as it should be by now.
    {"mount"},
    {"umount"},
    {"umount2"},
    {"mount_setattr"},
    {"move_mount"},
    {"open_tree"},
    {"fsopen"},
    {"fsconfig"},
    {"fsmount"},
    {"fspick"},
    {"pivot_root"},
    {"chroot"},
    {"swapon"},
    {"swapoff"},
    {"quotactl"},
    {"quotactl_fd"},
    {"mknod"},
    {"mknodat"},
    {"name_to_handle_at"},
    {"open_by_handle_at"},
    {"fanotify_init"},

    // Namespaces.
    {"unshare"},
    {"setns"},
    {"clone", {0, CLONE_NEWNS, CLONE_NEWNS}},
    {"clone", {0, CLONE_NEWCGROUP, CLONE_NEWCGROUP}},
    {"clone", {0, CLONE_NEWUTS, CLONE_NEWUTS}},
    {"clone", {0, CLONE_NEWIPC, CLONE_NEWIPC}},
    {"clone", {0, CLONE_NEWUSER, CLONE_NEWUSER}},
    {"clone", {0, CLONE_NEWPID, CLONE_NEWPID}},
    {"clone", {0, CLONE_NEWNET, CLONE_NEWNET}},

    // Parts of the kernel that are large and of no use here.
    {"bpf"},
    {"perf_event_open"},
    {"userfaultfd"},
    {"io_uring_setup"},
    {"io_uring_enter"},
    {"io_uring_register"},
    {"io_setup"},
    {"io_submit"},
    {"add_key"},
    {"keyctl"},
    {"request_key"},

    // The machine itself.
    {"init_module"},
    {"finit_module"},
    {"delete_module"},
    {"kexec_load"},
    {"kexec_file_load"},
    {"reboot"},
    {"syslog"},
    {"acct"},
    {"settimeofday"},
    {"clock_settime"},
    {"clock_settime64"},
    {"clock_adjtime"},
    {"clock_adjtime64"},
    {"adjtimex"},
    {"stime"},
    {"sethostname"},
    {"setdomainname"},
    {"sched_setscheduler"},
    {"sched_setattr"},
    {"iopl"},
    {"ioperm"},
    {"modify_ldt"},
    {"vm86"},
    {"vm86old"},
    {"personality"},

    // Memory that is both written and executed.
    {"mmap", {2, PROT_WRITE | PROT_EXEC, PROT_WRITE | PROT_EXEC}},
    {"mmap2", {2, PROT_WRITE | PROT_EXEC, PROT_WRITE | PROT_EXEC}},
    {"mprotect", {2, PROT_EXEC, PROT_EXEC}},
    {"pkey_mprotect", {2, PROT_EXEC, PROT_EXEC}},
    {"shmat", {2, SHM_EXEC, SHM_EXEC}},
};

// Its flags lie in memory, where they cannot be seen. C libraries then call clone.
constexpr RefusedCall refused[] = {
    {{"clone3"}, ENOSYS},
};

}  // namespace

void confinePlatform() { forbid(forbidden, refused); }

}  // namespace lumen
