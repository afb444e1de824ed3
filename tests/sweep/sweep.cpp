#include "sweep/sweep.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/files.h"
#include "sweep/failing_libc.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <map>
#include <set>
#include <vector>

namespace {

struct Failing {
    std::string call;
    std::vector<int> errors;
};

// What really occurs. A call that is not listed fails with EIO and ENOMEM.
const std::map<std::string, std::vector<int>> errors_of = {
    {"access", {EACCES, ENOENT}},
    {"accept4", {EMFILE, EINTR, ECONNABORTED}},
    {"bind", {EADDRINUSE, ENOMEM}},
    {"clock_gettime", {EINVAL, EPERM}},
    {"close", {EIO, EINTR}},
    {"connect", {ECONNREFUSED, EAGAIN, EINTR}},
    {"fclose", {EIO, ENOSPC}},
    {"fflush", {EIO, ENOSPC}},
    {"flock", {EWOULDBLOCK, EINTR}},
    {"fopen64", {EMFILE, ENOSPC, EROFS}},
    {"fprintf", {EIO, ENOSPC}},
    {"fputc", {EIO, ENOSPC}},
    {"fputs", {EIO, ENOSPC}},
    {"kill", {ESRCH, EPERM}},
    {"mkdir", {ENOSPC, EROFS, EEXIST}},
    {"mknod", {ENOSPC, EROFS, EEXIST}},
    {"mount", {EIO, EBUSY, EROFS, EACCES, EINVAL}},
    {"nanosleep", {EINTR, EINVAL}},
    {"open64", {EMFILE, ENOENT, EACCES}},
    {"pipe", {EMFILE, ENFILE}},
    {"pthread_attr_init", {ENOMEM}},
    {"pthread_attr_setstacksize", {EINVAL}},
    {"pthread_create", {EAGAIN, EPERM}},
    {"pthread_mutex_init", {ENOMEM}},
    {"read", {EIO, EINTR}},
    {"recv", {ECONNRESET, EINTR}},
    {"fsync", {EIO, ENOSPC}},
    {"rename", {EXDEV, ENOSPC, EROFS}},
    {"rmdir", {EBUSY, ENOENT}},
    {"select", {EINTR, ENOMEM}},
    {"send", {EPIPE, EAGAIN}},
    {"setmntent", {EMFILE, EROFS}},
    {"socket", {EMFILE, ENFILE, ENOMEM}},
    {"spawn", {EAGAIN, ENOMEM}},
    {"umount", {EBUSY, EINVAL, ENOENT}},
    {"umount2", {EBUSY, EIO}},
    {"unlink", {EBUSY, ENOENT}},
    {"waitpid", {ECHILD, EINTR}},
};

std::vector<int> errors(const std::string& call)
{
    const auto found = errors_of.find(call);
    return found == errors_of.end() ? std::vector<int>{EIO, ENOMEM} : found->second;
}

// One whole run. `plan` is made between prepare and run.
void run_once(const Scenario& scenario, const std::function<void()>& plan,
              const std::function<bool()>& struck, const std::string& what)
{
    SCOPED_TRACE(what);
    fake_world_reset();
    fake_log_clear();
    libc_reset();
    const int descriptors = open_descriptors();
    scenario.prepare();
    plan();
    libc_arm();
    scenario.run();
    libc_disarm();
    const bool hit = struck();
    if (scenario.finish)
        scenario.finish();
    if (scenario.check)
        scenario.check(hit);
    if (hit && scenario.keeps_streams)
        return;
    EXPECT_EQ(libc_leaks(scenario.keeps_options ? 3 : 0), "");
    EXPECT_EQ(open_descriptors(), descriptors);
    if (scenario.keeps_options)
        libc_free_kept();
}

} // namespace

static int count_allocations(const Scenario& scenario)
{
    int count = 0;
    run_once(
        scenario, [] {},
        [&] {
            count = libc_allocations();
            return false;
        },
        "nothing fails");
    return count;
}

void sweep_allocations(const Scenario& scenario)
{
    const int count = count_allocations(scenario);
    ASSERT_GT(count, 0);
    int hits = 0;
    for (int nth = 1; nth <= count && !testing::Test::HasFailure(); nth++) {
        for (const bool onwards : {false, true}) {
            run_once(
                scenario, [&] { libc_fail_allocation(nth, onwards); },
                [&] {
                    hits += libc_struck() ? 1 : 0;
                    return libc_struck();
                },
                "allocation " + std::to_string(nth) + (onwards ? " and on" : "") + " fails");
        }
    }
    if (!scenario.threads)
        EXPECT_EQ(hits, 2 * count);
    EXPECT_GT(hits, 0);
    printf("%d allocations, %d failures struck\n", count, hits);
}

namespace {

struct Calls {
    std::map<std::string, int> libc;
    std::map<std::string, int> sys;
};

} // namespace

static Calls count_calls(const Scenario& scenario)
{
    Calls calls;
    run_once(
        scenario, [] { fake_world().journal.clear(); },
        [&] {
            calls.libc = libc_calls();
            for (const std::string& entry : fake_world().journal)
                calls.sys[entry.substr(0, entry.find(' '))]++;
            calls.sys.erase("sync"); // cannot fail
            return false;
        },
        "nothing fails");
    return calls;
}

// Fails the nth call of a function with each of its errors. Returns how many runs that took.
static int fail_each(const Scenario& scenario, const std::string& name, const std::string& call,
                     int nth, const std::function<void(int error)>& plan,
                     const std::function<bool()>& struck)
{
    int runs = 0;
    for (const int error : errors(call)) {
        run_once(
            scenario, [&] { plan(error); }, struck,
            name + " " + std::to_string(nth) + " fails with errno " + std::to_string(error));
        runs++;
    }
    return runs;
}

static int fail_libc_call(const Scenario& scenario, const std::string& call, int nth)
{
    return fail_each(
        scenario, call, call, nth, [&](int error) { libc_fail_call(call, nth, error); },
        [] { return libc_struck(); });
}

static int fail_sys_call(const Scenario& scenario, const std::string& call, int nth)
{
    return fail_each(
        scenario, "sys_" + call, call, nth, [&](int error) { fake_world().fail(call, nth, error); },
        [] { return true; });
}

void sweep_calls(const Scenario& scenario)
{
    const Calls calls = count_calls(scenario);
    int runs = 0;
    for (const auto& [call, count] : calls.libc) {
        for (int nth = 1; nth <= count && !testing::Test::HasFailure(); nth++)
            runs += fail_libc_call(scenario, call, nth);
    }
    for (const auto& [call, count] : calls.sys) {
        for (int nth = 1; nth <= count && !testing::Test::HasFailure(); nth++)
            runs += fail_sys_call(scenario, call, nth);
    }
    EXPECT_GT(runs, 0);
    printf("%d failures\n", runs);
}
