// vyhotplugctl: what people and scripts ask and tell the hotplug service.
#include "ctl/program.h"

int main(int argc, char* argv[])
{
    return ctl_main(argc, argv);
}
