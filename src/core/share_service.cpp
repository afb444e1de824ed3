#include "core/share_service.h"

#include "lib/process.h"

#include <signal.h>

static constexpr char pid_file[] = "/var/run/vynas-fssd.pid";

void share_service_reload()
{
    vy_sigsend_pid_file(pid_file, SIGHUP); // nobody to tell is no failure
}
