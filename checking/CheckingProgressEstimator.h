#pragma once

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>

#include <cstdint>
#include <optional>

// Turns the coarse completion fraction of a running hash check, seen once per poll, into bytes
// per second. A plain value: no clock of its own (the caller passes `now`, seconds of uptime)
// and no I/O, owned by the engine on the main thread.
class CheckingProgressEstimator
{
public:
    struct Sample
    {
        double time = 0;
        double progress = 0;
    };

    struct Track
    {
        int64_t total = 0;
        QList<Sample> samples;
        double lastProgress = 0;
        double lastChange = 0;
        std::optional<int64_t> rate;
    };

    // The estimated rate, absent while nothing can be told yet; 0 once the fraction has not
    // moved for 2 seconds.
    std::optional<int64_t> update(const QString &id, double progress, int64_t total, bool active, double now);
    // Drops the tracks of torrents that are gone.
    void retain(const QSet<QString> &ids);
    void remove(const QString &id) { m_tracks.remove(id); }
    bool hasTrack(const QString &id) const { return m_tracks.contains(id); }

private:
    QHash<QString, Track> m_tracks;
};
