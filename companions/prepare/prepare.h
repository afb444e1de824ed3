// Makes the service's surroundings ready, before it starts: directories, links, settings, and a
// machine without what an earlier service left mounted.
#pragma once

// The program. Returns 0; 1 when it could not do what the service cannot work without, or the
// settings could not be saved; 2 for a wrong command line. What went wrong is told on standard
// error and in the system log.
[[nodiscard]] int prepare_main(int argc, char* argv[]);

// Makes everything ready that the configuration asks for. All of it is tried. Returns 0, also when
// something failed without which the service can work; -1 otherwise, and, with nothing done, when
// the configuration cannot be used or a service is running.
[[nodiscard]] int prepare_surroundings(const char* config_path);

// Saves the settings, see settings_save. Returns 0; -1, told.
[[nodiscard]] int prepare_save(const char* config_path);
