#include "checking/CheckingProgressEstimator.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double WindowSeconds = 3.0;
constexpr double MinSampleGap = 0.2;
constexpr double StallSeconds = 2.0;
constexpr double RestartGap = 5.0;
constexpr double RateCap = 4611686018427387904.0; // 2^62: a double product can't overflow the int

} // namespace

std::optional<int64_t> CheckingProgressEstimator::update(const QString &id, double progress, int64_t total,
                                                         bool active, double now)
{
    const double p = std::isnan(progress) ? 0.0 : std::clamp(progress, 0.0, 1.0);
    if (!active || total < 1 || !std::isfinite(progress) || !std::isfinite(now)) {
        m_tracks.remove(id);
        return std::nullopt;
    }

    auto restart = [&] {
        Track track;
        track.total = total;
        track.samples = {Sample{now, p}};
        track.lastProgress = p;
        track.lastChange = now;
        m_tracks.insert(id, track);
        return std::nullopt;
    };

    auto it = m_tracks.find(id);
    if (it == m_tracks.end() || it->total != total || it->lastProgress > p || it->samples.isEmpty())
        return restart();
    Track &track = *it;
    const double dt = now - track.samples.last().time;
    // A long gap means the torrent stopped being polled as checking; its old slope says nothing.
    if (dt < 0 || dt >= RestartGap)
        return restart();

    const double change = p > track.lastProgress ? now : track.lastChange;
    std::optional<int64_t> rate = track.rate;
    if (dt >= MinSampleGap) {
        const bool hadTwo = track.samples.size() >= 2;
        track.samples.append(Sample{now, p});
        if (hadTwo) {
            while (track.samples.size() >= 3 && track.samples.at(1).time < now - WindowSeconds)
                track.samples.removeFirst();
        }
        const Sample &oldest = track.samples.first();
        if (oldest.progress < p) {
            const double slope = (p - oldest.progress) * static_cast<double>(total) / (now - oldest.time);
            rate = static_cast<int64_t>(std::floor(std::min(slope, RateCap)));
        }
    }
    track.lastProgress = p;
    track.lastChange = change;
    if (now - change >= StallSeconds)
        rate = 0;
    track.rate = rate;
    return rate;
}

void CheckingProgressEstimator::retain(const QSet<QString> &ids)
{
    for (auto it = m_tracks.begin(); it != m_tracks.end();) {
        if (ids.contains(it.key()))
            ++it;
        else
            it = m_tracks.erase(it);
    }
}
