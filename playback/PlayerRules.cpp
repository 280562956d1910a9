#include "playback/PlayerRules.h"

#include <algorithm>
#include <cmath>

namespace PlayerRules {

namespace {

constexpr double FullReadahead = 120.0;
constexpr double MinimumReadahead = 3.0;
// Stop this much short of a hole, so that the demuxer never blocks on it while it still has
// data to play.
constexpr double HoleMargin = 5.0;

} // namespace

QString escapeOptionValue(const QString &value)
{
    return QStringLiteral("%") + QString::number(value.toUtf8().size()) + QStringLiteral("%") + value;
}

QString fixed(double value, int decimals)
{
    // QString::number formats in the C locale whatever the user's locale is.
    return QString::number(value, 'f', decimals);
}

std::optional<double> resumePosition(const QMap<int, double> &positions, int file, bool resumeEnabled)
{
    if (!resumeEnabled)
        return std::nullopt;
    const auto stored = positions.constFind(file);
    if (stored == positions.constEnd() || !(*stored > ResumeThreshold))
        return std::nullopt;
    return *stored;
}

PositionUpdate positionUpdate(double position, double duration)
{
    if (duration - WatchedTail <= position)
        return PositionUpdate::Forget;
    return position > KeepThreshold ? PositionUpdate::Store : PositionUpdate::Keep;
}

QList<PlaybackRange> downloadedRanges(const QString &map)
{
    QList<PlaybackRange> ranges;
    const qsizetype n = map.size();
    qsizetype i = 0;
    while (i < n) {
        if (map.at(i) != QLatin1Char('1')) {
            ++i;
            continue;
        }
        const qsizetype start = i;
        while (i < n && map.at(i) == QLatin1Char('1'))
            ++i;
        const double n64 = static_cast<double>(n);
        ranges.append({static_cast<double>(start) / n64, i == n ? 1.0 : static_cast<double>(i) / n64});
    }
    return ranges;
}

double readaheadSeconds(const QString &map, double position, double duration)
{
    const qsizetype n = map.size();
    if (n == 0 || !(duration > 0))
        return DefaultReadahead;
    const double slice = position / duration * static_cast<double>(n);
    qsizetype i = std::isfinite(slice) && slice > 0 ? static_cast<qsizetype>(std::min(slice, static_cast<double>(n - 1)))
                                                    : 0;
    i = std::clamp<qsizetype>(i, 0, n - 1);
    while (i < n && map.at(i) == QLatin1Char('1'))
        ++i;
    if (i == n)
        return FullReadahead;
    const double hole = duration * (static_cast<double>(i) / static_cast<double>(n));
    return std::clamp(hole - position - HoleMargin, MinimumReadahead, FullReadahead);
}

bool isFalseEnd(double position, double duration, int recoveries)
{
    return duration > 0 && position < duration - FalseEndMargin && recoveries < MaxRecoveries;
}

std::optional<double> seekTarget(double seconds, double duration)
{
    if (!(duration > 0))
        return std::nullopt;
    return std::min(std::max(seconds, 0.0), std::max(duration - 1.0, 0.0));
}

int volumeValue(double volume)
{
    if (std::isnan(volume))
        return 0;
    return static_cast<int>(std::clamp(volume, 0.0, 200.0));
}

} // namespace PlayerRules
