// The kernel's answers to a request to read a disk's partitions anew, and to one whether a btrfs is
// whole. For executables linked with "-Wl,--wrap=ioctl". Nodes are files in the test's own /dev.
#pragma once

#include <string>
#include <vector>

class FakeMedium {
  public:
    FakeMedium(); // every request succeeds
    ~FakeMedium();

    void add_node(const std::string& disk); // gone with this
    void answer(int error);                 // of every request from now on; 0: success
    int requests() const;                   // up to now, by children too
    void hold(bool on);                     // while on, whoever asks hangs

    void answer_ready(int result);            // to what is asked of a member: 0, 1, a negated errno
    std::vector<std::string> members() const; // that were asked for, through a writable control
};
