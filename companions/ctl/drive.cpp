#include "ctl/drive.h"

#include "ctl/machine.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <scsi/sg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

static constexpr unsigned stop_limit_ms = 20000;

// ---- the node ----

static bool is_disk(int fd, const DiskPart& disk)
{
    struct stat status;
    return fstat(fd, &status) == 0 && machine_is_node(status, disk.major, disk.minor);
}

// Opens the disk by the kernel's node, or one of its own. Returns owned: a descriptor; a negated
// errno.
static int open_disk(const DiskPart& disk)
{
    char path[64];
    (void)snprintf(path, sizeof path, "/dev/%s", disk.name);
    FdGuard fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() >= 0 && is_disk(fd.get(), disk))
        return fd.take();
    (void)snprintf(path, sizeof path, "/dev/vyhotplugctl-%d", getpid());
    const int made = sys_mknod(path, S_IFBLK | 0600, makedev(disk.major, disk.minor));
    if (made != 0)
        return made;
    fd.reset(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int error = errno;
    (void)sys_unlink(path); // it is open, or not to be had
    return fd.get() >= 0 ? fd.take() : -error;
}

int drive_flush(const DiskPart& disk)
{
    const FdGuard fd(open_disk(disk));
    if (fd.get() < 0)
        return fd.get();
    const int result = sys_fsync(fd.get());
    if (result == 0 && ioctl(fd.get(), BLKFLSBUF, 0) != 0)
        return -errno;
    return result;
}

// ---- switching off ----

// START STOP UNIT with neither bit set. That a stick does not know it is no failure.
static void stop(const DiskPart& disk)
{
    const FdGuard fd(open_disk(disk));
    unsigned char command[] = {0x1b, 0, 0, 0, 0, 0};
    unsigned char sense[32];
    sg_io_hdr header = {};
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_NONE;
    header.cmd_len = sizeof command;
    header.cmdp = command;
    header.mx_sb_len = sizeof sense;
    header.sbp = sense;
    header.timeout = stop_limit_ms;
    if (fd.get() >= 0)
        (void)ioctl(fd.get(), SG_IO, &header);
}

static int tell_kernel(const char* file)
{
    const FdGuard fd(open(file, O_WRONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    return write(fd.get(), "1", 1) == 1 ? 0 : -errno;
}

// Whether another disk hangs on the same USB device: the other slots of a card reader.
static bool is_shared(const char* sysfs, const DiskTable& table, const DiskPart& disk,
                      const char* usb)
{
    char other[PATH_MAX];
    for (size_t i = 0; i < table.count; i++) {
        const DiskPart& part = table.parts[i];
        if (part.partition == 0 && strcmp(part.disk, disk.disk) != 0 &&
            disk_usb_directory(sysfs, part.disk, other) && strcmp(other, usb) == 0)
            return true;
    }
    return false;
}

int drive_switch_off(const char* sysfs, const DiskTable& table, const DiskPart& disk,
                     bool* port_off)
{
    char file[PATH_MAX];
    char usb[PATH_MAX];
    // Looked for first: what the kernel has forgotten leads nowhere.
    const bool on_usb = disk_usb_directory(sysfs, disk.disk, usb);
    const bool alone = on_usb && !is_shared(sysfs, table, disk, usb);
    *port_off = false;
    stop(disk);
    (void)snprintf(file, sizeof file, "%s/block/%s/device/delete", sysfs, disk.disk);
    const int result = tell_kernel(file);
    if (result != 0 || !alone)
        return result;
    (void)snprintf(file, sizeof file, "%s/remove", usb);
    *port_off = tell_kernel(file) == 0; // an old kernel has none, and the disk is gone all the same
    return 0;
}
