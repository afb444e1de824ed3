// An input's bytes cut into the pieces that a target works with. The pieces are texts that a person
// can write and read; a seed looks like
//
//     4
//     first line of a file
//     %%
//     another file
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

class Input {
  public:
    Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    // Takes what stands before the next line feed, and that.
    std::string line();

    // Takes a line that is a number, held between two limits; the lower one where it is none.
    int64_t number(int64_t lowest, int64_t highest);

    // Takes what stands before the next line "%%", and that line with the line feed before it.
    std::string field();

    // Takes the fields that are left, at most so many.
    std::vector<std::string> fields(size_t most);

    std::string rest() const { return std::string(rest_); }

  private:
    std::string take_to(std::string_view end);

    std::string_view rest_;
};
