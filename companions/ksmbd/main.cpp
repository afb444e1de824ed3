// vynas-ksmbd: makes ksmbd, the kernel's file server, the file-sharing service of the hotplug
// service.
#include "ksmbd/ksmbd_server.h"
#include "share/share_program.h"

int main(int argc, char* argv[])
{
    return share_program(argc, argv, &ksmbd_server);
}
