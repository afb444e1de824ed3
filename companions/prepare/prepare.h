// Prepares what the service needs before it starts: directories, links and settings. Unmounts what
// an earlier service left mounted.
#pragma once

// The program. Returns 0; 1 when something failed that the service cannot work without, the
// settings could not be saved, or nobody takes what it prints; 2 for a wrong command line. Errors
// go to standard error and the system log.
[[nodiscard]] int prepare_main(int argc, char* argv[]);

// Prepares everything that the configuration asks for; a failure does not end it. Returns 0, also
// when something failed that the service can do without; -1 otherwise. Also -1, with nothing done,
// when the configuration cannot be used or a service is running.
[[nodiscard]] int prepare_surroundings(const char* config_path);

// Saves the settings, see settings_save. Returns 0; -1, told.
[[nodiscard]] int prepare_save(const char* config_path);
