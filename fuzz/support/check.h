// What every fuzz target has in common: its entry, its checks, and files in its private world.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

class Input;

// A target: runs one input. A check that does not hold ends the process, and the fuzzer keeps the
// input. What it has logged is forgotten behind it.
void fuzz(Input& input);

// End the process with `what` when it does not hold, or when the two differ, which are then shown.
void check(bool holds, const char* what);
void check_same(std::string_view got, std::string_view wanted, const char* what);
void check_equal(int64_t got, int64_t wanted, const char* what);
void check_list(const std::vector<std::string>& got, const std::vector<std::string>& wanted,
                const char* what);

// Where an owned text may be null. Returns "(null)" for null.
std::string text_of(const char* text);

// Write and read files whole. Reading gives "" for one that is not there.
void put_file(const char* path, std::string_view content);
std::string get_file(const char* path);
bool is_there(const char* path);

// Makes a directory where there is none; removes everything inside one.
void make_directory(const char* path);
void empty_directory(const char* path);
