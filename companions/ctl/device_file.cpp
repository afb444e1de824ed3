#include "ctl/device_file.h"

#include "common/clock.h"
#include "common/settings_check.h"
#include "ctl/progress.h"
#include "ctl/service.h"
#include "ctl/settings.h"
#include "lib/sys.h"
#include "lib/vytime.h"
#include "records/conf_dev_file.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <string.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>

static constexpr char lock_path[] = "/var/run/vyhotplugctl.lock";
static constexpr mode_t file_mode = 0644;
static constexpr int rounds = 20;  // of a write that the service was quicker than
static constexpr int attempts = 8; // of a change that a refresh has overwritten
static constexpr uint32_t look_ms = 100;
static constexpr uint64_t remind_ms = 5000; // a service that was restarted has lost the signal
static constexpr size_t mark_size = 48;

namespace {

// The change under way.
struct Work {
    const Setup* setup;
    const DeviceEdit* edits;
    size_t count;
    char copy[PATH_MAX];      // the file's name beside it
    char mark[mark_size];     // what this program's line says
    ConfDevTableGuard wanted; // what the service will read
    bool written;             // the change has been in the file
};

} // namespace

static int fail(const char* what, int error)
{
    fprintf(stderr, "vyhotplugctl: %s: %s\n", what, strerror(-error));
    return error;
}

// ---- the new text ----

static void hand_on(FileBytes* from, FileBytes* to)
{
    to->bytes.reset(from->bytes.take());
    to->size = from->size;
}

static int edit_section(const Work& work, const DeviceEdit& edit, FileBytes* text)
{
    const SectionChange mark = {.key = settings_mark, .value = work.mark};
    FileBytes made;
    int result = 0;
    if (edit.forget) {
        result = sections_empty(text->bytes.get(), text->size, edit.identity, true, &made);
        if (result == 0)
            hand_on(&made, text);
    }
    if (result == 0)
        result = sections_change(text->bytes.get(), text->size, edit.identity, edit.changes,
                                 edit.count, &made);
    if (result == 0)
        hand_on(&made, text);
    if (result == 0)
        result = sections_change(text->bytes.get(), text->size, edit.identity, &mark, 1, &made);
    if (result == 0)
        hand_on(&made, text);
    return result;
}

// Whether it has been plugged in meanwhile, so that its section is needed.
static bool is_shared(const Setup& setup, const char* identity)
{
    FileBytes shares;
    if (file_read_all(setup.config->smbconfigpath, 0, FILE_ANY_SIZE, &shares) != 0)
        return false;
    static constexpr char key[] = "\nIdentifier=";
    for (const char* at = shares.bytes.get(); (at = strstr(at, key)) != nullptr;) {
        at += sizeof key - 1;
        const size_t length = strcspn(at, "\n");
        if (length == strlen(identity) && strncmp(at, identity, length) == 0)
            return true;
    }
    return false;
}

// Drops sections that have no settings any more.
static int drop_section(const Work& work, const DeviceEdit& edit, FileBytes* text)
{
    FileBytes made;
    if (!edit.dropped || is_shared(*work.setup, edit.identity))
        return 0;
    const int result = sections_empty(text->bytes.get(), text->size, edit.identity, false, &made);
    if (result == 0)
        hand_on(&made, text);
    return result;
}

using EditStep = int (*)(const Work&, const DeviceEdit&, FileBytes*);

// ---- writing ----

static int copy_text(const FileBytes& from, FileBytes* to)
{
    to->size = from.size;
    to->bytes.reset(static_cast<char*>(malloc(from.size + 1)));
    if (!to->bytes)
        return -ENOMEM;
    memcpy(to->bytes.get(), from.bytes.get(), from.size + 1);
    return 0;
}

static int read_text(const char* path, FileBytes* text)
{
    const int result = file_read_all(path, 0, FILE_ANY_SIZE, text);
    if (result != -ENOENT)
        return result;
    text->size = 0; // no disk was ever plugged
    text->bytes.reset(strdup(""));
    return text->bytes ? 0 : -ENOMEM;
}

static bool is_same(const FileBytes& a, const FileBytes& b)
{
    return a.size == b.size && memcmp(a.bytes.get(), b.bytes.get(), a.size) == 0;
}

// Puts the copy in the file's place, and what was there in the copy's. Returns whether the copy's
// place holds that now; a negated errno. (On an old kernel the file is only looked at once more.)
static int exchange(const Work& work, const FileBytes& expected)
{
    const char* path = work.setup->config->deviceconfigpath;
    int result = access(path, F_OK) == 0 ? sys_exchange(work.copy, path) : -ENOENT;
    if (result == 0)
        return 1;
    if (result != -ENOSYS && result != -EINVAL && result != -ENOENT)
        return result;
    FileBytes now;
    result = read_text(path, &now);
    if (result == 0 && !is_same(now, expected))
        return -EAGAIN;
    return result == 0 ? sys_rename(work.copy, path) : result;
}

// Writes the file with every edit made, on top of whatever it holds at that moment.
static int write_edits(Work* work, EditStep step)
{
    const char* path = work->setup->config->deviceconfigpath;
    FileBytes base;
    int result = read_text(path, &base);
    FileBytes before;            // what is to be found in the file
    work->wanted.reset(nullptr); // one that memory ran out for would be wanted in vain
    for (int round = 0; round < rounds && result == 0; round++) {
        FileBytes text;
        result = copy_text(base, &text);
        for (size_t i = 0; i < work->count && result == 0; i++)
            result = step(*work, work->edits[i], &text);
        if (result == 0)
            result = file_replace(work->copy, text.bytes.get(), text.size, file_mode, 0);
        if (result != 0)
            return result;
        if (!work->wanted) {
            work->wanted.reset(conf_dev_create());
            if (!work->wanted || conf_dev_load(work->copy, work->wanted.get()) != 0)
                return -ENOMEM;
        }
        const FileBytes& expected = round == 0 ? base : before;
        result = exchange(*work, expected);
        if (result != 1 && result != -EAGAIN)
            return result;
        FileBytes found;
        const int read = result == 1 ? file_read_all(work->copy, 0, FILE_ANY_SIZE, &found)
                                     : read_text(path, &found);
        if (read != 0 && result == 1)
            (void)sys_exchange(work->copy,
                               path); // what was there, and nobody has seen, is put back
        if (read != 0)
            return read;
        if (result == 1 && is_same(found, expected))
            return 0;
        // The service has written in between. What it wrote counts, and of what it had before only
        // the sections that it did not know of.
        FileBytes united;
        if (sections_unite(found, base, &united) < 0)
            return -ENOMEM;
        hand_on(&united, &base);
        hand_on(result == 1 ? &text : &found, &before);
        result = 0;
    }
    return result == 0 ? -EBUSY : result;
}

static void block_signals(bool blocked)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    (void)sigprocmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr); // cannot fail so
}

// Writes while no other of these programs does, and has the service read it.
static int write_locked(Work* work, EditStep step)
{
    const FdGuard lock(open(lock_path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (lock.get() < 0)
        return fail(lock_path, -errno);
    while (flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR)
            return fail(lock_path, -errno);
    }
    block_signals(true); // what is begun is ended
    const int result = write_edits(work, step);
    (void)sys_unlink(work->copy); // most often it is not there
    const int told = result == 0 ? service_reload() : 0;
    block_signals(false);
    if (result != 0) {
        return fail(work->written ? "the change may be in the file all the same"
                                  : work->setup->config->deviceconfigpath,
                    result);
    }
    work->written = true;
    // One that has just ended is seen, and told, by who waits for it.
    return told == 0 || told == -ESRCH ? 0 : fail("the change is in the file; the service", told);
}

// ---- what the service holds ----

enum class Held { yes, no, not_written, unknown };

// Whether the section still has a line that the service drops, of this program or another one.
static bool is_marked(const FileBytes& text, const SectionTable& table, const DeviceEdit& edit)
{
    const Section* section = sections_find(&table, text.bytes.get(), edit.identity);
    return section != nullptr && section_has(text.bytes.get(), *section, settings_mark);
}

static const ConfDev* record_of(const ConfDevTable* table, const char* identity)
{
    const vylist* list = table->list;
    for (const vylist_node* node = list->prev; node != vylist_end(list); node = node->prev) {
        const auto* record = static_cast<const ConfDev*>(node->data);
        if (strcasecmp(record->identifier, identity) == 0)
            return record;
    }
    return nullptr;
}

static bool is_equal(const SettingRow& row, const ConfDev& a, const ConfDev& b)
{
    char first[setting_value_size];
    char second[setting_value_size];
    setting_format(row, a, first);
    setting_format(row, b, second);
    return strcmp(first, second) == 0;
}

// Whether what the service has written is what was wanted.
static bool holds(const Work& work, const ConfDevTable* table, const DeviceEdit& edit)
{
    const ConfDev* wanted = record_of(work.wanted.get(), edit.identity);
    const ConfDev* held = record_of(table, edit.identity);
    if (held == nullptr || wanted == nullptr)
        return edit.forget && held == wanted;
    for (size_t i = 0; i < edit.count; i++) {
        const SettingRow* row = setting_find(edit.changes[i].key);
        if (row != nullptr && !is_equal(*row, *wanted, *held))
            return false;
    }
    for (const SettingRow& row : setting_rows) {
        if (edit.forget && !is_equal(row, *wanted, *held))
            return false;
    }
    return true;
}

static Held look_at_file(const Work& work)
{
    const char* path = work.setup->config->deviceconfigpath;
    FileBytes text;
    SectionTableGuard table;
    const int read = file_read_all(path, 0, FILE_ANY_SIZE, &text);
    if (read == -ENOENT)
        return Held::no; // taken away since it was written
    if (read != 0 || sections_cut(text.bytes.get(), text.size, table.out()) != 0)
        return Held::unknown;
    for (size_t i = 0; i < work.count; i++) {
        if (is_marked(text, *table.get(), work.edits[i]))
            return Held::not_written;
    }
    const ConfDevTableGuard records(conf_dev_create());
    if (!records || conf_dev_load(path, records.get()) != 0)
        return Held::unknown;
    for (size_t i = 0; i < work.count; i++) {
        if (!holds(work, records.get(), work.edits[i]))
            return Held::no;
    }
    return Held::yes;
}

// Waits until the service has written what it read.
static Held wait_for_service(const Work& work, uint64_t end)
{
    const uint64_t begin = clock_now();
    uint64_t reminded = begin;
    Progress progress = progress_begin("waiting until the service has taken it");
    Held held = look_at_file(work);
    while (held == Held::not_written && clock_now() < end && service_listens()) {
        (void)vytime_msleep(look_ms);
        const uint64_t now = clock_now();
        progress_tick(&progress, static_cast<int>(now - begin));
        if (now - reminded >= remind_ms) {
            (void)service_reload(); // shows by what it writes
            reminded = now;
        }
        held = look_at_file(work);
    }
    progress_end(&progress);
    return held;
}

static ExitStatus tell_unheld(Held held)
{
    if (!service_listens()) {
        (void)fputs("vyhotplugctl: the service has ended; the change is in the file, and counts "
                    "from its next start\n",
                    stderr);
        return EXIT_NO_SERVICE;
    }
    (void)fputs(held == Held::no
                    ? "vyhotplugctl: the service does not hold the change: others write the "
                      "device file at the same moment\n"
                    : "vyhotplugctl: the change is in the file, but the service has not taken it; "
                      "is /tmp full, or read-only?\n",
                stderr);
    return EXIT_FAILED;
}

static bool any_dropped(const DeviceEdit* edits, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (edits[i].dropped)
            return true;
    }
    return false;
}

ExitStatus device_file_apply(const Setup& setup, const DeviceEdit* edits, size_t count, int limit_s)
{
    if (!service_listens()) {
        (void)fputs("vyhotplugctl: the service is not running, nothing is changed\n", stderr);
        return EXIT_NO_SERVICE;
    }
    Work work = {.setup = &setup,
                 .edits = edits,
                 .count = count,
                 .copy = {},
                 .mark = {},
                 .wanted = ConfDevTableGuard(),
                 .written = false};
    const uint64_t now = clock_now();
    const uint64_t end = now + static_cast<uint64_t>(limit_s) * 1000;
    (void)snprintf(work.copy, sizeof work.copy, "%s.ctl-%ld", setup.config->deviceconfigpath,
                   static_cast<long>(getpid()));
    (void)snprintf(work.mark, sizeof work.mark, "%ld.%" PRIu64, static_cast<long>(getpid()), now);
    Held held = Held::no;
    for (int i = 0; i < attempts && held == Held::no && (i == 0 || clock_now() < end); i++) {
        if (write_locked(&work, edit_section) != 0)
            return EXIT_FAILED;
        held = wait_for_service(work, end);
    }
    if (held != Held::yes)
        return tell_unheld(held);
    // Without settings they are of no use, and a refresh that brings one back does no harm.
    if (any_dropped(edits, count) && write_locked(&work, drop_section) != 0)
        return EXIT_FAILED;
    return EXIT_DONE;
}
