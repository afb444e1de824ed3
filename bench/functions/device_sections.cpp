#include "functions/device_sections.h"

#include <stdio.h>
#include <stdlib.h>

static std::string section_text(size_t number)
{
    return "[" + section_identity(number) + "]\nShare Name=Share " + std::to_string(number) +
           "\nComment=Living room\nRead Only=Disable\nGuest Access=Enable\nGuest Hide=Disable\n"
           "Full Access Users=1,2,\nRead Only Users=\nBlock Users=8,\nHide Users=\n";
}

std::string section_identity(size_t number)
{
    char text[64];
    (void)snprintf(text, sizeof text, "1234:00ab:SERIAL%06zu:%zu", number, number % 15 + 1);
    return text;
}

size_t write_device_file(const std::string& path, size_t sections)
{
    FILE* file = fopen(path.c_str(), "w");
    size_t size = 0;
    for (size_t number = 0; file != nullptr && number < sections; number++) {
        const std::string text = section_text(number);
        size += fwrite(text.data(), 1, text.size(), file);
    }
    if (file == nullptr || fclose(file) != 0) {
        perror(path.c_str());
        exit(1);
    }
    return size;
}

size_t sections_for(size_t bytes)
{
    return bytes / section_text(10000).size();
}
