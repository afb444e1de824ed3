// bare_mount NODE DIRECTORY TYPE
//
// The least that mounting takes: one mount(2), timed, and one umount(2), not timed. Prints the
// nanoseconds.
#include <stdio.h>
#include <sys/mount.h>
#include <time.h>

static long long now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

int main(int argc, char* argv[])
{
    if (argc != 4) {
        fprintf(stderr, "usage: bare_mount NODE DIRECTORY TYPE\n");
        return 2;
    }
    const long long began = now_ns();
    if (mount(argv[1], argv[2], argv[3], MS_NODEV, "user_xattr") != 0) {
        perror("mount");
        return 1;
    }
    printf("%lld\n", now_ns() - began);
    if (umount(argv[2]) != 0) {
        perror("umount");
        return 1;
    }
    return 0;
}
