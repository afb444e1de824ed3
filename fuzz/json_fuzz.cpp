// JSON that other programs print, against an independent reading; and what it tells of a server's
// clients.
//
// Input: the text.
#include "ctl/json_read.h"
#include "ctl/samba.h"
#include "support/check.h"
#include "support/input.h"

#include <string.h>

#include <algorithm>
#include <memory>
#include <set>

namespace {

// The second reading, from the outside in: what stands in an object or array is read by a call of
// its own. Each value is told with its keys.
class Reading {
  public:
    explicit Reading(std::string_view text) : rest_(text) {}

    bool whole()
    {
        if (!value())
            return false;
        skip_blanks();
        return rest_.empty();
    }

    std::vector<std::string> told;
    std::set<std::string> values;

  private:
    void skip_blanks()
    {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
    }

    bool next_is(char c)
    {
        skip_blanks();
        return !rest_.empty() && rest_[0] == c;
    }

    bool take(char c)
    {
        if (!next_is(c))
            return false;
        rest_.remove_prefix(1);
        return true;
    }

    bool escape(std::string* text);
    bool quoted(std::string* text, size_t size);
    bool word(std::string* text);
    bool plain();
    bool several(char closing);
    bool value();

    std::string_view rest_;
    std::vector<std::string> keys_;
};

} // namespace

// What stands behind a backslash.
bool Reading::escape(std::string* text)
{
    static const std::string_view letters = "\"\\/bfnrt";
    static const std::string_view meant = "\"\\/\b\f\n\r\t";
    if (rest_.empty())
        return false;
    const size_t at = letters.find(rest_[0]);
    if (at != std::string_view::npos) {
        *text += meant[at];
        rest_.remove_prefix(1);
        return true;
    }
    const std::string_view digits = rest_.substr(1, 4);
    if (rest_[0] != 'u' || digits.size() < 4 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos)
        return false;
    const int code = std::stoi(std::string(digits), nullptr, 16);
    *text += code >= 1 && code <= 0x7f ? static_cast<char>(code) : '?';
    rest_.remove_prefix(5);
    return true;
}

bool Reading::quoted(std::string* text, size_t size)
{
    text->clear();
    if (!take('"'))
        return false;
    while (!rest_.empty() && rest_[0] != '"') {
        const char c = rest_[0];
        rest_.remove_prefix(1);
        if (c == '\0' || (c == '\\' && !escape(text)))
            return false;
        if (c != '\\')
            *text += c;
    }
    *text = text->substr(0, size - 1);
    return take('"');
}

bool Reading::word(std::string* text)
{
    const size_t end =
        std::min(rest_.find_first_of(std::string_view(",]} \t\r\n\0", 8)), rest_.size());
    *text = rest_.substr(0, std::min(end, json_value_size - 1));
    rest_.remove_prefix(end);
    return end > 0;
}

bool Reading::plain()
{
    std::string text;
    if (!(next_is('"') ? quoted(&text, json_value_size) : word(&text)))
        return false;
    std::string line;
    for (const std::string& key : keys_)
        line += key + ".";
    told.push_back(line + "=" + text);
    values.insert(text);
    return true;
}

// What stands between two brackets or braces, the first of which is taken.
bool Reading::several(char closing)
{
    if (take(closing))
        return true;
    do {
        if (closing == '}' && (!quoted(&keys_.back(), json_key_size) || !take(':')))
            return false;
        if (!value())
            return false;
    } while (take(','));
    return take(closing);
}

bool Reading::value()
{
    skip_blanks();
    const bool object = next_is('{');
    if (!object && !next_is('['))
        return plain();
    if (keys_.size() == json_depth)
        return false;
    rest_.remove_prefix(1);
    keys_.emplace_back();
    const bool read = several(object ? '}' : ']');
    keys_.pop_back();
    return read;
}

// ---- against the product's reading ----

static void tell(void* context, const JsonPath& path, const char* value)
{
    std::string line;
    for (size_t i = 0; i < path.count; i++)
        line += std::string(path.keys[i]) + ".";
    static_cast<std::vector<std::string>*>(context)->push_back(line + "=" + value);
}

// Clients are told of as the text names them, at most the bytes that there is room for.
static void check_clients(const char* text, size_t size, const std::set<std::string>& values)
{
    Holder holders[2] = {};
    for (Holder& holder : holders) {
        holder.pid = &holder == holders ? 67 : 68;
        strcpy(holder.command, "smbd");
    }
    strcpy(holders[1].command, "other");
    HolderTable table = {.holders = holders, .count = 2};
    samba_read_clients(text, size, &table);
    for (const char* client : {holders[0].client_user, holders[0].client_machine}) {
        const size_t length = strlen(client);
        check(length < holder_client_size, "a client's name is ended");
        const bool known =
            std::any_of(values.begin(), values.end(), [client, length](const std::string& value) {
                return value.compare(0, length, client) == 0 &&
                       (value.size() == length || length + 1 == holder_client_size);
            });
        check(known || length == 0, "a client's name stands in the text");
    }
    check_same(holders[1].client_user, "", "another program serves nobody");
}

void fuzz(Input& input)
{
    const std::string text = input.rest();
    const std::unique_ptr<char[]> exact(new char[text.size()]); // no byte longer
    std::copy(text.begin(), text.end(), exact.get());
    std::vector<std::string> told;
    const bool whole = json_read(exact.get(), text.size(), tell, &told);
    Reading reading(text);
    check_equal(whole ? 1 : 0, reading.whole() ? 1 : 0, "whether it is JSON");
    check_list(told, reading.told, "the values");
    check_clients(exact.get(), text.size(), reading.values);
}
