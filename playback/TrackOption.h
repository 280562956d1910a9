#pragma once

#include "media/ExternalTrack.h"

#include <QMetaType>
#include <QString>

#include <optional>
#include <variant>

// One row of the audio or subtitle menu. `id` is the row's key: "a" + track id for audio inside
// the file (or loaded from beside it), "s" + track id for subtitles, "x" + file index for a track
// file of the torrent that is not loaded yet, "off" for switching subtitles off.
struct TrackOption
{
    Q_GADGET
    Q_PROPERTY(QString id MEMBER id)
    Q_PROPERTY(QString label MEMBER label)
    Q_PROPERTY(QString detail READ detailText)
    Q_PROPERTY(bool selected MEMBER selected)

public:
    // A track libmpv lists, by its id.
    struct Track
    {
        int id = 0;
        bool operator==(const Track &) const = default;
    };
    struct Off
    {
        bool operator==(const Off &) const = default;
    };
    using Source = std::variant<Track, ExternalTrack, Off>;

    QString id;
    QString label;
    std::optional<QString> detail;
    bool selected = false;
    Source source = Off{};

    QString detailText() const { return detail.value_or(QString()); }

    bool operator==(const TrackOption &) const = default;
};

Q_DECLARE_METATYPE(TrackOption)
