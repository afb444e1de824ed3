// main of every unit test executable. All cases run in one process, one after the other, and what
// each changed is put back behind it. A case that ends the process, or hangs, has failed; another
// process goes on behind it.
//
// Takes GoogleTest's options, --results=FILE for a result file (JUnit), and --limit=SECONDS for how
// long a case may take.
#include "support/fresh_case.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

static int case_limit_seconds = 300;
static constexpr char field_end = '\x1f';
static constexpr char note_end = '\x1e';

namespace {

// What has become of a case, by the words of result files. "begun" is what the note behind says
// otherwise.
struct Note {
    std::string state; // "begun", "run" (it passed), "fail", "notrun" (skipped)
    std::string name;
    std::string seconds;
    std::string message;
};

// Tells the watching process of each case, through a file that both have open.
class Teller : public testing::EmptyTestEventListener {
  public:
    explicit Teller(int notes) : notes_(notes), process_(getpid()) {}

  private:
    void OnTestStart(const testing::TestInfo& test) override { tell("begun", test, "", ""); }

    void OnTestEnd(const testing::TestInfo& test) override
    {
        if (getpid() != process_)
            _exit(98); // a child that a case made and forgot
        const std::string left = fresh_case_put_back();
        if (!left.empty())
            ADD_FAILURE() << "the case has left: " << left;
        const testing::TestResult& result = *test.result();
        char seconds[32];
        snprintf(seconds, sizeof seconds, "%.3f",
                 static_cast<double>(result.elapsed_time()) / 1000);
        std::string message;
        for (int part = 0; part < result.total_part_count(); part++) {
            if (result.GetTestPartResult(part).skipped())
                message += result.GetTestPartResult(part).message();
        }
        tell(result.Skipped()  ? "notrun"
             : result.Failed() ? "fail"
                               : "run",
             test, seconds, message);
    }

    void tell(const char* word, const testing::TestInfo& test, const std::string& seconds,
              const std::string& message) const
    {
        const std::string note = std::string(word) + field_end + test.test_suite_name() + "." +
                                 test.name() + field_end + seconds + field_end + message + note_end;
        if (write(notes_, note.data(), note.size()) != static_cast<ssize_t>(note.size()))
            _exit(97);
    }

    int notes_;
    pid_t process_;
};

} // namespace

static std::vector<Note> read_notes(int file)
{
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    if (pread(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        return {};
    std::vector<Note> notes;
    for (size_t at = 0; at < text.size();) {
        Note note;
        for (std::string* field : {&note.state, &note.name, &note.seconds, &note.message}) {
            const size_t end = text.find_first_of({field_end, note_end}, at);
            *field = text.substr(at, end - at);
            at = end + 1;
        }
        if (!notes.empty() && notes.back().name == note.name)
            notes.pop_back();
        notes.push_back(note);
    }
    return notes;
}

// ---- the processes ----

static int run_rest(int notes, const std::string& filter)
{
    GTEST_FLAG_SET(filter, filter);
    (void)fresh_case_put_back(); // of the case that ended the process before
    testing::UnitTest::GetInstance()->listeners().Append(new Teller(notes));
    return RUN_ALL_TESTS();
}

// Waits for a process, and ends it when no case has begun or ended for too long.
static int wait_for_process(pid_t pid, int notes)
{
    off_t size = -1;
    int status = 0;
    for (int seconds = 0; waitpid(pid, &status, WNOHANG) == 0; seconds++) {
        const off_t now = lseek(notes, 0, SEEK_END);
        if (now != size)
            seconds = 0;
        size = now;
        if (seconds == case_limit_seconds)
            kill(pid, SIGKILL);
        sigset_t ended;
        sigemptyset(&ended);
        sigaddset(&ended, SIGCHLD);
        const timespec second = {.tv_sec = 1, .tv_nsec = 0};
        sigtimedwait(&ended, nullptr, &second);
    }
    return status;
}

static int run_process(int notes, const std::string& filter)
{
    sigset_t ended, before;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    sigprocmask(SIG_BLOCK, &ended, &before);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        exit(run_rest(notes, filter));
    }
    const int status = wait_for_process(pid, notes);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return status;
}

static std::string without(const std::string& filter, const std::vector<Note>& done)
{
    std::string rest = filter + (filter.find('-') == std::string::npos ? "-" : ":");
    for (const Note& note : done)
        rest += note.name + ":";
    return rest;
}

// Runs the cases, in as many processes as it takes, and returns what has become of them.
static std::vector<Note> run_cases()
{
    char name[] = "/run/cases.XXXXXX";
    const int notes = mkostemp(name, O_CLOEXEC);
    unlink(name);
    fresh_case_keep();
    const std::string filter = GTEST_FLAG_GET(filter);
    int status = run_process(notes, filter);
    std::vector<Note> cases = read_notes(notes);
    while (!cases.empty() && cases.back().state == "begun") {
        printf("%s has ended its process, status 0x%x\n", cases.back().name.c_str(), status);
        const std::string end = std::string("fail") + field_end + cases.back().name + field_end +
                                "0" + field_end + note_end;
        if (write(notes, end.data(), end.size()) < 0)
            break;
        status = run_process(notes, without(filter, cases));
        cases = read_notes(notes);
    }
    const bool failed = std::any_of(cases.begin(), cases.end(),
                                    [](const Note& note) { return note.state == "fail"; });
    if (status != 0 && !failed) {
        printf("the process has ended badly behind its last case, status 0x%x\n", status);
        cases.push_back({"fail", "end.OfTheProcess", "0", ""});
    }
    close(notes);
    return cases;
}

// ---- the results ----

static std::string escape(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        if (strchr("<>&\"", c) != nullptr || static_cast<unsigned char>(c) < ' ' || c > '~')
            escaped += '?';
        else
            escaped += c;
    }
    return escaped;
}

static void write_results(const std::string& path, const std::vector<Note>& cases)
{
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr)
        return;
    fprintf(file, "<testsuite tests=\"%zu\">\n", cases.size());
    for (const Note& note : cases)
        fprintf(file,
                "<testcase name=\"%s\" status=\"%s\" "
                "time=\"%s\"><system-out>%s</system-out></testcase>\n",
                escape(note.name).c_str(), note.state.c_str(), note.seconds.c_str(),
                escape(note.message).c_str());
    fprintf(file, "</testsuite>\n");
    fclose(file);
}

static int tell_outcome(const std::vector<Note>& cases)
{
    if (cases.empty()) {
        printf("no case has that name\n");
        return 1;
    }
    size_t failed = 0;
    for (const Note& note : cases) {
        if (note.state != "fail")
            continue;
        printf("failed: %s\n", note.name.c_str());
        failed++;
    }
    printf("%zu cases, %zu failed\n", cases.size(), failed);
    return failed == 0 ? 0 : 1;
}

// What stands behind the option's name, nullptr when it is another option.
static const char* value_of(const char* argument, const char* option)
{
    return strncmp(argument, option, strlen(option)) == 0 ? argument + strlen(option) : nullptr;
}

int main(int argc, char* argv[])
{
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    // The fixed paths that the service uses must be a private world's.
    if (getenv("VY_WORLD") == nullptr) {
        fprintf(stderr, "run this through tests/support/world (see docs/TESTING.md)\n");
        return 125;
    }
    const char* results = nullptr;
    for (int i = 1; i < argc; i++) {
        if (const char* path = value_of(argv[i], "--results="))
            results = path;
        if (const char* seconds = value_of(argv[i], "--limit="))
            case_limit_seconds = atoi(seconds);
    }
    const std::vector<Note> cases = run_cases();
    if (results != nullptr)
        write_results(results, cases);
    return tell_outcome(cases);
}
