#include "bridge/BridgeJson.h"

#include <charconv>
#include <cstdio>

namespace tb {

namespace {

// Length of a well-formed UTF-8 sequence at p (of at most n bytes), or 0.
size_t utf8_sequence(const unsigned char *p, size_t n)
{
    const unsigned char c = p[0];
    size_t len = 0;
    uint32_t min = 0;
    uint32_t code = 0;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
        code = c & 0x1F;
        min = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        code = c & 0x0F;
        min = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        code = c & 0x07;
        min = 0x10000;
    } else {
        return 0;
    }
    if (len > n)
        return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((p[k] & 0xC0) != 0x80)
            return 0;
        code = (code << 6) | (p[k] & 0x3F);
    }
    // Overlong forms, surrogates and code points past U+10FFFF are not text a decoder accepts.
    if (code < min || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF)
        return 0;
    return len;
}

} // namespace

void put(std::string &out, std::string_view s)
{
    out += '"';
    const auto *p = reinterpret_cast<const unsigned char *>(s.data());
    const size_t n = s.size();
    for (size_t k = 0; k < n;) {
        const unsigned char c = p[k];
        if (c < 0x80) {
            switch (c) {
            case '\t': out += "\\t"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
            }
            ++k;
            continue;
        }
        const size_t len = utf8_sequence(p + k, n - k);
        if (len == 0) {
            out += "\xEF\xBF\xBD";
            ++k;
        } else {
            out.append(reinterpret_cast<const char *>(p + k), len);
            k += len;
        }
    }
    out += '"';
}

std::string &Obj::key(std::string_view name)
{
    if (!m_first)
        m_out += ',';
    m_first = false;
    put(m_out, name);
    m_out += ':';
    return m_out;
}

void Obj::i(std::string_view name, int64_t value)
{
    key(name) += std::to_string(value);
}

void Obj::d(std::string_view name, double value)
{
    char buf[64];
    // JSON has no NaN or infinity; a rate that comes out of a division by zero reads as 0.
    if (!(value == value) || value > 1e300 || value < -1e300)
        value = 0;
    // "%.6g" without the process locale: a decimal comma would not be JSON.
    const auto result = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::general, 6);
    key(name).append(buf, result.ptr);
}

void Obj::b(std::string_view name, bool value)
{
    key(name) += value ? "true" : "false";
}

void Obj::s(std::string_view name, std::string_view value)
{
    put(key(name), value);
}

void Obj::raw(std::string_view name, std::string_view text)
{
    key(name) += text;
}

std::string &Arr::next()
{
    if (!m_first)
        m_out += ',';
    m_first = false;
    return m_out;
}

} // namespace tb
