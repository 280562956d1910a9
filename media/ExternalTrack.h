#pragma once

#include "media/TorrentFile.h"

#include <QHash>
#include <QString>

#include <optional>

// An audio or subtitle file lying beside a video in the same torrent, which the player loads
// through the same stream address as the video itself.
struct ExternalTrack {
    TorrentFile file;
    QString title;                    // the label in the track menus
    std::optional<QString> language;  // three-letter code, when the path names one

    bool operator==(const ExternalTrack &) const = default;
};

// A track is identified by its file index, which is also what the player remembers.
inline size_t qHash(const ExternalTrack &track, size_t seed = 0)
{
    return qHash(track.file.i, seed);
}
