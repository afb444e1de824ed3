// Looks for mistakes in the service's configuration file: the service passes over them, or takes
// something else, and says nothing. Bytes in, findings out.
//
// A line without a "=" is an explanation, and so is a key that begins with "#" or ";".
#pragma once

#include "common/finding.h"

// Reports each mistake, in the order of the lines. Returns how many there were.
int config_check(const char* text, size_t size, FindingReport report, void* context);
