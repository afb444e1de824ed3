#include "ctl/call_edit.h"

#include "ctl/call_status.h"
#include "ctl/edit_text.h"
#include "ctl/interrupt.h"
#include "ctl/target.h"
#include "lib/platform.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

static constexpr int default_wait_s = 90;

namespace {

// The text in the editor.
struct Draft {
    char path[64] = {};
    FileBytes before;
    FileBytes after;
    bool wanted = true; // what somebody wrote may be in the file, and nowhere else
};

} // namespace

// ---- the editor ----

// A word of a command line, which nobody changes.
static char* word(const char* constant)
{
    return const_cast<char*>(constant);
}

// Runs the editor on the text, with the terminal. Returns 0 when it ended well.
static int run_editor(const char* path)
{
    static constexpr char script[] = "e=${VISUAL:-${EDITOR:-}}\n"
                                     "for i in editor nano vi; do\n"
                                     "    [ -n \"$e\" ] || ! command -v $i >/dev/null || e=$i\n"
                                     "done\n"
                                     "exec $e \"$1\"";
    char* const argv[] = {word("sh"), word("-c"), word(script), word("sh"), word(path), nullptr};
    // Under other numbers, as sys_spawn closes the first three before it copies.
    const FdGuard in(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    const FdGuard out(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    const FdGuard err(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    const int streams[3] = {in.get(), out.get(), err.get()};
    int status = -1;
    const pid_t pid = sys_spawn_prepared("sh", argv, streams, interrupt_release);
    while (pid > 0 && sys_waitpid(pid, &status, 0) == -EINTR) {
    }
    interrupt_forget_int(); // Ctrl-C is the editor's own
    return status == 0 ? 0 : -1;
}

// Asks whether to edit again. Without anybody to ask the answer is no, and so is an interruption.
static bool ask_again()
{
    char next = '\0';
    char answer = '\0'; // the first character of the line; none for who is not there
    text_print(stderr, "Edit again? [Y/n] ");
    (void)stream_flush(stderr); // there is no line feed
    while (next != '\n' && interrupt_wait_input(STDIN_FILENO) && read(STDIN_FILENO, &next, 1) == 1)
        answer = answer == '\0' ? next : answer;
    if (interrupt_waits()) {
        text_print(stderr, "\n"); // nobody has pressed the key
        return false;
    }
    return answer != '\0' && answer != 'n' && answer != 'N' && answer != 'q';
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
        text_print(args.out.out, "nothing is changed\n");
        return EXIT_DONE;
    }
    const MemGuard<DeviceEdit> edits(
        static_cast<DeviceEdit*>(malloc(edited.count * sizeof(DeviceEdit))));
    if (!edits)
        return complain_errno("edit", ENOMEM);
    for (size_t i = 0; i < edited.count; i++)
        edits.get()[i] = edited.sections[i].edit;
    const ExitStatus status =
        device_file_apply(*args.setup, edits.get(), edited.count, default_wait_s);
    for (size_t i = 0; i < edited.count && status == EXIT_DONE; i++)
        text_print(args.out.out, "%.600s is %s\n", edited.sections[i].identity,
                   edits.get()[i].forget ? "forgotten" : "set");
    return status;
}

// What an editor that found no room leaves.
static bool is_empty(const FileBytes& text)
{
    const char* bytes = text.bytes.get();
    return strspn(bytes, " \t\r\n") == text.size;
}

// Whether it is what somebody wrote.
static bool is_written(const Draft& draft)
{
    const FileBytes& after = draft.after;
    return !is_empty(after) &&
           (after.size != draft.before.size ||
            memcmp(after.bytes.get(), draft.before.bytes.get(), after.size) != 0);
}

// One round of editor and check. Returns an exit status, or -1 to edit again.
static int edit_once(const CallArgs& args, const View& view, Draft* draft)
{
    const int ended = run_editor(draft->path);
    int result = file_read_all(draft->path, 0, FILE_ANY_SIZE, &draft->after);
    draft->wanted = result != 0 ? access(draft->path, F_OK) == 0 : is_written(*draft);
    if (ended != 0) {
        complain("the editor failed, nothing is changed");
        return EXIT_FAILED;
    }
    if (result != 0)
        return complain_errno(draft->path, result);
    if (is_empty(draft->after)) {
        complain("the text came back empty, nothing is changed");
        return EXIT_FAILED;
    }
    if (interrupt_waits())
        return EXIT_FAILED; // by the end of the session, say
    EditedText edited;
    result = edited_read(view, draft->before, draft->after, &edited);
    int status = EXIT_FAILED;
    if (result != 0)
        status = complain_errno("edit", result);
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
        return complain_errno(draft.path, made);
    }
    interrupt_hold();
    int status = -1;
    while (status == -1)
        status = edit_once(args, view, &draft);
    if (status == EXIT_DONE || (!draft.wanted && !interrupt_waits()))
        (void)sys_unlink(draft.path);
    else
        complain("what you wrote is in %s", draft.path);
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
