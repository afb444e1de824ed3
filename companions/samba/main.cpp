// vynas-samba: makes Samba the file-sharing service of the hotplug service.
#include "samba/samba_server.h"
#include "share/share_program.h"

int main(int argc, char* argv[])
{
    return share_program(argc, argv, &samba_server);
}
