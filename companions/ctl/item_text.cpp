#include "ctl/item_text.h"

const ItemTextRow item_text_rows[ITEM_TEXTS] = {
    {"partition", "name"},      {"identity", "identity"},
    {"state", "state"},         {"why", "reason"},
    {"share's name", "share"},  {"label", "label"},
    {"directory", "directory"}, {"filesystem", "filesystem"},
    {"vendor", "vendor"},       {"product", "product"},
    {"serial", "serial"},       {"kernel's name", "kernel_name"},
    {"UUID", "uuid"},           {"node", "node"},
    {"mounted", "mounted_as"},  {"mount flags", "mount_flags"},
};

static constexpr const char* state_names[ITEM_STATES] = {
    "shared",  "mounted",   "busy", "unmounted", "not_mounted",
    "waiting", "directory", "gone", "absent",
};

const char* item_either(const char* a, const char* b)
{
    if (a != nullptr && a[0] != '\0')
        return a;
    return b != nullptr && b[0] != '\0' ? b : nullptr;
}

static void add_device(const DiskPart& part, ItemTexts* texts)
{
    const char** of = texts->of;
    of[ITEM_TEXT_VENDOR] = item_either(of[ITEM_TEXT_VENDOR], part.vendor);
    of[ITEM_TEXT_PRODUCT] = item_either(of[ITEM_TEXT_PRODUCT], part.product);
    of[ITEM_TEXT_SERIAL] = item_either(of[ITEM_TEXT_SERIAL], part.serial);
    of[ITEM_TEXT_KERNEL_NAME] = part.name;
    if (machine_uuid(part.major, part.minor, texts->uuid))
        of[ITEM_TEXT_UUID] = texts->uuid;
}

static void add_mount(const MountinfoEntry& mount, bool json, ItemTexts* texts)
{
    const char** of = texts->of;
    of[ITEM_TEXT_NODE] = mount.source;
    of[ITEM_TEXT_MOUNTED_AS] = mount.readonly ? "read-only"
                               : json         ? "read-write"
                                              : "read and write";
    of[ITEM_TEXT_MOUNT_FLAGS] = mount.options;
}

void item_texts(const Item& item, bool json, bool device, ItemTexts* texts)
{
    *texts = {};
    const char** of = texts->of;
    of[ITEM_TEXT_NAME] = item_either(item.name, nullptr);
    of[ITEM_TEXT_IDENTITY] = item.identity;
    of[ITEM_TEXT_STATE] = json ? state_names[item.state] : item_state_word(item.state);
    of[ITEM_TEXT_REASON] = item.reason;
    of[ITEM_TEXT_SHARE] = item.share;
    of[ITEM_TEXT_LABEL] = item_label(item);
    of[ITEM_TEXT_DIRECTORY] = item.directory;
    of[ITEM_TEXT_FILESYSTEM] = item_filesystem(item);
    of[ITEM_TEXT_VENDOR] = item.texts[SHARE_VENDOR];
    of[ITEM_TEXT_PRODUCT] = item.texts[SHARE_PRODUCT];
    of[ITEM_TEXT_SERIAL] = item.texts[SHARE_SERIAL];
    if (device && item.part != nullptr)
        add_device(*item.part, texts);
    if (item.mount != nullptr)
        add_mount(*item.mount, json, texts);
}
