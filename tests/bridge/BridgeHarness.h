#pragma once

// Helpers for driving a real bridge session from a test, and a reader that keeps the key order
// of the hand-built JSON, which QJsonObject sorts away.

#include "bridge/tb_bridge.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace bridgetest {

// Copies a bridge string and releases it; null reads as "".
inline std::string take(char *text)
{
    std::string copy = text ? text : "";
    tb_free(text);
    return copy;
}

// A session on a state directory; destroyed with the object unless close() came first.
class BridgeSession
{
public:
    // Waits until the saved torrents are back unless told not to.
    BridgeSession(const std::string &dir, const std::string &settings, bool waitForRestore = true)
        : m_session(tb_session_create(dir.c_str(), settings.c_str()))
    {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (waitForRestore && tb_session_restoring(m_session) && std::chrono::steady_clock::now() < giveUp)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~BridgeSession() { close(); }
    BridgeSession(const BridgeSession &) = delete;
    BridgeSession &operator=(const BridgeSession &) = delete;

    tb_session *get() const { return m_session; }
    void close()
    {
        tb_session_destroy(m_session);
        m_session = nullptr;
    }

private:
    tb_session *m_session = nullptr;
};

inline QJsonDocument parse(const std::string &text)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString() << " in " << text;
    return doc;
}

// Parses a bridge string and releases it.
inline QJsonDocument parse(char *text)
{
    return parse(take(text));
}

inline QJsonObject statusJson(tb_session *session)
{
    return parse(tb_status_json(session)).object();
}

// The status object of one torrent; empty when the report doesn't list it.
inline QJsonObject torrentStatus(tb_session *session, const std::string &id)
{
    for (const QJsonValue &t : statusJson(session).value("torrents").toArray()) {
        if (t.toObject().value("id").toString().toStdString() == id)
            return t.toObject();
    }
    return {};
}

inline std::string str(const QJsonObject &o, const char *key)
{
    return o.value(key).toString().toStdString();
}

// The items of a JSON object or array in written order, as raw text: for an object each key
// with its value, for an array an empty key with each element. Assumes the bridge's own
// output: well-formed and without blanks between tokens.
inline std::vector<std::pair<std::string, std::string>> rawItems(std::string_view text)
{
    std::vector<std::pair<std::string, std::string>> items;
    if (text.empty() || (text.front() != '{' && text.front() != '['))
        return items;
    const bool object = text.front() == '{';
    int depth = 0;
    bool inString = false;
    size_t start = 1;
    for (size_t pos = 0; pos < text.size() && depth >= 0; ++pos) {
        const char c = text[pos];
        if (inString) {
            pos += c == '\\' ? 1 : 0;
            inString = c != '"';
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            ++depth;
        } else if ((c == ',' && depth == 1) || ((c == '}' || c == ']') && --depth == 0)) {
            const std::string_view item = text.substr(start, pos - start);
            start = pos + 1;
            if (item.empty())
                continue;
            if (!object) {
                items.emplace_back(std::string(), std::string(item));
                continue;
            }
            // The key is a string, so the value starts behind its closing quote and the colon.
            size_t end = 1;
            while (item[end] != '"')
                end += item[end] == '\\' ? 2 : 1;
            items.emplace_back(std::string(item.substr(1, end - 1)), std::string(item.substr(end + 2)));
        }
    }
    return items;
}

inline std::vector<std::string> elements(const std::string &arrayText)
{
    std::vector<std::string> out;
    for (auto &item : rawItems(arrayText))
        out.push_back(std::move(item.second));
    return out;
}

// The raw text of one member of an object.
inline std::string member(const std::string &objectText, const std::string &key)
{
    for (const auto &[name, raw] : rawItems(objectText)) {
        if (name == key)
            return raw;
    }
    return {};
}

// Whether a raw value is of a kind: s string, i integer (no fraction or exponent, since the
// engine decodes it into an integer field), n any number, b bool, a array, o object.
inline bool hasKind(const std::string &raw, char kind)
{
    const char c = raw.empty() ? ' ' : raw.front();
    const bool number = c == '-' || (c >= '0' && c <= '9');
    switch (kind) {
    case 's': return c == '"';
    case 'i': return number && raw.find_first_of(".eE") == std::string::npos;
    case 'n': return number;
    case 'b': return raw == "true" || raw == "false";
    case 'a': return c == '[';
    case 'o': return c == '{';
    }
    return false;
}

// Checks an object's keys, their order and the kind of each value against a shape written as
// "key:kind" words, e.g. "id:s size:i pad:b".
inline void expectShape(const std::string &objectText, const std::string &shape)
{
    std::vector<std::string> keys;
    std::vector<char> kinds;
    std::istringstream words(shape);
    for (std::string word; words >> word;) {
        keys.push_back(word.substr(0, word.size() - 2));
        kinds.push_back(word.back());
    }
    const auto items = rawItems(objectText);
    std::vector<std::string> written;
    for (const auto &item : items)
        written.push_back(item.first);
    ASSERT_EQ(written, keys) << objectText;
    for (size_t k = 0; k < items.size(); ++k)
        EXPECT_TRUE(hasKind(items[k].second, kinds[k])) << keys[k] << " should be '" << kinds[k] << "': " << items[k].second;
}

} // namespace bridgetest
