#pragma once

#include <QList>
#include <QString>

#include <optional>

// One audio, video or subtitle track as libmpv lists it. Within a list a track is known by `id`.
struct MediaTrack
{
    enum class Kind { Video, Audio, Sub };

    int id = 0;
    Kind kind = Kind::Video;
    std::optional<QString> title;
    std::optional<QString> language;
    std::optional<QString> codec;
    std::optional<int> channels;
    bool external = false;
    std::optional<QString> externalFile;
    bool isDefault = false;
    bool forced = false;
    bool selected = false;

    bool operator==(const MediaTrack &) const = default;
};

// libmpv's names of the kinds: "video", "audio", "sub".
QString mediaTrackKindName(MediaTrack::Kind kind);
// None for any other text: such a track is not one the player can choose.
std::optional<MediaTrack::Kind> mediaTrackKindFromName(const QString &name);
