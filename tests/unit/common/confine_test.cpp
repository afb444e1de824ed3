// What is left to a process that confines itself: each case has a child do it, and tell.
#include "common/confine.h"

#include "lib/platform.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#ifndef PR_CAP_AMBIENT
#define PR_CAP_AMBIENT 47
#define PR_CAP_AMBIENT_IS_SET 1
#define PR_CAP_AMBIENT_RAISE 2
#endif

namespace {

constexpr unsigned nobody = 65534;
constexpr unsigned stranger = 1234;
constexpr unsigned most_rights = 64;
constexpr uint64_t reads_all = uint64_t{1} << CAP_DAC_READ_SEARCH;

// What the child tells, in memory that both have: it can write no file.
struct Told {
    bool done;
    bool confined;
    unsigned user;
    unsigned group;
    int groups;
    rlimit limits[4];
    uint64_t effective, permitted, inheritable, bounding, ambient;
    int no_new_rights;
    int filter;
};

constexpr int limited[] = {RLIMIT_CPU, RLIMIT_AS, RLIMIT_FSIZE, RLIMIT_CORE};
constexpr rlim_t limits[] = {30, 256 << 20, 0, 0};

// The call of prctl(2) that fails, and how; 0 for none.
int failing_call;
unsigned long failing_argument;
int failing_error;

} // namespace

extern "C" int __real_prctl(int call, unsigned long a, unsigned long b, unsigned long c,
                            unsigned long d);
extern "C" int __wrap_prctl(int call, ...);

int __wrap_prctl(int call, ...)
{
    va_list list;
    va_start(list, call);
    unsigned long arguments[4];
    for (unsigned long& argument : arguments)
        argument = va_arg(list, unsigned long);
    va_end(list);
    if (failing_call != 0 && call == failing_call && arguments[0] == failing_argument) {
        errno = failing_error;
        return -1;
    }
    return __real_prctl(call, arguments[0], arguments[1], arguments[2], arguments[3]);
}

namespace {

int ask(int call, unsigned long argument = 0, unsigned long second = 0)
{
    return __real_prctl(call, argument, second, 0, 0);
}

void tell_rights(Told* told)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[2] = {};
    syscall(SYS_capget, &header, rights);
    for (unsigned part = 0; part < 2; part++) {
        told->effective |= uint64_t{rights[part].effective} << (32 * part);
        told->permitted |= uint64_t{rights[part].permitted} << (32 * part);
        told->inheritable |= uint64_t{rights[part].inheritable} << (32 * part);
    }
    for (unsigned right = 0; right < most_rights; right++) {
        told->bounding |= uint64_t{ask(PR_CAPBSET_READ, right) == 1} << right;
        told->ambient |= uint64_t{ask(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, right) == 1} << right;
    }
}

void tell_all(Told* told)
{
    told->user = getuid() == geteuid() ? getuid() : 0;
    told->group = getgid() == getegid() ? getgid() : 0;
    told->groups = getgroups(0, nullptr);
    for (size_t i = 0; i < std::size(limited); i++)
        getrlimit(static_cast<decltype(RLIMIT_CPU)>(limited[i]), &told->limits[i]);
    tell_rights(told);
    told->no_new_rights = ask(PR_GET_NO_NEW_PRIVS);
    told->filter = ask(PR_GET_SECCOMP);
    told->done = true;
}

using Step = std::function<void()>;

class Confine : public testing::Test {
  protected:
    Confine()
    {
        void* pages =
            mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        told_ = static_cast<Told*>(pages);
        failing_call = 0;
    }
    ~Confine() override
    {
        munmap(told_, sizeof *told_);
        failing_call = 0;
    }

    // A child does `before`, confines itself, tells, and does `behind`. Returns its status as
    // waitpid(2) has it.
    int confine(const Step& before = {}, const Step& behind = {})
    {
        *told_ = {};
        const pid_t child = fork();
        if (child == 0) {
            if (before)
                before();
            told_->confined = confine_reader();
            tell_all(told_);
            if (behind)
                behind();
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }

    void expect_limits() const
    {
        for (size_t i = 0; i < std::size(limits); i++) {
            EXPECT_EQ(told_->limits[i].rlim_cur, limits[i]) << limited[i];
            EXPECT_EQ(told_->limits[i].rlim_max, limits[i]) << limited[i];
        }
    }

    Told* told_;
};

} // namespace

TEST_F(Confine, LeavesOfRootOneRight)
{
    const gid_t group = 4711;
    EXPECT_EQ(confine([&] { (void)setgroups(1, &group); }), 0);
    EXPECT_TRUE(told_->confined);
    EXPECT_EQ(told_->user, nobody);
    EXPECT_EQ(told_->group, nobody);
    EXPECT_EQ(told_->groups, 0);
    EXPECT_EQ(told_->effective, reads_all);
    EXPECT_EQ(told_->permitted, reads_all);
    EXPECT_EQ(told_->inheritable, reads_all);
    EXPECT_EQ(told_->ambient, reads_all);
    EXPECT_EQ(told_->bounding, reads_all);
    EXPECT_EQ(told_->no_new_rights, 1);
}

TEST_F(Confine, LimitsWhatIsTaken)
{
    EXPECT_EQ(confine(), 0);
    expect_limits();
}

TEST_F(Confine, HoldsForWhoeverIsNotRoot)
{
    EXPECT_EQ(confine([] { (void)setresuid(stranger, stranger, stranger); }), 0);
    EXPECT_TRUE(told_->confined);
    EXPECT_EQ(told_->user, stranger);
    EXPECT_EQ(told_->effective, 0U);
    EXPECT_EQ(told_->no_new_rights, 1);
    EXPECT_EQ(told_->filter, SECCOMP_MODE_FILTER);
    expect_limits();
}

TEST_F(Confine, RefusesCalls)
{
    // Of each: what it would otherwise answer is not EPERM.
    static const struct {
        long call;
        long arguments[3];
    } refused[] = {
        {SYS_socket, {1, 1, 0}},
        {SYS_socketpair, {1, 1, 0}},
        {SYS_ptrace, {2, 0x7fffffff, 0}},
        {SYS_process_vm_readv, {0x7fffffff, 0, 0}},
        {SYS_process_vm_writev, {0x7fffffff, 0, 0}},
        {SYS_kill, {0x7fffffff, 0, 0}},
        {SYS_tkill, {0x7fffffff, 0, 0}},
        {SYS_tgkill, {0x7fffffff, 0x7fffffff, 0}},
        {SYS_clone, {0x10000, 0, 0}}, // a thread without its memory
        {SYS_open_by_handle_at, {-1, 0, 0}},
        {SYS_keyctl, {-1, 0, 0}},
        {SYS_add_key, {0, 0, 0}},
        {SYS_unshare, {0, 0, 0}},
        {SYS_setns, {-1, 0, 0}},
#ifdef SYS_clone3
        {SYS_clone3, {0, 0, 0}},
#endif
#ifdef SYS_io_uring_setup
        {SYS_io_uring_setup, {0, 0, 0}},
#endif
#ifdef SYS_pidfd_send_signal
        {SYS_pidfd_send_signal, {-1, 0, 0}},
#endif
        {0x40000000, {0, 0, 0}},
        {0x40000000 + SYS_getpid, {0, 0, 0}},
    };
    static_assert(std::size(refused) < 32);
    const int status = confine({}, [] {
        int number = 0;
        for (const auto& row : refused) {
            number++;
            errno = 0;
            if (syscall(row.call, row.arguments[0], row.arguments[1], row.arguments[2], 0, 0, 0) !=
                    -1 ||
                errno != EPERM)
                _exit(number);
        }
        _exit(getppid() > 0 ? 0 : 99); // what is not in the list goes on
    });
    EXPECT_EQ(status, 0) << "call " << WEXITSTATUS(status) << " of the list";
    EXPECT_EQ(told_->filter, SECCOMP_MODE_FILTER);
}

#if defined(__x86_64__)
TEST_F(Confine, EndsAProgramOfAnotherArchitecture)
{
    const auto call_as_i386 = [] {
        constexpr long getpid_of_i386 = 20;
        long result = getpid_of_i386;
        asm volatile("int $0x80" : "+a"(result) : : "memory", "r8", "r9", "r10", "r11");
        _exit(result > 0 ? 0 : 1);
    };
    const pid_t child = fork();
    if (child == 0)
        call_as_i386();
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (status != 0)
        GTEST_SKIP() << "this kernel runs no program of i386";
    status = confine({}, call_as_i386);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSYS);
}
#endif

// ---- what cannot be done ----

TEST_F(Confine, FailsWhereALimitCannotBeSet)
{
    for (const int resource : {RLIMIT_CPU, RLIMIT_AS}) {
        EXPECT_EQ(confine([&] {
                      const rlimit least = {20, 20}; // more is root's to allow
                      (void)setrlimit(static_cast<decltype(RLIMIT_CPU)>(resource), &least);
                      (void)setresuid(stranger, stranger, stranger);
                  }),
                  0);
        EXPECT_FALSE(told_->confined) << resource;
    }
}

TEST_F(Confine, FailsWhereARightCannotBeTakenAway)
{
    constexpr struct {
        int call;
        unsigned long argument;
        int error;
    } rows[] = {
        {PR_CAPBSET_DROP, 0, EPERM},
        {PR_CAPBSET_DROP, 0, EINVAL}, // a kernel has that one
        {PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH + 1, EPERM},
        {PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, EPERM},
        {PR_SET_KEEPCAPS, 1, EPERM},
        {PR_SET_NO_NEW_PRIVS, 1, EINVAL},
        {PR_SET_SECCOMP, SECCOMP_MODE_FILTER, EPERM},
    };
    for (const auto& row : rows) {
        failing_call = row.call;
        failing_argument = row.argument;
        failing_error = row.error;
        EXPECT_EQ(confine(), 0);
        EXPECT_FALSE(told_->confined) << row.call << " " << row.argument << " " << row.error;
    }
}

TEST_F(Confine, AKernelOfFewerRightsHasThemAllTaken)
{
    failing_call = PR_CAPBSET_DROP;
    failing_argument = CAP_DAC_READ_SEARCH + 1;
    failing_error = EINVAL;
    EXPECT_EQ(confine(), 0);
    EXPECT_TRUE(told_->confined);
    EXPECT_EQ(told_->effective, reads_all);
}

TEST_F(Confine, AKernelThatHandsOnNoSingleRightLeavesRootWithThatOne)
{
    failing_call = PR_CAP_AMBIENT;
    failing_argument = PR_CAP_AMBIENT_IS_SET;
    failing_error = EINVAL;
    EXPECT_EQ(confine(), 0);
    EXPECT_TRUE(told_->confined);
    EXPECT_EQ(told_->user, 0U);
    EXPECT_EQ(told_->bounding, reads_all);
    EXPECT_EQ(told_->no_new_rights, 1);
}

TEST_F(Confine, AKernelWithoutFiltersDoesWithoutOne)
{
    for (const int error : {EINVAL, ENOSYS}) {
        failing_call = PR_SET_SECCOMP;
        failing_argument = SECCOMP_MODE_FILTER;
        failing_error = error;
        EXPECT_EQ(confine(), 0);
        EXPECT_TRUE(told_->confined) << error;
        EXPECT_EQ(told_->filter, 0) << error;
        EXPECT_EQ(told_->user, nobody) << error;
    }
}
