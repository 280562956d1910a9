#pragma once

#include <QJsonObject>
#include <QMap>
#include <QString>

#include <optional>

// A track the user picked by hand, remembered per torrent so that the next episode opens with
// the same language. Matched by what a track says about itself, never by its id, which differs
// from file to file.
struct TrackChoice
{
    std::optional<QString> language;
    std::optional<QString> title;
    std::optional<QString> externalName; // title of a track file lying beside the video
    bool off = false;

    bool operator==(const TrackChoice &) const = default;

    // Strict: "off" is required, the strings may be missing or null, anything else fails.
    static std::optional<TrackChoice> fromJson(const QJsonObject &json);
    // Unset strings are left out.
    QJsonObject toJson() const;
};

// What the player remembers about a torrent, which libtorrent has no place for.
struct TorrentMeta
{
    QMap<int, double> positions; // file index -> seconds played
    std::optional<TrackChoice> audio;
    std::optional<TrackChoice> subtitle;
    bool ignoreSeedLimits = false; // set when the user restarts a torrent past its seed limits
    std::optional<int> lastPlayedFile;

    bool operator==(const TorrentMeta &) const = default;

    // Strict: positions (keys as decimal strings) and ignoreSeedLimits are required; audio,
    // subtitle and lastPlayedFile may be missing or null; any other deviation fails.
    static std::optional<TorrentMeta> fromJson(const QJsonObject &json);
    // Optional fields are written only when set.
    QJsonObject toJson() const;
};

// torrents.json: torrent id -> TorrentMeta. One entry that fails to decode fails the whole file,
// and the engine starts from an empty map rather than guessing at half of one.
std::optional<QMap<QString, TorrentMeta>> decodeMetaFile(const QJsonObject &json);
QJsonObject encodeMetaFile(const QMap<QString, TorrentMeta> &meta);
