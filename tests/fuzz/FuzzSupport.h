#pragma once

// What every fuzz target shares: the input as Qt bytes, and rules that fail loudly.

#include <QByteArray>
#include <QJsonDocument>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace Fuzz {

// A copy, so that a read past the end is the sanitizer's to see and not libFuzzer's buffer.
inline QByteArray bytes(const uint8_t *data, size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
}

// A broken rule ends the process like a crash, so libFuzzer keeps the input that broke it.
inline void require(bool holds, const char *rule)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken rule: %s\n", rule);
    std::abort();
}

// The text a JSON file is saved as: indented, as the data directory's files are written.
inline QByteArray savedText(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

} // namespace Fuzz
