// world [--keep DIR]... [--] COMMAND [ARGUMENT]...
//
// Runs a command in a world of its own: mount, network, pid, ipc and uts namespaces, and a root
// directory on one tmpfs, into which the host's programs are bound. Its /etc/mtab is a regular,
// empty file; /tmp, /run, /var/run and /dev are its own, /sys/block, /root and /home are empty.
// Directories named with --keep are seen under the same path even where the host has them below
// /tmp or the like. Ends with the command's status (128 + the signal's number when one killed it);
// whatever the command left running is killed. Needs root: ends with 77 otherwise.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

static constexpr int exit_unable = 77;
static const std::string root = "/mnt"; // where the new root is built; seen by this process only

[[noreturn]] static void die(const char* what, const std::string& path)
{
    fprintf(stderr, "world: %s %s: %s\n", what, path.c_str(), strerror(errno));
    exit(125);
}

static void make_directory(const std::string& path, mode_t mode = 0755)
{
    for (size_t at = 1; (at = path.find('/', at)) != std::string::npos; at++)
        mkdir(path.substr(0, at).c_str(), 0755);
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
        die("mkdir", path);
    chmod(path.c_str(), mode);
}

static void bind(const std::string& from, const std::string& to)
{
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        die("bind", to);
}

static void copy_file(const std::string& from, const std::string& to)
{
    FILE* in = fopen(from.c_str(), "rb");
    if (in == nullptr)
        return; // not every host has every file
    FILE* out = fopen(to.c_str(), "wb");
    if (out == nullptr)
        die("create", to);
    char block[65536];
    size_t count = 0;
    while ((count = fread(block, 1, sizeof block, in)) > 0)
        fwrite(block, 1, count, out);
    fclose(in);
    fclose(out);
}

static bool is_one_of(const char* name, std::initializer_list<const char*> names)
{
    for (const char* other : names) {
        if (strcmp(name, other) == 0)
            return true;
    }
    return false;
}

// Everything of the host's root directory that the world does not have one of its own of.
static void bind_host()
{
    DIR* host = opendir("/");
    if (host == nullptr)
        die("opendir", "/");
    while (const dirent* entry = readdir(host)) {
        if (is_one_of(entry->d_name, {".", "..", "proc", "sys", "dev", "tmp", "run", "etc", "var",
                                      "mnt", "media", "root", "home", "lost+found"}))
            continue;
        const std::string from = std::string("/") + entry->d_name;
        const std::string to = root + from;
        struct stat status;
        if (lstat(from.c_str(), &status) != 0)
            continue;
        char target[PATH_MAX];
        if (S_ISLNK(status.st_mode)) {
            const ssize_t length = readlink(from.c_str(), target, sizeof target - 1);
            if (length < 0)
                die("readlink", from);
            target[length] = '\0';
            if (symlink(target, to.c_str()) != 0)
                die("symlink", to);
        } else if (S_ISDIR(status.st_mode)) {
            make_directory(to);
            bind(from, to);
        }
    }
    closedir(host);
}

static void make_etc()
{
    make_directory(root + "/etc");
    for (const char* name :
         {"passwd", "group", "nsswitch.conf", "ld.so.cache", "ld.so.conf", "localtime", "hosts",
          "protocols", "services", "mke2fs.conf", "fuse.conf", "login.defs"})
        copy_file(std::string("/etc/") + name, root + "/etc/" + name);
    for (const char* name : {"alternatives", "ld.so.conf.d"}) {
        if (access((std::string("/etc/") + name).c_str(), R_OK) != 0)
            continue;
        make_directory(root + "/etc/" + name);
        bind(std::string("/etc/") + name, root + "/etc/" + name);
    }
    FILE* table = fopen((root + "/etc/mtab").c_str(), "w");
    if (table == nullptr)
        die("create", root + "/etc/mtab");
    fclose(table);
}

static void make_device(const std::string& name, mode_t type, unsigned major, unsigned minor)
{
    const std::string path = root + "/dev/" + name;
    if (mknod(path.c_str(), type | 0666, makedev(major, minor)) != 0)
        die("mknod", path);
    chmod(path.c_str(), 0666);
}

static void make_dev()
{
    make_directory(root + "/dev/shm", 01777);
    make_device("null", S_IFCHR, 1, 3);
    make_device("zero", S_IFCHR, 1, 5);
    make_device("full", S_IFCHR, 1, 7);
    make_device("random", S_IFCHR, 1, 8);
    make_device("urandom", S_IFCHR, 1, 9);
    make_device("tty", S_IFCHR, 5, 0);
    make_device("fuse", S_IFCHR, 10, 229);
    make_device("loop-control", S_IFCHR, 10, 237);
    for (unsigned number = 0; number < 64; number++)
        make_device("loop" + std::to_string(number), S_IFBLK, 7, number);
    if (symlink("/proc/self/fd", (root + "/dev/fd").c_str()) != 0)
        die("symlink", "/dev/fd");
}

static void make_root(const std::vector<std::string>& kept)
{
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("make private", "/");
    // Directories to keep are opened first: the root may be built over one of them.
    std::vector<int> handles;
    for (const std::string& path : kept)
        handles.push_back(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (mount("world", root.c_str(), "tmpfs", 0, "mode=755") != 0)
        die("mount tmpfs", root);
    bind_host();
    make_etc();
    make_dev();
    make_directory(root + "/tmp", 01777);
    make_directory(root + "/run");
    make_directory(root + "/var/run");
    make_directory(root + "/var/tmp", 01777);
    make_directory(root + "/mnt");
    make_directory(root + "/media");
    make_directory(root + "/root"); // empty, and anybody may look for what is kept below
    make_directory(root + "/home");
    make_directory(root + "/proc");
    make_directory(root + "/sys");
    bind("/sys", root + "/sys");
    if (mount("block", (root + "/sys/block").c_str(), "tmpfs", 0, "mode=755") != 0)
        die("mount tmpfs", root + "/sys/block");
    for (size_t i = 0; i < kept.size(); i++) {
        if (handles[i] < 0 || access((root + kept[i]).c_str(), F_OK) == 0)
            continue;
        make_directory(root + kept[i]);
        bind("/proc/self/fd/" + std::to_string(handles[i]), root + kept[i]);
    }
}

static void enter_root(const std::string& directory)
{
    if (chdir(root.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0)
        die("pivot_root", root);
    if (umount2(".", MNT_DETACH) != 0)
        die("detach", "old root");
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0)
        die("mount proc", "/proc");
    if (chdir(directory.c_str()) != 0 && chdir("/") != 0)
        die("chdir", "/");
}

static void raise_loopback()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0)
        die("raise", "lo");
    close(fd);
}

static int exit_code(int status)
{
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// The world's first process: starts the command and reaps whatever is orphaned until it ends.
[[noreturn]] static void run_init(char* command[])
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const pid_t pid = fork();
    if (pid == 0) {
        execvp(command[0], command);
        die("exec", command[0]);
    }
    for (;;) {
        int status = 0;
        if (wait(&status) == pid)
            _exit(exit_code(status));
    }
}

int main(int argc, char* argv[])
{
    std::vector<std::string> kept;
    int at = 1;
    for (; at + 1 < argc && strcmp(argv[at], "--keep") == 0; at += 2)
        kept.push_back(argv[at + 1]);
    if (at < argc && strcmp(argv[at], "--") == 0)
        at++;
    if (at >= argc) {
        fprintf(stderr, "usage: world [--keep DIR]... [--] COMMAND [ARGUMENT]...\n");
        return 125;
    }
    if (getuid() != 0) {
        fprintf(stderr, "world: needs root\n");
        return exit_unable;
    }
    char directory[PATH_MAX];
    if (getcwd(directory, sizeof directory) == nullptr)
        strcpy(directory, "/");
    if (unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0)
        die("unshare", "namespaces");
    make_root(kept);
    raise_loopback();
    setenv("VY_WORLD", "1", 1);
    const pid_t init = fork();
    if (init == 0) {
        enter_root(directory);
        run_init(argv + at);
    }
    int status = 0;
    if (waitpid(init, &status, 0) != init)
        die("wait for", argv[at]);
    return exit_code(status);
}
