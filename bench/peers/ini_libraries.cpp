// The INI libraries beside the service's reader, each used as its documentation proposes.
#include "functions/operations.h"

#include <string.h>

// ---- inih: calls a handler for each entry ----

#if VY_BENCH_INIH
#include <ini.h>

namespace {

struct InihSearch {
    const char* section;
    const char* key;
    size_t found;
};

} // namespace

static int inih_compare(void* user, const char* section, const char* name, const char*)
{
    auto* search = static_cast<InihSearch*>(user);
    if (strcmp(section, search->section) == 0 && strcmp(name, search->key) == 0)
        search->found = 1;
    return 1;
}

static size_t inih_one(const Input& input)
{
    InihSearch search = {input.section.c_str(), input.key.c_str(), 0};
    (void)ini_parse(input.path.c_str(), inih_compare, &search);
    return search.found;
}

static int inih_count(void* user, const char*, const char*, const char*)
{
    ++*static_cast<size_t*>(user);
    return 1;
}

static size_t inih_all(const Input& input)
{
    size_t found = 0;
    (void)ini_parse(input.path.c_str(), inih_count, &found);
    return found;
}
#endif

// ---- iniparser: a dictionary of the whole file ----

#if VY_BENCH_INIPARSER
#include <iniparser/iniparser.h>

static size_t iniparser_one(const Input& input)
{
    dictionary* read = iniparser_load(input.path.c_str());
    if (read == nullptr)
        return 0;
    const std::string name = input.section + ":" + input.key;
    const size_t found = iniparser_getstring(read, name.c_str(), nullptr) != nullptr;
    iniparser_freedict(read);
    return found;
}

static size_t iniparser_all(const Input& input)
{
    dictionary* read = iniparser_load(input.path.c_str());
    if (read == nullptr)
        return 0;
    // It counts a section whose name holds a colon among the keys, so its own walk over sections
    // does not find them: the dictionary is walked instead, and each key looked up.
    size_t found = 0;
    for (int at = 0; at < read->size; at++) {
        const char* key = read->key[at];
        found += key != nullptr && iniparser_getstring(read, key, nullptr) != nullptr;
    }
    iniparser_freedict(read);
    return found;
}
#endif

// ---- GLib: GKeyFile ----

#if VY_BENCH_GLIB
#include <glib.h>

static GKeyFile* glib_load(const Input& input)
{
    GKeyFile* file = g_key_file_new();
    if (g_key_file_load_from_file(file, input.path.c_str(), G_KEY_FILE_NONE, nullptr))
        return file;
    g_key_file_free(file);
    return nullptr;
}

static size_t glib_one(const Input& input)
{
    GKeyFile* file = glib_load(input);
    if (file == nullptr)
        return 0;
    gchar* value = g_key_file_get_value(file, input.section.c_str(), input.key.c_str(), nullptr);
    const size_t found = value != nullptr;
    g_free(value);
    g_key_file_free(file);
    return found;
}

static size_t glib_all(const Input& input)
{
    GKeyFile* file = glib_load(input);
    if (file == nullptr)
        return 0;
    size_t found = 0;
    gchar** groups = g_key_file_get_groups(file, nullptr);
    for (gchar** group = groups; *group != nullptr; group++) {
        gchar** keys = g_key_file_get_keys(file, *group, nullptr, nullptr);
        for (gchar** key = keys; *key != nullptr; key++) {
            gchar* value = g_key_file_get_value(file, *group, *key, nullptr);
            found += value != nullptr;
            g_free(value);
        }
        g_strfreev(keys);
    }
    g_strfreev(groups);
    g_key_file_free(file);
    return found;
}
#endif

void add_ini_library_operations([[maybe_unused]] std::vector<Operation>* operations)
{
#if VY_BENCH_INIH
    operations->push_back({"ini_one", "inih", inih_one});
    operations->push_back({"ini_all", "inih", inih_all});
#endif
#if VY_BENCH_INIPARSER
    operations->push_back({"ini_one", "iniparser", iniparser_one});
    operations->push_back({"ini_all", "iniparser", iniparser_all});
#endif
#if VY_BENCH_GLIB
    operations->push_back({"ini_one", "glib", glib_one});
    operations->push_back({"ini_all", "glib", glib_all});
#endif
}
