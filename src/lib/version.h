// The version: of the file VERSION at the top of the project, and of this very build.
#pragma once

extern const char vy_version[]; // "1.0.5.beta2-bk"

// "1.0.5~beta2+20261121120000.g1a2b3c4", see cmake/build-version. For the companions: the service
// prints its version alone.
extern const char vy_build[];
