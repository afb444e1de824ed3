#include "ctl/device_file.h"

#include "common/clock.h"
#include "common/settings_check.h"
#include "config/ini.h"
#include "ctl/interrupt.h"
#include "ctl/progress.h"
#include "ctl/service.h"
#include "ctl/settings.h"
#include "ctl/terminal.h"
#include "lib/sys.h"
#include "lib/vytime.h"
#include "records/conf_dev_file.h"

#include <errno.h>
#include <fcntl.h>
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
static constexpr uint32_t lock_look_ms = 20;
static constexpr uint32_t lock_limit_ms =
    90000; // held for some milliseconds; then the other one has been stopped
static constexpr uint32_t remind_ms = 5000; // a service that was restarted has lost the signal
static constexpr size_t mark_size = 48;

namespace {

// The change under way.
struct Work {
    const Setup* setup;
    const DeviceEdit* edits;
    size_t count;
    ConfDevTableGuard wanted; // what the service will read
    FileBytes carried;        // sections that were not in the file for a moment; empty as a rule
    bool written;             // the change has been in the file
    uint32_t begin_ms;        // by clock_ms
    uint32_t limit_ms;
    char mark[mark_size]; // what this program's line says
    char copy[PATH_MAX];  // the file's name beside it
};

struct FileStamp {
    ino_t inode; // 0: of no file
    timespec written;
};

// What is known of the file while it is written.
struct Writing {
    FileBytes base;      // what the edits are made on
    FileBytes expected;  // what is to be found in the file
    FileStamp ours = {}; // of what was put in the file's place
};

} // namespace

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

// Whether somebody has set something there, or is about to.
static bool has_settings(const FileBytes& text, const char* identity)
{
    IniDocGuard doc;
    IniSectionGuard section;
    if (ini_doc_parse(text.bytes.get(), text.size, doc.out()) != 0 ||
        ini_section_open(doc.get(), identity, section.out()) != 0)
        return true; // or memory has run out
    IniValueGuard mark;
    int result = ini_section_get_string(section.get(), settings_mark, mark.out(), INI_LAST);
    bool any = result == 0 || result == -ENOMEM;
    for (const SettingRow& row : setting_rows) {
        IniValueGuard value;
        result = ini_section_get_string(section.get(), row.key, value.out(), INI_LAST);
        any |= result == -ENOMEM ||
               (value && value.get()[0] != '\0' && strcasecmp(value.get(), "Disable") != 0);
    }
    return any;
}

// Drops sections that have no settings any more.
static int drop_section(const Work& work, const DeviceEdit& edit, FileBytes* text)
{
    FileBytes made;
    if (!edit.dropped || is_shared(*work.setup, edit.identity) ||
        has_settings(*text, edit.identity))
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

// Puts the copy where no file was seen. (Where there are no links, one that came since is
// replaced.)
static int put_first(const Work& work)
{
    const char* path = work.setup->config->deviceconfigpath;
    const int result = sys_link(work.copy, path);
    if (result == -EEXIST)
        return -EAGAIN;
    return result == 0 ? 0 : sys_rename(work.copy, path);
}

// Puts the copy in the file's place, and what was there in the copy's. Returns whether the copy's
// place holds that now; a negated errno. (On an old kernel the file is only looked at once more.)
static int exchange(const Work& work, const FileBytes& expected)
{
    const char* path = work.setup->config->deviceconfigpath;
    if (access(path, F_OK) != 0)
        return put_first(work);
    int result = sys_exchange(work.copy, path);
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

// What tells one file from another that was in its place.
static FileStamp stamp_of(const char* path)
{
    struct stat status = {};
    (void)stat(path, &status); // that of no file is all zero
    return {.inode = status.st_ino, .written = status.st_mtim};
}

static bool is_same(const FileStamp& a, const FileStamp& b)
{
    return a.inode == b.inode && a.written.tv_sec == b.written.tv_sec &&
           a.written.tv_nsec == b.written.tv_nsec;
}

// Puts back what was taken out of the file's place and is not in what was put there, where the copy
// is now. Needs neither memory nor room. What the service writes meanwhile is newer, and goes back
// in its turn.
static int put_back(const Work& work, FileStamp ours)
{
    for (int round = 0; round < rounds; round++) {
        const FileStamp next = stamp_of(work.copy);
        const int result = sys_exchange(work.copy, work.setup->config->deviceconfigpath);
        if (result != 0 || is_same(stamp_of(work.copy), ours))
            return result;
        ours = next;
    }
    return -EBUSY;
}

// ---- a round ----

// Makes the new text, and the copy of it.
static int make_copy(Work* work, EditStep step, const FileBytes& base, FileBytes* text)
{
    int result = copy_text(base, text);
    for (size_t i = 0; i < work->count && result == 0; i++)
        result = step(*work, work->edits[i], text);
    if (result == 0)
        result = file_replace(work->copy, text->bytes.get(), text->size, file_mode, 0);
    if (result != 0 || work->wanted)
        return result;
    work->wanted.reset(conf_dev_create());
    return work->wanted && conf_dev_load(work->copy, work->wanted.get()) == 0 ? 0 : -ENOMEM;
}

// Notes the sections of what was found that are missing in the text which took its place for a
// moment: a refresh that has read that text will not write them.
static int carry(Work* work, const FileBytes& text, const FileBytes& found)
{
    FileBytes both;
    FileBytes all;
    const int added = sections_unite(text, found, &both);
    if (added <= 0)
        return added;
    both.size -= text.size;
    memmove(both.bytes.get(), both.bytes.get() + text.size, both.size + 1);
    const int result = sections_unite(both, work->carried, &all);
    if (result >= 0)
        hand_on(&all, &work->carried);
    return result;
}

// Writes the file once. Returns 0 when nobody else has written meanwhile; -EAGAIN when the edits
// are to be made again, on top of what somebody wrote; another negated errno.
static int write_round(Work* work, EditStep step, Writing* writing)
{
    FileBytes text;
    FileBytes found;
    FileBytes united;
    int result = make_copy(work, step, writing->base, &text);
    if (result != 0)
        return result;
    const FileStamp ours = stamp_of(work->copy);
    const int exchanged = exchange(*work, writing->expected);
    if (exchanged != 1 && exchanged != -EAGAIN)
        return exchanged;
    const FileStamp before = writing->ours;
    if (exchanged == 1)
        writing->ours = ours;
    result = exchanged == 1 ? file_read_all(work->copy, 0, FILE_ANY_SIZE, &found)
                            : read_text(work->setup->config->deviceconfigpath, &found);
    if (result != 0 && exchanged == 1 && before.inode != 0 && is_same(stamp_of(work->copy), before))
        return 0; // it is this program's own text, and lacks what others wrote before it was there
    if (result != 0 || (exchanged == 1 && is_same(found, writing->expected)))
        return result;
    // The service has written in between. What it wrote counts, and of what it had before only the
    // sections that it did not know of.
    if (carry(work, text, found) < 0 || sections_unite(found, writing->base, &united) < 0)
        return -ENOMEM;
    hand_on(&united, &writing->base);
    hand_on(exchanged == 1 ? &text : &found, &writing->expected);
    return -EAGAIN;
}

// Writes the file with every edit made, on top of whatever it holds at that moment. When that
// fails, what others wrote is in the file, or else, and told, in the copy.
static int write_edits(Work* work, EditStep step)
{
    Writing writing;
    int result = read_text(work->setup->config->deviceconfigpath, &writing.expected);
    if (result == 0 && sections_unite(writing.expected, work->carried, &writing.base) < 0)
        result = -ENOMEM;
    work->wanted.reset(nullptr); // one that memory ran out for would be wanted in vain
    if (result == 0)
        result = -EAGAIN;
    for (int round = 0; round < rounds && result == -EAGAIN; round++)
        result = write_round(work, step, &writing);
    if (result == -EAGAIN)
        result = -EBUSY;
    if (result == 0 || writing.ours.inode == 0 || put_back(*work, writing.ours) == 0) {
        (void)sys_unlink(work->copy); // most often it is not there
        return result;
    }
    complain("what others wrote meanwhile is in %s, and not in the file", work->copy);
    return result;
}

// Returns which were blocked before.
static sigset_t block_signals()
{
    static constexpr int numbers[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP};
    sigset_t set;
    sigset_t before;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    (void)sigprocmask(SIG_BLOCK, &set, &before); // cannot fail so
    return before;
}

// Waits until no other of these programs writes. Returns 0; another number, told.
static int take_lock(const Work& work, FdGuard* lock)
{
    lock->reset(open(lock_path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const uint32_t begin = clock_ms();
    int result = lock->get() < 0 ? -errno : -EWOULDBLOCK;
    while (result == -EWOULDBLOCK && clock_ms() - begin < lock_limit_ms && !interrupt_waits()) {
        result = flock(lock->get(), LOCK_EX | LOCK_NB) == 0 ? 0 : -errno;
        if (result == -EWOULDBLOCK)
            (void)vytime_msleep(lock_look_ms);
    }
    if (result == 0)
        return 0;
    if (result != -EWOULDBLOCK)
        return complain_errno(
            work.written ? "the change may be in the file all the same" : lock_path, result);
    complain("another vyhotplugctl holds %s%s", lock_path,
             interrupt_waits() ? "" : ", and does not go on");
    return result;
}

// Writes while no other of these programs does, and has the service read it.
static int write_locked(Work* work, EditStep step)
{
    FdGuard lock;
    if (take_lock(*work, &lock) != 0)
        return -1;
    const sigset_t before = block_signals(); // what is begun is ended
    const int result = write_edits(work, step);
    const int told = result == 0 ? service_reload() : 0;
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    if (result != 0) {
        return complain_errno(work->written ? "the change may be in the file all the same"
                                            : work->setup->config->deviceconfigpath,
                              result);
    }
    work->written = true;
    // One that has just ended is seen, and told, by who waits for it.
    return told == 0 || told == -ESRCH
               ? 0
               : complain_errno("the change is in the file; the service", told);
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

// Whether what the service has written is what was wanted.
static bool holds(const Work& work, const ConfDevTable* table, const DeviceEdit& edit)
{
    const ConfDev* wanted = record_of(work.wanted.get(), edit.identity);
    const ConfDev* held = record_of(table, edit.identity);
    if (held == nullptr || wanted == nullptr)
        return edit.forget && held == wanted;
    for (size_t i = 0; i < edit.count; i++) {
        const SettingRow* row = setting_find(edit.changes[i].key);
        if (row != nullptr && !setting_is_equal(row, *wanted, *held))
            return false;
    }
    return !edit.forget || setting_is_equal(nullptr, *wanted, *held);
}

// How many of the sections that were out of the file for a moment are not in it; -ENOMEM.
static int count_missing(const Work& work, const FileBytes& text)
{
    FileBytes united;
    return work.carried.size == 0 ? 0 : sections_unite(text, work.carried, &united);
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
    const int missing = count_missing(work, text);
    return missing == 0 ? Held::yes : missing > 0 ? Held::no : Held::unknown;
}

static bool has_time(const Work& work)
{
    return clock_ms() - work.begin_ms < work.limit_ms;
}

// Waits until the service has written what it read.
static Held wait_for_service(const Work& work)
{
    const uint32_t begin = clock_ms();
    uint32_t reminded = begin;
    Progress progress = progress_begin("waiting until the service has taken it");
    Held held = look_at_file(work);
    while (held == Held::not_written && has_time(work) && service_listens() && !interrupt_waits()) {
        (void)vytime_msleep(look_ms);
        const uint32_t now = clock_ms();
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
        complain(
            "the service has ended; the change is in the file, and counts from its next start");
        return EXIT_NO_SERVICE;
    }
    if (held == Held::no) {
        complain("the service does not hold the change: others write the device file at the same "
                 "moment");
    } else if (interrupt_waits()) {
        complain("interrupted; the service has not been seen to take the change");
    } else {
        complain("the change is in the file, but the service has not taken it; is /tmp full, or "
                 "read-only?");
    }
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

// Whether the service is known to run with another configuration, and so to read another device
// file, perhaps; tells it.
static bool is_of_another(const Setup& setup)
{
    char config[PATH_MAX];
    struct stat served;
    struct stat own;
    if (!service_config(config) || stat(config, &served) != 0 ||
        stat(setup.paths.config, &own) != 0 ||
        (served.st_ino == own.st_ino && served.st_dev == own.st_dev))
        return false;
    complain("the service runs with another configuration, nothing is changed; use -f %s", config);
    return true;
}

ExitStatus device_file_apply(const Setup& setup, const DeviceEdit* edits, size_t count, int limit_s)
{
    if (!service_listens()) {
        complain("the service is not running, nothing is changed");
        return EXIT_NO_SERVICE;
    }
    if (is_of_another(setup))
        return EXIT_FAILED;
    Work work = {.setup = &setup,
                 .edits = edits,
                 .count = count,
                 .wanted = ConfDevTableGuard(),
                 .carried = FileBytes(),
                 .written = false,
                 .begin_ms = clock_ms(),
                 .limit_ms = static_cast<uint32_t>(limit_s) * 1000,
                 .mark = {},
                 .copy = {}};
    (void)snprintf(work.copy, sizeof work.copy, "%s.ctl-%d", setup.config->deviceconfigpath,
                   getpid());
    (void)snprintf(work.mark, sizeof work.mark, "%d.%u", getpid(), work.begin_ms);
    Held held = Held::no;
    for (int i = 0; i < attempts && held == Held::no && (i == 0 || has_time(work)); i++) {
        if (write_locked(&work, edit_section) != 0)
            return EXIT_FAILED;
        held = wait_for_service(work);
    }
    if (held != Held::yes)
        return tell_unheld(held);
    // Without settings they are of no use, and a refresh that brings one back does no harm.
    if (any_dropped(edits, count) && write_locked(&work, drop_section) != 0)
        return EXIT_FAILED;
    return EXIT_DONE;
}
