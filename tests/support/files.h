// Files and descriptors for tests.
#pragma once

#include <stdio.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>

// Writes a file whole; reads one whole, "" when it is not there.
void write_file(const std::string& path, std::string_view content);
std::string read_file(const std::string& path);

// Reads the mount table, or a copy of it. Fields that a C library sets apart by tabs are by blanks.
std::string read_table(const std::string& path = "/etc/mtab");

bool exists(const std::string& path);

// What lies in a directory, without "." and "..".
std::set<std::string> names_in(const std::string& directory);

// What a function writes to a stream.
std::string written_by(const std::function<void(FILE*)>& write);

// How many descriptors this process holds open.
int open_descriptors();

// Does some work while no more than so many descriptors can be opened besides those that are.
void with_few_descriptors(size_t few, const std::function<void()>& work);

// Does some work with the standard input closed: what is opened first is descriptor 0 then, as for
// a program whose starter has closed it.
void with_input_closed(const std::function<void()>& work);
