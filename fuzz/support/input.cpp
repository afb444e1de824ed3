#include "support/input.h"

#include <stdlib.h>

std::string Input::take_to(std::string_view end)
{
    const size_t at = rest_.find(end);
    const std::string taken(rest_.substr(0, at));
    rest_ = at == std::string_view::npos ? std::string_view() : rest_.substr(at + end.size());
    return taken;
}

std::string Input::line()
{
    return take_to("\n");
}

std::string Input::field()
{
    return take_to("\n%%\n");
}

int64_t Input::number(int64_t lowest, int64_t highest)
{
    const int64_t value = strtoll(line().c_str(), nullptr, 10);
    if (value < lowest)
        return lowest;
    return value > highest ? highest : value;
}

std::vector<std::string> Input::fields(size_t most)
{
    std::vector<std::string> taken;
    while (!rest_.empty() && taken.size() < most)
        taken.push_back(field());
    return taken;
}
