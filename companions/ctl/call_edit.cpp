#include "ctl/call_edit.h"

#include "ctl/call_status.h"
#include "ctl/edit_text.h"
#include "ctl/target.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>

static constexpr int default_wait_s = 90;

namespace {

// The text in the editor.
struct Draft {
    char path[64] = {};
    FileBytes before;
    FileBytes after;
};

} // namespace

static int fail(const char* what, int error)
{
    fprintf(stderr, "vyhotplugctl: %s: %s\n", what, strerror(error < 0 ? -error : error));
    return EXIT_FAILED;
}

// ---- the editor ----

// Runs the editor on the text, with the terminal. Returns 0 when it ended well.
static int run_editor(const char* path)
{
    static constexpr char script[] = "e=${VISUAL:-${EDITOR:-}}\n"
                                     "for i in editor nano vi; do\n"
                                     "    [ -n \"$e\" ] || ! command -v $i >/dev/null || e=$i\n"
                                     "done\n"
                                     "exec $e \"$1\"";
    char words[5][sizeof script + 64] = {"sh", "-c", "", "sh", ""};
    (void)snprintf(words[2], sizeof words[2], "%s", script);
    (void)snprintf(words[4], sizeof words[4], "%s", path);
    char* const argv[] = {words[0], words[1], words[2], words[3], words[4], nullptr};
    // Under other numbers, as sys_spawn closes the first three before it copies.
    const FdGuard in(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    const FdGuard out(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    const FdGuard err(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    const int streams[3] = {in.get(), out.get(), err.get()};
    int status = -1;
    struct sigaction ignored = {};
    struct sigaction before = {};
    ignored.sa_handler = SIG_IGN;
    const pid_t pid = sys_spawn("sh", argv, streams);
    (void)sigaction(SIGINT, &ignored, &before); // Ctrl-C is the editor's own
    while (pid > 0 && sys_waitpid(pid, &status, 0) == -EINTR) {
    }
    (void)sigaction(SIGINT, &before, nullptr);
    return status == 0 ? 0 : -1;
}

// Asks whether to edit again. Without anybody to ask the answer is no.
static bool ask_again()
{
    char answer[16];
    (void)fputs("Edit again? [Y/n] ", stderr);
    if (fgets(answer, sizeof answer, stdin) == nullptr)
        return false;
    return answer[0] != 'n' && answer[0] != 'N' && answer[0] != 'q';
}

// ---- the text ----

static int make_draft(const View& view, const char* identity, Draft* draft)
{
    static constexpr char form[] = "/tmp/vyhotplugctl-XXXXXX";
    memcpy(draft->path, form, sizeof form);
    const int fd = mkostemp(draft->path, O_CLOEXEC);
    const FileGuard file(fd >= 0 ? fdopen(fd, "w") : nullptr);
    if (!file || edit_text_write(file.get(), view, identity) != 0)
        return -errno;
    return file_read_all(draft->path, 0, FILE_ANY_SIZE, &draft->before);
}

// Applies what was changed. Returns an exit status.
static int apply(const CallArgs& args, const EditedText& edited)
{
    if (edited.count == 0) {
        (void)fputs("nothing is changed\n", args.out.out);
        return EXIT_DONE;
    }
    const MemGuard<DeviceEdit> edits(
        static_cast<DeviceEdit*>(malloc(edited.count * sizeof(DeviceEdit))));
    if (!edits)
        return fail("edit", ENOMEM);
    for (size_t i = 0; i < edited.count; i++)
        edits.get()[i] = edited.sections[i].edit;
    const ExitStatus status =
        device_file_apply(*args.setup, edits.get(), edited.count, default_wait_s);
    for (size_t i = 0; i < edited.count && status == EXIT_DONE; i++) {
        (void)text_show(args.out.out, edited.sections[i].identity, 600);
        (void)fputs(edits.get()[i].forget ? " is forgotten\n" : " is set\n", args.out.out);
    }
    return status;
}

// One round of editor and check. Returns an exit status, or -1 to edit again.
static int edit_once(const CallArgs& args, const View& view, Draft* draft)
{
    if (run_editor(draft->path) != 0) {
        (void)fputs("vyhotplugctl: the editor failed, nothing is changed\n", stderr);
        return EXIT_FAILED;
    }
    int result = file_read_all(draft->path, 0, FILE_ANY_SIZE, &draft->after);
    if (result != 0)
        return fail(draft->path, result);
    EditedText edited;
    result = edited_read(view, draft->before, draft->after, &edited);
    int status = EXIT_FAILED;
    if (result != 0)
        status = fail("edit", result);
    else if (edited.faults == 0)
        status = apply(args, edited);
    else if (ask_again())
        status = -1;
    edited_end(&edited);
    return status;
}

static int edit(const CallArgs& args, const View& view, const char* identity)
{
    Draft draft;
    const int made = make_draft(view, identity, &draft);
    if (made != 0) {
        (void)sys_unlink(draft.path);
        return fail(draft.path, made);
    }
    int status = -1;
    while (status == -1)
        status = edit_once(args, view, &draft);
    if (status == EXIT_DONE || draft.after.size == 0)
        (void)sys_unlink(draft.path); // nothing of it is wanted
    else
        fprintf(stderr, "vyhotplugctl: what you wrote is in %s\n", draft.path);
    return status;
}

int call_edit(const CallArgs& args)
{
    View view;
    int status = look(*args.setup, &view);
    const char* identity = nullptr;
    if (status == EXIT_DONE && args.count > 0) {
        const Item* item = target_find_one(view, args.words[0], &status);
        identity = item != nullptr ? item->identity : nullptr;
        if (item != nullptr && identity == nullptr)
            status = target_missing(args.words[0]);
    }
    if (status == EXIT_DONE)
        status = edit(args, view, identity);
    view_end(&view);
    return status;
}
