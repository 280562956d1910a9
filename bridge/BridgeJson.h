#pragma once

// The bridge's hand-built JSON. Reports are written straight into one string in a fixed key
// order, with no document tree in between.

#include <cstdint>
#include <string>
#include <string_view>

namespace tb {

// Writes s as a JSON string. Bytes that are not valid UTF-8 become U+FFFD one for one, so a
// torrent with a badly encoded file name cannot break the engine's decoder.
void put(std::string &out, std::string_view s);

// An object on the stack: "{" when made, "}" when it goes out of scope.
class Obj
{
public:
    explicit Obj(std::string &out)
        : m_out(out)
    {
        m_out += '{';
    }
    ~Obj() { m_out += '}'; }
    Obj(const Obj &) = delete;
    Obj &operator=(const Obj &) = delete;

    // Writes the separator and the quoted key with its colon; the value follows.
    std::string &key(std::string_view name);
    void i(std::string_view name, int64_t value);
    void d(std::string_view name, double value);
    void b(std::string_view name, bool value);
    void s(std::string_view name, std::string_view value);
    void raw(std::string_view name, std::string_view text);

private:
    std::string &m_out;
    bool m_first = true;
};

// An array on the stack: "[" when made, "]" when it goes out of scope; next() before each item.
class Arr
{
public:
    explicit Arr(std::string &out)
        : m_out(out)
    {
        m_out += '[';
    }
    ~Arr() { m_out += ']'; }
    Arr(const Arr &) = delete;
    Arr &operator=(const Arr &) = delete;

    std::string &next();
    void s(std::string_view value) { put(next(), value); }

private:
    std::string &m_out;
    bool m_first = true;
};

} // namespace tb
