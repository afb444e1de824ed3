#include "core/daemon.h"

#include "config/config_file.h"
#include "config/mount_flags.h"
#include "core/command.h"
#include "core/recieve.h"
#include "core/refresh.h"
#include "device/crtsec.h"
#include "lib/guard.h"
#include "lib/log.h"
#include "lib/platform.h"
#include "lib/sys.h"
#include "lib/trust.h"
#include "lib/vytime.h"
#include "records/volume_label.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr char log_tag[] = "daemon";
static constexpr uint32_t idle_pause_ms = 1200;
static constexpr int idle_passes_per_reap = 300;

namespace {

enum class TableState {
    clean,
    touched, // commands were handled since the last refresh
    due,     // refresh
};

struct RunLoop {
    DaemonCtx* ctx;
    TableState state;
    int dirty; // DIRTY_ADDED, DIRTY_REMOVED
    int idle_passes;
    bool handled; // the previous pass handled a command
};

} // namespace

// ---- start-up ----

static const char* or_empty(const char* text)
{
    return text != nullptr ? text : "";
}

static void report_config(const ConfHotplug* config)
{
    VY_LOG(LOG_INFO, "Type     = %hhd", static_cast<signed char>(config->smbtype));
    VY_LOG(LOG_INFO, "DS/NAS   = %hhd", static_cast<signed char>(config->naswork));
    VY_LOG(LOG_INFO, "SMB Conf = %s", or_empty(config->smbconfigpath));
    VY_LOG(LOG_INFO, "Dev Conf = %s", or_empty(config->deviceconfigpath));
    VY_LOG(LOG_INFO, "MNT Path = %s", or_empty(config->mountpath));
    VY_LOG(LOG_INFO, "DEV Path = %s", or_empty(config->devicepath));
    VY_LOG(LOG_INFO, "UID      = %d", static_cast<int>(config->defaultuid));
    VY_LOG(LOG_INFO, "GID      = %d", static_cast<int>(config->defaultgid));
    VY_LOG(LOG_INFO, "fmask    = %04o", ~config->fileumask & 0777U);
    VY_LOG(LOG_INFO, "dmask    = %04o", ~config->dirumask & 0777U);
    VY_LOG(LOG_INFO, "Mount FS = %s%s%s", config->mountvfat != 0 ? "VFAT," : "",
           config->mountntfs != 0 ? "NTFS," : "", config->mountext != 0 ? "EXT" : "");
    VY_LOG(LOG_INFO, "VFAT opt = %s", or_empty(config->vfatoptions));
    VY_LOG(LOG_INFO, "NTFS opt = %s", or_empty(config->ntfsoptions));
    VY_LOG(LOG_INFO, "EXT opt  = %s", or_empty(config->extfsoptions));
    VY_LOG(LOG_INFO, "FAT Label= %s", config->fatvolumelabel != 0 ? "enable" : "disable");
    if (config->strict != 0)
        VY_LOG(LOG_INFO, "Strict   = enable");
    if (config->adopt != 0)
        VY_LOG(LOG_INFO, "Adopt    = enable");
    for (const MountFlag& row : mount_flags) {
        if ((config->mountflags & row.flag) != 0)
            VY_LOG(LOG_INFO, "MNT Flag = %s", row.word);
    }
}

// Tells of a directory that is missing or none; it may still appear, so start-up goes on.
static void check_directory(const char* checked, const char* named)
{
    struct stat status;
    if (stat(or_empty(checked), &status) != 0)
        VY_LOG(LOG_ERR, "Error - No Such Directory(%s)", or_empty(named));
    else if (!S_ISDIR(status.st_mode))
        VY_LOG(LOG_ERR, "Error - Not Directory(%s)", or_empty(named));
}

// Who asks for strictness must not be asked by somebody else. Returns -1 when the start must end.
static int check_own_file(const DaemonCtx* ctx)
{
    if (!is_strict(ctx))
        return 0;
    const FdGuard fd(trust_open(ctx->confpath));
    if (fd.get() >= 0)
        return 0;
    VY_LOG(LOG_ERR, "Error - %s is not root's alone (err=%d)", ctx->confpath, -fd.get());
    return -1;
}

static int load_config(DaemonCtx* ctx)
{
    VY_LOG(LOG_NOTICE, "Load Config File(%s)", ctx->confpath);
    ctx->config = load_config_hotplug(ctx->confpath);
    if (ctx->config == nullptr)
        return -1;
    const ConfHotplug* config = ctx->config;
    if (check_own_file(ctx) != 0)
        return -1;
    report_config(config);
    check_directory(config->mountpath, config->mountpath);
    // Kept: the device path is named, but it is the mount path that is looked at again.
    check_directory(config->mountpath, config->devicepath);
    conf_dir_set_fat_vlabel(config->fatvolumelabel);
    conf_dir_set_all_vlabels(config->labels);
    return 0;
}

// ---- the loop ----

static void refresh(RunLoop* loop)
{
    if (refresh_tables(loop->ctx, loop->dirty) != 0) {
        loop->state = TableState::due; // it is tried again behind the next pause
        return;
    }
    loop->state = TableState::clean;
    loop->dirty = 0;
    memory_give_back();
}

// Lets a burst of commands end before the files are written for all of them.
static void pause_idle(RunLoop* loop)
{
    (void)vytime_msleep(idle_pause_ms);
    if (loop->state == TableState::touched)
        loop->state = TableState::due;
    if (flag_get(&loop->ctx->refresh) != 0) {
        flag_set(&loop->ctx->refresh, 0);
        refresh(loop);
    } else if (loop->state == TableState::due) {
        refresh(loop);
    }
}

// Collects a hook or driver that outlived its wait.
static void reap_now_and_then(RunLoop* loop)
{
    if (++loop->idle_passes < idle_passes_per_reap)
        return;
    (void)sys_waitpid(-1, nullptr, WNOHANG); // most often there is none
    loop->idle_passes = 0;
}

static void close_and_free(HotplugCmd* cmd)
{
    // A hotplug message's connection was closed on receipt: closed once more here, kept.
    if (cmd->fd != -1)
        close(cmd->fd);
    hotplug_cmd_free(cmd);
}

static void run_pass(RunLoop* loop)
{
    if (!loop->handled)
        pause_idle(loop);
    HotplugCmd* cmd = nullptr;
    loop->handled = crtsec_cmd_dequeue(&cmd) == 0;
    if (!loop->handled) {
        reap_now_and_then(loop);
        return;
    }
    const int result = command_handle(loop->ctx, cmd);
    if (result > 0)
        loop->dirty |= result;
    close_and_free(cmd);
    loop->state = TableState::touched;
}

// The first refresh, one pause after the start, drops the device records of what was unplugged.
static void run_loop(DaemonCtx* ctx)
{
    RunLoop loop = {.ctx = ctx,
                    .state = TableState::due,
                    .dirty = DIRTY_REMOVED,
                    .idle_passes = 0,
                    .handled = false};
    while (flag_get(&ctx->running) != 0)
        run_pass(&loop);
}

// ---- teardown ----

// Drops what is still queued, so that waiting clients see their connection close, and forgets the
// busy entries; their filesystems stay mounted.
static void empty_lists()
{
    HotplugCmd* cmd = nullptr;
    while (crtsec_cmd_dequeue(&cmd) == 0)
        close_and_free(cmd);
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        crtsec_blk_drop(&walk);
        mount_entry_free(entry);
    }
}

// Runs the loop between the start and the end of the receive thread.
static int run_with_receiver(DaemonCtx* ctx)
{
    ReceiveArg receiver = {
        .running = &ctx->running, .status = 0, .thread = {}, .strict = ctx->config->strict};
    if (recieve_run(&receiver) != 0)
        return -1;
    run_loop(ctx);
    flag_set(&ctx->running, 0);
    (void)pthread_join(receiver.thread, nullptr);
    return 0;
}

int daemon_run(DaemonCtx* ctx)
{
    memory_share_heap();
    if (crtsec_init() != 0) {
        flag_set(&ctx->running, 0);
        return -1;
    }
    const int result = load_config(ctx) == 0 ? run_with_receiver(ctx) : -1;
    flag_set(&ctx->running, 0);
    free_config_hotplug(ctx->config);
    ctx->config = nullptr;
    empty_lists();
    crtsec_term();
    return result;
}
