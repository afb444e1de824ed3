#include "sweep/sweep.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <map>
#include <set>
#include <vector>

namespace {

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
    {"fopen", {EMFILE, ENOSPC, EROFS}},
    {"fprintf", {EIO, ENOSPC}},
    {"fputc", {EIO, ENOSPC}},
    {"fputs", {EIO, ENOSPC}},
    {"fwrite", {ENOSPC}},
    {"kill", {ESRCH, EPERM}},
    {"mkdir", {ENOSPC, EROFS, EEXIST}},
    {"mknod", {ENOSPC, EROFS, EEXIST}},
    {"mount", {EIO, EBUSY, EROFS, EACCES, EINVAL}},
    {"nanosleep", {EINTR, EINVAL}},
    {"open", {EMFILE, ENOENT, EACCES}},
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

// One whole run. `plan` is made between prepare and run; `struck` tells whether it did.
void run_once(const Scenario& scenario, const std::string& what, const std::function<void()>& plan,
              const std::function<bool()>& struck)
{
    SCOPED_TRACE(what);
    fake_world_reset();
    fake_log_clear();
    calls_reset();
    memory_reset();
    const int descriptors = open_descriptors();
    scenario.prepare();
    plan();
    memory_watch(true);
    calls_watch(true);
    scenario.run();
    calls_watch(false);
    memory_watch(false);
    const bool hit = struck();
    if (scenario.finish)
        scenario.finish();
    if (scenario.check)
        scenario.check(hit);
    if (hit && scenario.keeps_streams)
        return;
    EXPECT_LE(memory_kept(), scenario.keeps_options ? 3U : 0U) << "allocations are not freed";
    EXPECT_EQ(streams_kept(), 0U) << "streams are not closed";
    EXPECT_EQ(open_descriptors(), descriptors);
    if (scenario.keeps_options)
        memory_free_kept();
}

// What a run in which nothing fails asks of the world.
struct Asked {
    int allocations = 0;
    std::map<std::string, int> libc;
    std::map<std::string, int> sys;
};

Asked count_what_is_asked(const Scenario& scenario)
{
    Asked asked;
    run_once(
        scenario, "nothing fails", [] { fake_world().journal.clear(); },
        [&] {
            asked.allocations = memory_allocations();
            asked.libc = calls_counted();
            for (const std::string& entry : fake_world().journal)
                asked.sys[entry.substr(0, entry.find(' '))]++;
            asked.sys.erase("sync"); // cannot fail
            return false;
        });
    return asked;
}

// Fails something of a scenario, and counts how often that struck. Where threads run, what is the
// nth in one run may not come that far in another; elsewhere every plan must strike, and everywhere
// one of each kind.
class Strikes {
  public:
    explicit Strikes(const Scenario& scenario) : scenario_(scenario) {}

    void fail(const std::string& what, const std::function<void()>& plan,
              const std::function<bool()>& struck)
    {
        plans_++;
        run_once(scenario_, what, plan, [&] {
            const bool hit = struck();
            strikes_ += hit ? 1 : 0;
            return hit;
        });
    }

    // How often it struck, of what was planned under one name.
    void expect_of(const std::string& name)
    {
        EXPECT_GT(plans_, 0) << name;
        EXPECT_GE(strikes_, scenario_.threads ? 1 : plans_) << name << " was not made to fail";
        total_ += strikes_;
        plans_ = strikes_ = 0;
    }

    int total() const { return total_; }

  private:
    const Scenario& scenario_;
    int plans_ = 0;
    int strikes_ = 0;
    int total_ = 0;
};

} // namespace

void sweep_allocations(const Scenario& scenario)
{
    const int count = count_what_is_asked(scenario).allocations;
    Strikes strikes(scenario);
    for (int nth = 1; nth <= count && !testing::Test::HasFailure(); nth++) {
        for (const bool onwards : {false, true})
            strikes.fail(
                "allocation " + std::to_string(nth) + (onwards ? " and on" : "") + " fails",
                [&] {
                    memory_fail(nth, onwards);
                    if (scenario.lasting != nullptr)
                        *scenario.lasting = onwards;
                    if (scenario.error != nullptr)
                        *scenario.error = ENOMEM;
                },
                memory_failed);
    }
    if (!testing::Test::HasFailure())
        strikes.expect_of("allocation");
    printf("%d allocations, %d failures struck\n", count, strikes.total());
}

// Fails each call of the functions, each with each of its errors.
static void sweep_functions(const Scenario& scenario, Strikes* strikes,
                            const std::map<std::string, int>& functions,
                            const std::function<void(const std::string&, int nth, int error)>& plan,
                            const std::function<bool()>& struck)
{
    for (const auto& [call, count] : functions) {
        for (int nth = 1; nth <= count; nth++) {
            for (const int error : errors(call)) {
                if (testing::Test::HasFailure())
                    return;
                if (scenario.error != nullptr)
                    *scenario.error = error;
                strikes->fail(
                    call + " " + std::to_string(nth) + " fails with errno " + std::to_string(error),
                    [&, failing = call] { plan(failing, nth, error); }, struck);
            }
        }
        strikes->expect_of(call);
    }
}

void sweep_calls(const Scenario& scenario)
{
    const Asked asked = count_what_is_asked(scenario);
    Strikes strikes(scenario);
    sweep_functions(scenario, &strikes, asked.libc, call_fail, call_failed);
    sweep_functions(
        scenario, &strikes, asked.sys,
        [](const std::string& call, int nth, int error) { fake_world().fail(call, nth, error); },
        [] { return fake_world().failed > 0; });
    EXPECT_GT(strikes.total(), 0);
    printf("%d failures struck\n", strikes.total());
}

// ---- waiting ----

static Polling polling;

void sweep_polling(Polling stand_in)
{
    polling = std::move(stand_in);
}

extern "C" int __wrap_poll(pollfd* fds, nfds_t count, int timeout);

int __wrap_poll(pollfd* fds, nfds_t count, int timeout)
{
    if (!polling)
        return __real_poll(fds, count, timeout);
    calls_overlook(true);
    const int ready = polling(fds, count, timeout);
    const int error = errno;
    calls_overlook(false);
    errno = error;
    return ready;
}
