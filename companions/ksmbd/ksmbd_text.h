// A share in ksmbd's configuration: a section of ksmbd.conf(5). Touches no world.
//
// Every section tells "read only", "guest ok" and "browseable", so that no default of [global]
// applies; what of [global] could widen the rest is not taken over (ksmbd_file.h).
//
//     In the share file                  Written
//     Read Only, or mounted read-only    read only; nobody writes then
//     Sync                               nothing: there is no such setting, and that is noted
//     Guest Access, and not Guest Hide   guest ok
//     Full Access Users                  valid users
//     Read Only Users                    valid users, read list
//     Block Users                        invalid users
//     Administrator absent, ReadOnly     valid users where these are written, and read list
//     Administrator Block                invalid users
//
// Left out, and noted, is a share that is to be hidden from somebody: ksmbd shows a share to all or
// to none. So is one that guests may only read while others write: lists do not concern guests.
#pragma once

#include "share/rights.h"
#include "share/share_name.h"
#include "share/text_buffer.h"

// Adds a share's section. Returns 0 or -ENOMEM; a text that could not grow is marked as failed.
[[nodiscard]] int ksmbd_text_share(TextBuffer* text, const ExportedShare* exported,
                                   const Rights* rights, const RightsSettings* settings,
                                   Notes* notes);

// Returns null for a path that ksmbd.conf can hold exactly; else what it cannot hold.
[[nodiscard]] const char* ksmbd_path_fault(const char* path);

// Whether ksmbd.conf reads this user name as a name, and not as a group or a list.
[[nodiscard]] bool ksmbd_user_fits(const char* name);

// Whether a share's name may hold the character. ksmbd compares names in their normal form, without
// letter case, as Unicode has it in full: the sharp s is two letters there, and a letter may be one
// character or two. Only characters for which that makes no difference stay.
[[nodiscard]] bool ksmbd_character_fits(uint32_t character);
