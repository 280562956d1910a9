#include "app/MprisState.h"

#include "core/PathText.h"

#include <algorithm>
#include <cmath>

namespace Mpris {

QString trackId(const QString &torrentId, int fileIndex)
{
    // Object path elements allow [A-Za-z0-9_] only; a torrent id is hexadecimal already, but
    // anything else that might stand there is folded into that alphabet.
    QString element;
    for (const QChar c : torrentId)
        element += (c.isLetterOrNumber() && c.unicode() < 128) ? c : QLatin1Char('_');
    if (element.isEmpty())
        element = QStringLiteral("_");
    return QStringLiteral("/org/velix/Velix/track/") + element + QLatin1Char('/') + QString::number(std::max(0, fileIndex));
}

MprisProperties properties(const MprisInput &input)
{
    MprisProperties p;
    p.volume = std::clamp(input.volume, 0.0, 200.0) / 100.0;
    p.rate = std::clamp(input.speed, MinimumRate, MaximumRate);
    if (!input.hasItem)
        return p;
    p.playbackStatus = (input.paused || input.ended) ? QStringLiteral("Paused") : QStringLiteral("Playing");
    MprisTrack track;
    track.trackId = trackId(input.torrentId, input.fileIndex);
    track.title = PathText::lastPathComponent(input.filePath);
    track.album = input.torrentTitle;
    if (input.duration > 0.0)
        track.lengthUs = static_cast<qint64>(std::llround(input.duration * 1e6));
    p.track = track;
    p.canGoNext = input.hasNext;
    p.canGoPrevious = input.hasPrevious;
    p.canPlay = true;
    p.canPause = true;
    p.canSeek = input.loaded && input.duration > 0.0;
    return p;
}

QStringList changedProperties(const MprisProperties &before, const MprisProperties &after)
{
    QStringList names;
    auto note = [&names](bool changed, const char *name) {
        if (changed)
            names << QString::fromLatin1(name);
    };
    note(before.playbackStatus != after.playbackStatus, "PlaybackStatus");
    note(before.track != after.track, "Metadata");
    note(before.volume != after.volume, "Volume");
    note(before.rate != after.rate, "Rate");
    note(before.canGoNext != after.canGoNext, "CanGoNext");
    note(before.canGoPrevious != after.canGoPrevious, "CanGoPrevious");
    note(before.canPlay != after.canPlay, "CanPlay");
    note(before.canPause != after.canPause, "CanPause");
    note(before.canSeek != after.canSeek, "CanSeek");
    return names;
}

double volumePercent(double mprisVolume)
{
    if (!std::isfinite(mprisVolume))
        return 100.0;
    return std::clamp(mprisVolume, 0.0, MaximumVolume) * 100.0;
}

} // namespace Mpris
