#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What the desktop's media controls see of the player: the values of the
// org.mpris.MediaPlayer2.Player interface, worked out from the player's state alone.

// The player's state as the media controls need it.
struct MprisInput
{
    bool hasItem = false;
    QString torrentId;
    int fileIndex = 0;
    QString filePath;     // the file's path inside its torrent
    QString torrentTitle; // the torrent's name as the library shows it
    double duration = 0.0;
    bool loaded = false;
    bool paused = false;
    bool ended = false;
    double volume = 100.0; // percent, 0 to 200
    double speed = 1.0;
    bool hasNext = false;
    bool hasPrevious = false;
};

struct MprisTrack
{
    QString trackId; // an object path
    QString title;
    QString album;
    std::optional<qint64> lengthUs;

    bool operator==(const MprisTrack &) const = default;
};

struct MprisProperties
{
    QString playbackStatus = QStringLiteral("Stopped");
    std::optional<MprisTrack> track; // none: no track, empty metadata
    double volume = 1.0;
    double rate = 1.0;
    bool canGoNext = false;
    bool canGoPrevious = false;
    bool canPlay = false;
    bool canPause = false;
    bool canSeek = false;

    bool operator==(const MprisProperties &) const = default;
};

namespace Mpris {

// The speed menu's range; media controls may ask for no other rate.
inline constexpr double MinimumRate = 0.5;
inline constexpr double MaximumRate = 2.0;
// Volume 1.0 is the player's 100 %; the player goes up to 200 %.
inline constexpr double MaximumVolume = 2.0;

MprisProperties properties(const MprisInput &input);
// The track's object path: one per file of a torrent, stable across runs.
QString trackId(const QString &torrentId, int fileIndex);
// The names of the Player properties that differ between two states, in the interface's
// spelling; Position is never among them, clients ask for it.
QStringList changedProperties(const MprisProperties &before, const MprisProperties &after);
// The player's volume percent for a volume the media controls set.
double volumePercent(double mprisVolume);

} // namespace Mpris
