// Tells the administrator's mistakes, which the service passes over without a word.
#pragma once

#include <stddef.h>

// Each mistake in the service's configuration is a line with its number in the file and the nearest
// right word.
void mistakes_tell_config(const char* path);

// The same for the settings of devices. A user's name in the place of an id leaves the list empty,
// and everybody may write then: told with the number to write.
void mistakes_tell_settings(const char* path, const char* text, size_t size);
void mistakes_tell_settings_file(const char* path); // nothing of one that cannot be read

// Warns where the kernel lets root follow what others lay in /tmp.
void mistakes_tell_kernel();
