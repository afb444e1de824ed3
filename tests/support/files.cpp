#include "support/files.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

void write_file(const std::string& path, std::string_view content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string read_table(const std::string& path)
{
    std::string table = read_file(path);
    std::replace(table.begin(), table.end(), '\t', ' ');
    return table;
}

bool exists(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

std::string written_by(const std::function<void(FILE*)>& write)
{
    FILE* stream = tmpfile(); // not every C library has streams in memory
    EXPECT_NE(stream, nullptr);
    if (stream == nullptr)
        return "";
    write(stream);
    rewind(stream);
    std::string text;
    for (int byte = fgetc(stream); byte != EOF; byte = fgetc(stream))
        text += static_cast<char>(byte);
    (void)fclose(stream);
    return text;
}

std::set<std::string> names_in(const std::string& directory)
{
    std::set<std::string> names;
    DIR* stream = opendir(directory.c_str());
    EXPECT_NE(stream, nullptr) << directory;
    if (stream == nullptr)
        return names;
    for (const dirent* entry = readdir(stream); entry != nullptr; entry = readdir(stream))
        names.insert(entry->d_name);
    closedir(stream);
    names.erase(".");
    names.erase("..");
    return names;
}

void with_few_descriptors(size_t few, const std::function<void()>& work)
{
    std::vector<int> lowest;
    for (size_t i = 0; i <= few; i++)
        lowest.push_back(dup(STDIN_FILENO));
    for (const int fd : lowest)
        close(fd);
    rlimit before;
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit limit = before;
    limit.rlim_cur = static_cast<rlim_t>(lowest.back());
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    work();
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

void with_input_closed(const std::function<void()>& work)
{
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    work();
    dup2(input, STDIN_FILENO);
    close(input);
}

int open_descriptors()
{
    int count = -1; // the one that counts
    DIR* directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory))
        count += entry->d_name[0] != '.' ? 1 : 0;
    closedir(directory);
    return count;
}
