// The functions that are measured: the service's own and those of the libraries beside them, one
// row each, all of them doing the same work on the same input.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

struct Input {
    std::string path;    // an INI-style file
    std::string text;    // a control message
    std::string section; // the one that is asked for
    std::string key;
    size_t size; // bytes of the file or the text
};

struct Operation {
    const char* group; // "ini_one", "ini_all", "options"
    const char* who;   // "vyhotplugd", "inih", ...
    // Returns how much was found; within a group everybody finds the same.
    size_t (*run)(const Input& input);
};

std::vector<Operation> all_operations();

// Their parts: the service's, and the peers' as far as they were there when this was built.
void add_service_operations(std::vector<Operation>* operations);
void add_ini_library_operations(std::vector<Operation>* operations);
void add_splitter_operations(std::vector<Operation>* operations);

// Inputs by name: "small" (8 device sections), "big" (10 MB of them), "message". The files are made
// below /tmp. Ends the process when one cannot be made or the name is none.
Input make_input(const std::string& name);
