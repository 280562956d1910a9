#pragma once

#include <QString>

#include <optional>
#include <string>
#include <string_view>

// Where a file of a torrent is found inside libmpv: "velix://" + torrent id + "/" + decimal file
// index. Outside audio and subtitle tracks use the same form.
struct StreamAddress
{
    std::string id;
    int index = 0;

    bool operator==(const StreamAddress &) const = default;
};

QString streamAddress(const QString &torrentId, int fileIndex);

// The id and index of an address, or none when it is not one: another scheme, a missing or
// empty id, or an index that is not a whole decimal 32-bit number. Whether the torrent and file
// exist is the reader's business.
std::optional<StreamAddress> parseStreamAddress(std::string_view uri);
