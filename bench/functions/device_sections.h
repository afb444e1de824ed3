// Device files for the benchmarks, as the service writes them.
#pragma once

#include <stddef.h>

#include <string>

// The identity of the nth section.
std::string section_identity(size_t number);

// Writes a device file of so many sections, each with settings of an administrator's. Returns its
// size in bytes; ends the process when it cannot be written.
size_t write_device_file(const std::string& path, size_t sections);

// How many sections make a file of about so many bytes.
size_t sections_for(size_t bytes);
