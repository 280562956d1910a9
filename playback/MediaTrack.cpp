#include "playback/MediaTrack.h"

QString mediaTrackKindName(MediaTrack::Kind kind)
{
    switch (kind) {
    case MediaTrack::Kind::Video:
        return QStringLiteral("video");
    case MediaTrack::Kind::Audio:
        return QStringLiteral("audio");
    case MediaTrack::Kind::Sub:
        return QStringLiteral("sub");
    }
    return {};
}

std::optional<MediaTrack::Kind> mediaTrackKindFromName(const QString &name)
{
    if (name == QLatin1String("video"))
        return MediaTrack::Kind::Video;
    if (name == QLatin1String("audio"))
        return MediaTrack::Kind::Audio;
    if (name == QLatin1String("sub"))
        return MediaTrack::Kind::Sub;
    return std::nullopt;
}
