#pragma once

#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>

#include <optional>

// A stretch of a file, as fractions of its length from 0 to 1, both ends included.
struct PlaybackRange
{
    Q_GADGET
    Q_PROPERTY(double start MEMBER start)
    Q_PROPERTY(double end MEMBER end)

public:
    double start = 0.0;
    double end = 0.0;

    bool operator==(const PlaybackRange &) const = default;
};

// The player's arithmetic: what to remember, where to start, how far to read ahead. Pure
// functions of their arguments, so the model stays a thin layer of state over them.
namespace PlayerRules {

// A stored position at or below this many seconds is not worth resuming at.
constexpr double ResumeThreshold = 5.0;
// The first seconds of a file never overwrite a stored position: a look into a file is not a
// decision to watch it from there.
constexpr double KeepThreshold = 30.0;
// The last seconds of a file count as watched, and the stored position is dropped.
constexpr double WatchedTail = 90.0;
// How often an end of stream in the middle of a file is taken for a read failure and repaired.
constexpr int MaxRecoveries = 5;
// An end this far before the duration is not a real end.
constexpr double FalseEndMargin = 10.0;
constexpr double DefaultReadahead = 10.0;

// libmpv's length-prefixed form of an option value, "%" + UTF-8 byte count + "%" + value. File
// names with commas or equal signs pass through a comma-separated option list that way.
QString escapeOptionValue(const QString &value);

// A number in libmpv's option and command texts: a dot, never the user's decimal comma.
QString fixed(double value, int decimals);

// The stored position to start a file at, when resuming is on and it is worth it.
std::optional<double> resumePosition(const QMap<int, double> &positions, int file, bool resumeEnabled);

enum class PositionUpdate { Keep, Store, Forget };
// What saving `position` of a file of `duration` does to its stored position.
PositionUpdate positionUpdate(double position, double duration);

// Each maximal run of '1' in a per-slice map of a file as a range of fractions; a run that
// reaches the end ends at exactly 1.
QList<PlaybackRange> downloadedRanges(const QString &map);

// Seconds the demuxer may read ahead of `position` without running into a missing slice: up to
// 5 s short of the first hole after the position, between 3 and 120 s; 120 when nothing is
// missing up to the end, 10 when the map or duration says nothing.
double readaheadSeconds(const QString &map, double position, double duration);

// An end of stream at `position` that should be repaired by seeking back rather than believed.
bool isFalseEnd(double position, double duration, int recoveries);

// Where a seek to `seconds` goes: inside the file and a second short of its end, so that a seek
// never lands on the end itself. None while the duration is unknown.
std::optional<double> seekTarget(double seconds, double duration);

// The "volume" value for a slider position: whole numbers from 0 to 200.
int volumeValue(double volume);

} // namespace PlayerRules

Q_DECLARE_METATYPE(PlaybackRange)
