#include "playback/StreamAddress.h"

#include <charconv>
#include <cstdint>

namespace {

constexpr std::string_view Scheme = "velix://";

} // namespace

QString streamAddress(const QString &torrentId, int fileIndex)
{
    return QString::fromLatin1(Scheme.data(), static_cast<qsizetype>(Scheme.size())) + torrentId
        + QLatin1Char('/') + QString::number(fileIndex);
}

std::optional<StreamAddress> parseStreamAddress(std::string_view uri)
{
    if (!uri.starts_with(Scheme))
        return std::nullopt;
    std::string_view rest = uri.substr(Scheme.size());
    // One split at the first "/", empty parts dropped: "/3" has no id, "abc/" no index.
    while (rest.starts_with('/'))
        rest.remove_prefix(1);
    const size_t slash = rest.find('/');
    if (slash == std::string_view::npos)
        return std::nullopt;
    const std::string_view id = rest.substr(0, slash);
    const std::string_view number = rest.substr(slash + 1);
    if (id.empty() || number.empty())
        return std::nullopt;
    // A leading "+" is a valid decimal sign, which from_chars alone would refuse.
    const std::string_view digits = number.starts_with('+') && number.size() > 1 && number[1] != '-'
        ? number.substr(1)
        : number;
    int32_t index = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
    if (error != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return StreamAddress{std::string(id), index};
}
