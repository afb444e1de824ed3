#include "common/confine.h"

#include "lib/platform.h"

#include <errno.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

static constexpr unsigned nobody = 65534;
static constexpr unsigned reads_all = CAP_DAC_READ_SEARCH;

// ---- what the C library's headers may not have ----

#ifndef PR_CAP_AMBIENT
#define PR_CAP_AMBIENT 47
#define PR_CAP_AMBIENT_IS_SET 1
#define PR_CAP_AMBIENT_RAISE 2
#endif

// ---- limits ----

// Those of an address sanitizer's program would not be enough for it.
static bool limit_resources()
{
    static constexpr struct {
        decltype(RLIMIT_CPU) resource; // a type of its own with some C libraries
        rlim_t most;
    } limits[] = {
        {RLIMIT_CPU, 30},
        {RLIMIT_AS, 256 << 20},
        {RLIMIT_FSIZE, 0}, // pipes are no files
        {RLIMIT_CORE, 0},
    };
    for (const auto& row : limits) {
        const rlimit limit = {row.most, row.most};
        if (setrlimit(row.resource, &limit) != 0)
            return false;
    }
    return true;
}

// ---- rights ----

// No right but one can come back, not even by running a program as root.
static bool bound_rights()
{
    for (unsigned right = 0; right < 64; right++) {
        if (right != reads_all && prctl(PR_CAPBSET_DROP, right, 0, 0, 0) != 0)
            return errno == EINVAL && right > reads_all; // the kernel has no more of them
    }
    return true;
}

// Keeps one right over the change of the user, and for the program that is run.
static bool hand_on_right()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[2] = {};
    static_assert(reads_all < 32);
    rights[0].effective = rights[0].permitted = rights[0].inheritable = 1U << reads_all;
    return syscall(SYS_capset, &header, rights) == 0 &&
           prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, reads_all, 0, 0) == 0;
}

// The system calls themselves: the C library's functions would tell the process's other threads,
// which a child has not.
static bool become_nobody()
{
#if defined(SYS_setgroups32) // where the plain ones take 16 bits
    return syscall(SYS_setgroups32, 0, nullptr) == 0 &&
           syscall(SYS_setresgid32, nobody, nobody, nobody) == 0 &&
           syscall(SYS_setresuid32, nobody, nobody, nobody) == 0;
#else
    return syscall(SYS_setgroups, 0, nullptr) == 0 &&
           syscall(SYS_setresgid, nobody, nobody, nobody) == 0 &&
           syscall(SYS_setresuid, nobody, nobody, nobody) == 0;
#endif
}

static bool give_up_rights()
{
    if (!bound_rights())
        return false;
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, reads_all, 0, 0) < 0)
        return true; // an old kernel: root, of whose rights the program gets what is left
    return prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 && become_nobody() && hand_on_right();
}

// ---- system calls ----

// What they are asked for is refused.
static constexpr uint32_t refused_calls[] = {
    SYS_socket,
    SYS_socketpair,
    SYS_ptrace,
    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_kill,
    SYS_tkill,
    SYS_tgkill,
    SYS_clone,
    SYS_open_by_handle_at,
    SYS_keyctl,
    SYS_add_key,
    SYS_unshare,
    SYS_setns,
#ifdef SYS_fork
    SYS_fork,
#endif
#ifdef SYS_vfork
    SYS_vfork,
#endif
#ifdef SYS_socketcall
    SYS_socketcall,
#endif
#ifdef SYS_ipc
    SYS_ipc,
#endif
#ifdef SYS_clone3
    SYS_clone3,
#endif
#ifdef SYS_io_uring_setup
    SYS_io_uring_setup,
#endif
#ifdef SYS_pidfd_send_signal
    SYS_pidfd_send_signal,
#endif
};
static constexpr uint32_t refused_count = sizeof refused_calls / sizeof refused_calls[0];

// From here on x86-64 has the same calls once more, for programs with short pointers (x32); the
// numbers of others do not go that far.
static constexpr uint32_t same_calls_again = 0x40000000;

// A filter of the kernel's: passes what is not in the list. A program for another architecture
// ends.
static bool refuse_calls()
{
    static constexpr uint32_t head = 6;
    sock_filter filter[head + 2 * refused_count + 1] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, system_call_architecture, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, same_calls_again, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
    };
    for (uint32_t i = 0; i < refused_count; i++) {
        filter[head + 2 * i] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, refused_calls[i], 0, 1);
        filter[head + 2 * i + 1] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM);
    }
    filter[head + 2 * refused_count] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const sock_fprog program = {sizeof filter / sizeof filter[0], filter};
    return system_call_architecture == 0 ||
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0 || errno == EINVAL ||
           errno == ENOSYS;
}

bool confine_reader()
{
    return limit_resources() && (geteuid() != 0 || give_up_rights()) &&
           prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && refuse_calls();
}
