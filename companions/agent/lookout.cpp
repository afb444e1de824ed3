#include "agent/lookout.h"

#include "agent/available.h"
#include "agent/btrfs.h"
#include "agent/service_config.h"
#include "common/array.h"
#include "common/mountinfo.h"
#include "common/text.h"
#include "lib/file.h"
#include "lib/log.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr char log_tag[] = "lookout";
static constexpr char kernel_log_path[] = "/dev/kmsg";
static constexpr size_t line_size = 640;         // of the file, with its line feed
static constexpr size_t empty_size = 128;        // of an empty drive's
static constexpr uint64_t container_sectors = 8; // an extended partition shows no more than that

LookState look_next(LookState state, LookEvent event)
{
    static constexpr LookState table[][4] = {
        // time, answer, open, found
        {LOOK_ASKS, LOOK_WAITS, LOOK_WAITS, LOOK_MOUNTED},        // waits
        {LOOK_ASKS, LOOK_TOLD, LOOK_PATIENT, LOOK_MOUNTED},       // asks
        {LOOK_INSISTS, LOOK_PATIENT, LOOK_PATIENT, LOOK_MOUNTED}, // patient
        {LOOK_INSISTS, LOOK_TOLD, LOOK_TOLD, LOOK_MOUNTED},       // insists
        {LOOK_TOLD, LOOK_TOLD, LOOK_TOLD, LOOK_MOUNTED},          // told
        {LOOK_MOUNTED, LOOK_MOUNTED, LOOK_MOUNTED, LOOK_MOUNTED}, // mounted
    };
    return table[state][event];
}

// ---- the list ----

static Look* begin(const Lookout* lookout)
{
    return lookout->looks.get();
}

static Look* end(const Lookout* lookout)
{
    return lookout->looks.get() + lookout->count;
}

static Look* find(const Lookout* lookout, const Look& of)
{
    for (Look* look = begin(lookout); look != end(lookout); look++) {
        if (look->major == of.major && look->minor == of.minor && look->identity == of.identity)
            return look;
    }
    return nullptr;
}

static void take_back(Look* look)
{
    free(look->line);
    look->line = nullptr;
    look->trouble = TROUBLE_NONE;
}

static void add(Lookout* lookout, const Look& look)
{
    Look* held = lookout->looks.take();
    auto* grown = static_cast<Look*>(array_room(held, lookout->count, sizeof *held));
    if (grown == nullptr) { // the next time
        lookout->looks.reset(held);
        return;
    }
    lookout->looks.reset(grown);
    grown[lookout->count++] = look;
}

// Whether it is a disk that has partitions, which is not to be mounted itself.
static bool is_divided(const BlockList& shown, const Device& device)
{
    for (const BlockDevice& other : shown) {
        if (device.name.partition == 0 && other.name.partition > 0 &&
            block_name_same_disk(other.name, device.name))
            return true;
    }
    return false;
}

// Brings the list up to date with what the daemon was told.
static void take_devices(Lookout* lookout, const Announcer& announcer, uint64_t now)
{
    for (Look* look = begin(lookout); look != end(lookout); look++)
        look->present = false;
    for (const Device& device : announcer.devices) {
        if (device.state != DEVICE_TOLD || is_divided(announcer.shown, device))
            continue;
        const Look fresh = {.present = true,
                            .major = device.major,
                            .minor = device.minor,
                            .name = device.name,
                            .identity = device.identity,
                            .since = now,
                            .due = now + agent_first_answer};
        Look* known = find(lookout, fresh);
        if (known != nullptr) {
            known->present = true;
            continue;
        }
        kernel_log_forget(&lookout->kernel, device.name);
        add(lookout, fresh);
    }
    size_t kept = 0;
    for (Look* look = begin(lookout); look != end(lookout); look++) {
        if (look->present)
            begin(lookout)[kept++] = *look;
        else
            free(look->line);
    }
    lookout->count = kept;
}

// ---- words ----

static void tell(Look* look, const Diagnosis& diagnosis)
{
    take_back(look);
    if (diagnosis.trouble == TROUBLE_NONE)
        return;
    char line[line_size];
    const char* command = diagnosis.command;
    (void)snprintf(line, sizeof line, "%s\t%d:%d\t%s\t%s\t%s\t%s", look->name.text, look->major,
                   look->minor, trouble_word(diagnosis.trouble),
                   diagnosis.type[0] != '\0' ? diagnosis.type : "-", diagnosis.words,
                   command[0] != '\0' ? command : "-");
    look->trouble = diagnosis.trouble;
    look->line = strdup(line);
    if (command[0] != '\0')
        VY_LOG(LOG_WARNING, "%s; to check it: %s", diagnosis.words, command);
    else
        VY_LOG(LOG_WARNING, "%s", diagnosis.words);
}

static const BlockDevice* shown_as(const Announcer& announcer, const Look& look)
{
    return block_list_find(announcer.shown, look.name);
}

// The kernel's words on it, since it was announced.
static const char* kernel_words(const Lookout* lookout, const Look& look, const char* type,
                                const char* part)
{
    const char* prefix = diagnosis_kernel_prefix(type);
    if (prefix == nullptr)
        return "";
    const KernelLine* line = kernel_log_find(&lookout->kernel, look.name, prefix, part, look.since);
    return line != nullptr ? line->text : "";
}

// ---- mounts ----

static const MountinfoEntry* find_mount(const Lookout* lookout, const Mountinfo* mounts,
                                        const Look& look)
{
    const char* below = lookout->settings->mounts;
    const MountinfoEntry* found = mountinfo_find_device(mounts, look.major, look.minor, below);
    // Of a filesystem of several devices the kernel tells another number, and one of their names.
    for (size_t i = 0; found == nullptr && i < mounts->count; i++) {
        const MountinfoEntry& mount = mounts->entries[i];
        const char* slash = strrchr(mount.source, '/');
        if (mount.major == 0 && slash != nullptr && strcmp(slash + 1, look.name.text) == 0 &&
            mountinfo_is_below(mount.directory, below))
            found = &mount;
    }
    return found;
}

static void note_mounted(const Lookout* lookout, const Announcer& announcer, Look* look,
                         const MountinfoEntry* mount, uint64_t now)
{
    look->state = look_next(look->state, LOOK_FOUND);
    take_back(look);
    const BlockDevice* device = shown_as(announcer, *look);
    const bool writable = device != nullptr && strcmp(device->readonly, "0") == 0;
    if (mount == nullptr || !mount->readonly || !writable)
        return;
    Diagnosis diagnosis;
    diagnosis_make_readonly(look->name, mount->type, false,
                            kernel_words(lookout, *look, mount->type, ""), &diagnosis);
    look->hibernation = strcmp(diagnosis.type, "ntfs") == 0;
    look->due = now + agent_driver_pause; // the mount is there before its driver answers
    if (!look->hibernation)
        tell(look, diagnosis);
}

static void load_mounts(Lookout* lookout, MountinfoGuard* mounts, uint64_t now)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/self/mountinfo", lookout->settings->proc);
    if (mountinfo_load(path, mounts->out()) != 0)
        retry_later(&lookout->retry, now);
}

static bool any_due(const Lookout* lookout, uint64_t now)
{
    for (const Look* look = begin(lookout); look != end(lookout); look++) {
        if ((look->state == LOOK_WAITS || look->state == LOOK_PATIENT) && now >= look->due)
            return true;
    }
    return false;
}

// What has been mounted meanwhile, and what is to be asked about.
static void look_at_mounts(Lookout* lookout, const Announcer& announcer, uint64_t now)
{
    if ((!lookout->mounts_changed && !any_due(lookout, now)) || now < lookout->retry.due)
        return;
    MountinfoGuard mounts;
    load_mounts(lookout, &mounts, now);
    if (!mounts)
        return;
    bool all_known = true;
    for (Look* look = begin(lookout); look != end(lookout); look++) {
        const MountinfoEntry* mount = find_mount(lookout, mounts.get(), *look);
        const int member =
            mount == nullptr ? btrfs_is_mounted(lookout->settings->sysfs, look->name) : 0;
        all_known = all_known && member >= 0;
        if (member < 0)
            continue;
        const bool is_mounted = mount != nullptr || member > 0;
        if (is_mounted && look->state != LOOK_MOUNTED)
            note_mounted(lookout, announcer, look, mount, now);
        else if (!is_mounted && look->state == LOOK_MOUNTED)
            take_back(look); // it was mounted read-only, and is not any more
        else if ((look->state == LOOK_WAITS || look->state == LOOK_PATIENT) && now >= look->due)
            look->state = look_next(look->state, LOOK_TIME);
    }
    lookout->mounts_changed = !all_known;
    if (all_known)
        lookout->retry = {};
    else
        retry_later(&lookout->retry, now);
}

// ---- blkid ----

static bool finish_range(const Announcer& announcer, Look* look)
{
    const BlockDevice* device = shown_as(announcer, *look);
    Diagnosis diagnosis;
    diagnosis_make_range(look->name, look->major, look->minor,
                         device != nullptr ? device->hardware->range : "", &diagnosis);
    if (diagnosis.trouble == TROUBLE_NONE)
        return false;
    look->state = look_next(look_next(look->state, LOOK_ANSWER), LOOK_ANSWER);
    tell(look, diagnosis);
    return true;
}

// An extended partition, which holds others, shows next to no size.
static bool finish_container(const Lookout* lookout, Look* look)
{
    if (look->name.partition == 0)
        return false;
    const BlockExtent extent = block_extent_read(lookout->settings->sysfs, look->name);
    if (extent.sectors == 0 || extent.sectors > container_sectors)
        return false;
    look->state = look_next(look->state, LOOK_FOUND); // nothing is missing
    return true;
}

// execvp takes strings of a writable type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

static void ask_blkid(Lookout* lookout, const Look& look, uint64_t now)
{
    char node[block_name_size + 8];
    (void)snprintf(node, sizeof node, "/dev/%s", look.name.text);
    // Low-level probing without the cache (-p), and what is read of it alone (-s): the words of a
    // volume can be as long as it likes.
    char* const argv[] = {text("blkid"), text("-p"),    text("-s"), text("TYPE"),
                          text("-s"),    text("USAGE"), text("-s"), text("PTTYPE"),
                          text("-o"),    text("udev"),  node,       nullptr};
    lookout->asked = look;
    tool_start(&lookout->tool, argv, lookout->printed, sizeof lookout->printed, now, agent_reading);
}

// The first bytes of the file in which Windows sleeps.
static void ask_for_hibernation(Lookout* lookout, const Look& look, uint64_t now)
{
    char path[agent_path_size] = "/nowhere";
    MountinfoGuard mounts;
    load_mounts(lookout, &mounts, now);
    const MountinfoEntry* mount = mounts ? find_mount(lookout, mounts.get(), look) : nullptr;
    if (mount != nullptr)
        (void)snprintf(path, sizeof path, "%s/hiberfil.sys", mount->directory);
    char* const argv[] = {text("head"), text("-c"), text("4"), path, nullptr};
    lookout->asked = look;
    tool_start(&lookout->tool, argv, lookout->printed, sizeof lookout->printed, now, agent_reading);
}

static void start_next(Lookout* lookout, const Announcer& announcer, uint64_t now)
{
    if (lookout->tool.state == ToolState::none)
        tool_reap(); // of drives too, whose answers nobody waits for any more
    for (Look* look = begin(lookout); look != end(lookout); look++) {
        if (lookout->tool.state != ToolState::none)
            return; // one at a time, until its answer is taken
        if (look->hibernation && now >= look->due)
            ask_for_hibernation(lookout, *look, now);
        else if ((look->state == LOOK_ASKS || look->state == LOOK_INSISTS) &&
                 !finish_range(announcer, look) && !finish_container(lookout, look))
            ask_blkid(lookout, *look, now);
    }
}

// ---- answers ----

static bool cannot_be_read(const Lookout* lookout, const Look& look)
{
    BlockName disk = look.name;
    disk.text[disk.disk_length] = '\0';
    disk.partition = 0;
    static constexpr char error[] = "I/O error";
    return kernel_log_find(&lookout->kernel, look.name, "", error, look.since) != nullptr ||
           kernel_log_find(&lookout->kernel, disk, "", error, look.since) != nullptr;
}

static Answer answer_of(const Lookout* lookout, const Look& look, const char** failure)
{
    static constexpr int found_nothing = 2; // or could not read
    static constexpr int found_several = 8;
    const Tool& tool = lookout->tool;
    *failure = "blkid failed";
    if (tool.state == ToolState::timed_out)
        return Answer::silent;
    if (tool.state == ToolState::not_started)
        *failure = "blkid cannot be run";
    if (tool.state != ToolState::ended)
        return Answer::unreadable;
    if (tool.status == 0)
        return Answer::had;
    if (tool.status == found_several)
        return Answer::undecided;
    if (tool.status != found_nothing)
        return Answer::unreadable;
    *failure = strerror(EIO);
    return cannot_be_read(lookout, look) ? Answer::unreadable : Answer::nothing;
}

// What the kernel says of a filesystem that could not be mounted; of a btrfs, first, who is
// missing.
static const char* words_on_failure(const Lookout* lookout, const Look& look, const char* type)
{
    const bool several = strcmp(type, "btrfs") == 0;
    const char* missing = several ? kernel_words(lookout, look, type, "is missing") : "";
    return missing[0] != '\0' ? missing : kernel_words(lookout, look, type, "");
}

// Whether it has been announced again for this reason before; from now on it has.
static bool repeats(Lookout* lookout, const Look& look)
{
    for (const uint64_t identity : lookout->again) {
        if (identity == look.identity)
            return true;
    }
    lookout->again[lookout->again_next++ % lookout_again_limit] = look.identity;
    return false;
}

// A btrfs whose other devices are not there: the kernel is told of this one, in the place of the
// node that the service has removed. Once all are known the device is announced again.
static bool complete_btrfs(Lookout* lookout, Announcer* announcer, const Look& look)
{
    if (kernel_words(lookout, look, "btrfs", "is missing")[0] == '\0' ||
        btrfs_register(look.name) != 1 || repeats(lookout, look))
        return false;
    VY_LOG(LOG_NOTICE, "%s is announced again: all devices of its btrfs are there", look.name.text);
    announcer_repeat(announcer, look.major, look.minor);
    return true;
}

static void finish_blkid(Lookout* lookout, Announcer* announcer, Look* look)
{
    Volume volume;
    volume_parse(lookout->printed, &volume);
    const ServiceConfig config(service_config_load(lookout->settings->config));
    Findings findings = {.name = &look->name,
                         .volume = &volume,
                         .failure = "",
                         .config = config.get(),
                         .available =
                             available_filesystems(lookout->settings->proc, modules_directory),
                         .kernel = words_on_failure(lookout, *look, volume.type)};
    findings.answer = answer_of(lookout, *look, &findings.failure);
    if (strcmp(volume.type, "btrfs") == 0 && complete_btrfs(lookout, announcer, *look))
        return;
    Diagnosis diagnosis;
    diagnosis_make(findings, &diagnosis);
    look->state = look_next(look->state, diagnosis.may_change ? LOOK_OPEN : LOOK_ANSWER);
    look->due = look->since + agent_patience;
    if (look->state == LOOK_TOLD)
        tell(look, diagnosis);
}

static void finish_hibernation(const Lookout* lookout, Look* look)
{
    const bool sleeps =
        lookout->tool.state == ToolState::ended &&
        (strcmp(lookout->printed, "hibr") == 0 || strcmp(lookout->printed, "HIBR") == 0);
    Diagnosis diagnosis;
    look->hibernation = false;
    diagnosis_make_readonly(look->name, "ntfs", sleeps, "", &diagnosis);
    tell(look, diagnosis);
}

// Takes what the tool has found, unless the device is another one meanwhile, or is mounted.
static void take_answer(Lookout* lookout, Announcer* announcer, uint64_t now)
{
    Tool* tool = &lookout->tool;
    tool_advance(tool, now);
    if (tool->state == ToolState::running || tool->state == ToolState::none)
        return;
    Look* look = find(lookout, lookout->asked);
    if (look != nullptr && look->hibernation)
        finish_hibernation(lookout, look);
    else if (look != nullptr && (look->state == LOOK_ASKS || look->state == LOOK_INSISTS))
        finish_blkid(lookout, announcer, look);
    tool->state = ToolState::none;
}

// ---- the file ----

namespace {

struct Line {
    BlockName name;
    const char* text;
};

} // namespace

static int compare(const void* a, const void* b)
{
    return block_name_compare(static_cast<const Line*>(a)->name, static_cast<const Line*>(b)->name);
}

// An empty drive, of which the daemon is told nothing.
static bool is_empty_drive(const BlockDevice& device)
{
    return device.empty && device.failure == 0;
}

// How many lines there can be.
static size_t count_lines(const Lookout* lookout, const Announcer& announcer)
{
    size_t count = 0;
    for (const Look* look = begin(lookout); look != end(lookout); look++)
        count += look->line != nullptr ? 1 : 0;
    for (const BlockDevice& device : announcer.shown)
        count += is_empty_drive(device) ? 1 : 0;
    return count;
}

static size_t collect(const Lookout* lookout, Line* lines)
{
    size_t count = 0;
    for (const Look* look = begin(lookout); look != end(lookout); look++) {
        if (look->line != nullptr)
            lines[count++] = {look->name, look->line};
    }
    return count;
}

// Returns owned: the lines one after the other; null when there is no memory.
static char* join(const Line* lines, size_t count)
{
    size_t size = 1;
    for (size_t i = 0; i < count; i++)
        size += strlen(lines[i].text) + 1;
    auto* text = static_cast<char*>(malloc(size));
    if (text == nullptr)
        return nullptr;
    char* end = text;
    *end = '\0';
    for (size_t i = 0; i < count; i++)
        end = str_cpy(str_cpy(end, lines[i].text), "\n");
    return text;
}

// Returns owned: what the file is to hold; null when there is no memory.
static char* make_text(const Lookout* lookout, const Announcer& announcer)
{
    const size_t most = count_lines(lookout, announcer);
    if (most == 0) // as a rule
        return strdup("");
    const MemGuard<Line> lines(static_cast<Line*>(calloc(most, sizeof(Line))));
    const MemGuard<char> empties(static_cast<char*>(malloc(most * empty_size)));
    if (!lines || !empties)
        return nullptr;
    size_t count = collect(lookout, lines.get());
    char* empty = empties.get();
    for (const BlockDevice& device : announcer.shown) {
        if (!is_empty_drive(device))
            continue;
        Diagnosis diagnosis;
        diagnosis_make_empty(device.name, &diagnosis);
        (void)snprintf(empty, empty_size, "%s\t%d:%d\t%s\t-\t%s\t-", device.name.text, device.major,
                       device.minor, trouble_word(diagnosis.trouble), diagnosis.words);
        lines.get()[count++] = {device.name, empty};
        empty += empty_size;
    }
    qsort(lines.get(), count, sizeof(Line), compare);
    return join(lines.get(), count);
}

// Writes the file if it is to be another. What could not be written is tried again later; that
// there is nothing to tell, only when there is.
static void write_file(Lookout* lookout, const Announcer& announcer, uint64_t now)
{
    const char* path = lookout->settings->not_mounted;
    if (path[0] == '\0')
        return;
    MemGuard<char> made(make_text(lookout, announcer));
    if (!made)
        return; // the next time
    const bool same = lookout->written && strcmp(lookout->written.get(), made.get()) == 0;
    if (same && (!lookout->file_failed || now < lookout->file_due))
        return;
    const int result = file_replace(path, made.get(), strlen(made.get()), 0644, 0);
    if (result != 0 && !lookout->file_failed)
        VY_LOG(LOG_WARNING, "%s is not written: %s", path, strerror(-result));
    lookout->file_failed = result != 0;
    lookout->file_due = made.get()[0] != '\0' ? now + agent_file_pause : agent_never;
    lookout->written.reset(made.take());
}

// ---- all of it ----

void lookout_open(Lookout* lookout, const AgentSettings* settings)
{
    char path[agent_path_size];
    lookout->settings = settings;
    (void)snprintf(path, sizeof path, "%s/self/mountinfo", settings->proc);
    lookout->mounts.reset(open(path, O_RDONLY | O_CLOEXEC));
    kernel_log_open(&lookout->kernel, kernel_log_path);
}

void lookout_close(Lookout* lookout)
{
    tool_stop(&lookout->tool);
    for (Look* look = begin(lookout); look != end(lookout); look++)
        free(look->line);
    lookout->count = 0;
    lookout->looks.reset(nullptr);
    if (lookout->written)
        (void)sys_unlink(lookout->settings->not_mounted);
    lookout->written.reset(nullptr);
}

void lookout_mounts_changed(Lookout* lookout)
{
    lookout->mounts_changed = true;
}

void lookout_advance(Lookout* lookout, Announcer* announcer, uint64_t now)
{
    kernel_log_take(&lookout->kernel, now);
    take_devices(lookout, *announcer, now);
    look_at_mounts(lookout, *announcer, now);
    take_answer(lookout, announcer, now);
    start_next(lookout, *announcer, now);
    write_file(lookout, *announcer, now);
}

uint64_t lookout_due(const Lookout* lookout, uint64_t now)
{
    uint64_t due = tool_due(&lookout->tool, now);
    if (lookout->tool.state == ToolState::not_started)
        return now; // which is an answer
    for (const Look* look = begin(lookout); look != end(lookout); look++) {
        const bool waits = look->state == LOOK_WAITS || look->state == LOOK_PATIENT ||
                           (look->hibernation && lookout->tool.state != ToolState::running);
        const uint64_t mine = look->due > lookout->retry.due ? look->due : lookout->retry.due;
        if (waits && mine < due)
            due = mine;
    }
    if (lookout->mounts_changed && lookout->retry.due != 0 && lookout->retry.due < due)
        due = lookout->retry.due;
    if (lookout->file_failed && lookout->file_due < due)
        due = lookout->file_due;
    return due;
}
