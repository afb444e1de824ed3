#include "fake_sysfs.h"

#include "support/files.h"

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

static std::string block(const std::string& path)
{
    return std::string(FakeSysfs::root) + "/block/" + path;
}

static void put(const std::string& directory, Attributes attributes, const Attributes& changes)
{
    fs::create_directories(directory);
    for (const auto& [name, value] : changes)
        attributes[name] = value;
    for (const auto& [name, value] : attributes) {
        if (value != "-")
            write_file(directory + "/" + name, value + "\n");
    }
}

FakeSysfs::FakeSysfs()
{
    fs::create_directories(block(""));
    fs::create_directories(std::string(root) + "/kernel");
    fs::create_directories(std::string(proc) + "/self");
    set_mounts({});
    set_swaps({});
}

FakeSysfs::~FakeSysfs()
{
    fs::remove_all(root);
    fs::remove_all(proc);
}

static void add_disk(const std::string& hardware, const std::string& name,
                     const std::string& numbers, const Attributes& changes)
{
    const std::string disk = hardware + "/block/" + name;
    put(disk,
        {{"dev", numbers}, {"size", "2048"}, {"range", "16"}, {"removable", "1"}, {"ro", "0"}},
        changes);
    fs::create_directories(disk + "/holders");
    fs::create_directory_symlink("../..", disk + "/device");
    fs::create_directory_symlink(disk, block(name));
}

std::string FakeSysfs::usb(const std::string& name) const
{
    return std::string(root) + "/devices/pci0/usb1/1-" + name;
}

std::string FakeSysfs::hardware(const std::string& name) const
{
    return usb(name) + "/1-1:1.0/host0/target0:0:0/0:0:0:0";
}

void FakeSysfs::add_stick(const std::string& name, const std::string& numbers,
                          const Attributes& usb_changes, const Attributes& disk_changes)
{
    put(usb(name),
        {{"idVendor", "1234"},
         {"idProduct", "00ab"},
         {"serial", "ABC"},
         {"manufacturer", "Acme"},
         {"product", "FlashKey"},
         {"speed", "480"}},
        usb_changes);
    put(hardware(name), {{"vendor", "SCSIVEND"}, {"model", "ScsiModel       "}}, {});
    add_disk(hardware(name), name, numbers, disk_changes);
}

void FakeSysfs::add_card(const std::string& name, const std::string& numbers)
{
    const std::string card = std::string(root) + "/devices/mmc_host/mmc0/" + name + ":0001";
    put(card, {{"serial", "0x1f2e3d4c"}, {"name", "SD32G"}}, {});
    add_disk(card, name, numbers, {{"range", "8"}, {"removable", "0"}});
}

void FakeSysfs::add_partition(const std::string& disk, const std::string& name,
                              const std::string& numbers)
{
    put(block(disk + "/" + name), {{"dev", numbers}, {"ro", "0"}}, {});
    fs::create_directories(block(disk + "/" + name + "/holders"));
}

void FakeSysfs::remove_disk(const std::string& name)
{
    const fs::path device = fs::canonical(block(name) + "/device");
    fs::remove(block(name));
    fs::remove_all(device);
}

void FakeSysfs::remove_partition(const std::string& disk, const std::string& name)
{
    fs::remove_all(block(disk + "/" + name));
}

void FakeSysfs::set(const std::string& path, const std::string& value)
{
    write_file(block(path), value + "\n");
}

void FakeSysfs::drop(const std::string& path)
{
    fs::remove(block(path));
}

void FakeSysfs::hold(const std::string& path, const std::string& holder)
{
    fs::create_directories(block(path + "/holders/" + holder));
}

void FakeSysfs::set_event_count(unsigned count)
{
    write_file(std::string(root) + "/kernel/uevent_seqnum", std::to_string(count) + "\n");
}

void FakeSysfs::set_mounts(const std::vector<std::string>& lines)
{
    std::string table = "21 1 0:20 / /proc rw - proc proc rw\n";
    for (const std::string& line : lines) {
        std::istringstream words(line);
        std::string numbers, directory, source;
        std::string type = "ext4", flag = "rw";
        words >> numbers >> directory >> source >> type >> flag;
        table += "30 1 " + numbers + " / " + directory + " " + flag + " shared:1 - " + type + " " +
                 source + " rw\n";
    }
    write_file(std::string(proc) + "/self/mountinfo", table);
}

void FakeSysfs::set_swaps(const std::vector<std::string>& paths)
{
    std::string table = "Filename\t\t\t\tType\t\tSize\tUsed\tPriority\n";
    for (const std::string& path : paths)
        table += path + "                               partition\t1024\t0\t-2\n";
    write_file(std::string(proc) + "/swaps", table);
}
