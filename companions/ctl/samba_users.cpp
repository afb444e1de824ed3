#include "ctl/samba_users.h"

#include "ctl/machine.h"

#include <string.h>

bool samba_users_read(FileBytes* lines)
{
    return machine_ask("pdbedit", "-L", lines);
}

bool samba_users_have(const char* lines, const char* name)
{
    const size_t length = strlen(name);
    for (const char* line = lines; *line != '\0';) {
        if (strncmp(line, name, length) == 0 && line[length] == ':')
            return true;
        line += strcspn(line, "\n");
        line += *line == '\n' ? 1 : 0;
    }
    return false;
}
