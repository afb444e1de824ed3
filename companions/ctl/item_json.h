// An item as JSON, as docs/json.md describes it.
#pragma once

#include "ctl/json.h"
#include "ctl/view.h"

// The version of what is described there. It changes when a name or a meaning does, not when
// something is added.
constexpr int json_version = 1;

// Begins the one object that a call prints: its name, and the version.
void json_begin(Json* json, const char* call);
void json_end(Json* json);

// Writes an item. `whole`: with all that is known of its device.
void item_json(Json* json, const char* key, const Item& item, bool whole);
