// The kernel's answers to a request to read a disk's partitions anew. For executables linked with
// "-Wl,--wrap=ioctl". Nodes are files in the test's own /dev.
#pragma once

#include <string>

class FakeMedium {
  public:
    FakeMedium(); // every request succeeds
    ~FakeMedium();

    void add_node(const std::string& disk); // gone with this
    void answer(int error);                 // of every request from now on; 0: success
    int requests() const;                   // up to now
};
