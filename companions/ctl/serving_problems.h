// Problems of serving: of the bridge, of the file server that it tells of the shares, and of the
// network that is to find it.
#pragma once

#include "ctl/problem_look.h"

void look_at_bridge(ProblemLook* look);
void look_at_versions(ProblemLook* look); // of this program and those around it
void look_at_file_server(ProblemLook* look);
void look_at_server_users(ProblemLook* look); // whether it has any
void look_at_discovery(ProblemLook* look);    // says nothing where nothing is served
