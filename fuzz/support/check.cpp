#include "support/check.h"

#include "fake/fake_log.h"
#include "support/input.h"
#include "support/memory.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

// Shows a text with what is not printable spelt out.
static void show(const char* title, std::string_view text)
{
    fprintf(stderr, "  %s (%zu bytes): \"", title, text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n')
            fputs("\\n", stderr);
        else if (byte < 0x20 || byte > 0x7E || c == '"' || c == '\\')
            fprintf(stderr, "\\x%02x", byte);
        else
            fputc(c, stderr);
    }
    fputs("\"\n", stderr);
}

[[noreturn]] static void end_process()
{
    fflush(stderr);
    abort();
}

// Called once before the first input. Targets write to fixed paths, which must be a private
// world's.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (getenv("VY_WORLD") != nullptr)
        return 0;
    fprintf(stderr, "run this through fuzz/run\n");
    exit(125);
}

// Whatever a run leaves in memory has the fuzzer look for leaks, which takes longer than any run.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    second_opinion_begins();
    Input input(data, size);
    fuzz(input);
    fake_log_clear();
    second_opinion_ends();
    return 0;
}

void check(bool holds, const char* what)
{
    if (holds)
        return;
    fprintf(stderr, "does not hold: %s\n", what);
    end_process();
}

void check_same(std::string_view got, std::string_view wanted, const char* what)
{
    if (got == wanted)
        return;
    fprintf(stderr, "differs: %s\n", what);
    show("got", got);
    show("wanted", wanted);
    end_process();
}

void check_equal(int64_t got, int64_t wanted, const char* what)
{
    if (got == wanted)
        return;
    fprintf(stderr, "differs: %s: got %lld, wanted %lld\n", what, static_cast<long long>(got),
            static_cast<long long>(wanted));
    end_process();
}

void check_list(const std::vector<std::string>& got, const std::vector<std::string>& wanted,
                const char* what)
{
    if (got == wanted)
        return;
    fprintf(stderr, "differs: %s\n", what);
    for (const std::string& text : got)
        show("got", text);
    for (const std::string& text : wanted)
        show("wanted", text);
    end_process();
}

std::string text_of(const char* text)
{
    return text != nullptr ? text : "(null)";
}

void put_file(const char* path, std::string_view content)
{
    FILE* file = fopen(path, "wb");
    check(file != nullptr, path);
    check(fwrite(content.data(), 1, content.size(), file) == content.size(), path);
    check(fclose(file) == 0, path);
}

std::string get_file(const char* path)
{
    std::string content;
    FILE* file = fopen(path, "rb");
    if (file == nullptr)
        return content;
    char block[4096];
    size_t count = 0;
    while ((count = fread(block, 1, sizeof block, file)) > 0)
        content.append(block, count);
    fclose(file);
    return content;
}

bool is_there(const char* path)
{
    struct stat status;
    return lstat(path, &status) == 0;
}

void make_directory(const char* path)
{
    check(mkdir(path, 0755) == 0 || errno == EEXIST, path);
}

void empty_directory(const char* path)
{
    DIR* directory = opendir(path);
    if (directory == nullptr)
        return;
    while (const dirent* entry = readdir(directory)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
            continue;
        const std::string inside = std::string(path) + "/" + entry->d_name;
        check(unlink(inside.c_str()) == 0 || rmdir(inside.c_str()) == 0, inside.c_str());
    }
    closedir(directory);
}
