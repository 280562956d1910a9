#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The live state of one torrent as the bridge's status report carries it, in the report's key
// order, plus the hash-check rate that the engine works out itself.
struct TorrentStatus
{
    QString id;
    QString name;
    QString state;
    bool paused = false;
    bool autoManaged = false;
    bool sequential = false;
    bool isPrivate = false; // "private" in the report
    bool hasMetadata = false;
    bool finished = false;
    bool seeding = false;
    bool moving = false;
    double progress = 0;
    qint64 total = 0;
    qint64 totalDone = 0;
    qint64 wanted = 0;
    qint64 wantedDone = 0;
    qint64 downloadRate = 0;
    qint64 uploadRate = 0;
    qint64 peers = 0;
    qint64 seeds = 0;
    qint64 swarmPeers = 0;
    qint64 swarmSeeds = 0;
    qint64 connectCandidates = 0;
    qint64 uploaded = 0;
    qint64 downloaded = 0;
    qint64 added = 0;
    qint64 completed = 0;
    qint64 activeTime = 0;
    qint64 seedingTime = 0;
    qint64 downloadLimit = 0;
    qint64 uploadLimit = 0;
    qint64 connectionsLimit = 0;
    qint64 uploadsLimit = 0;
    // The torrent's own rate limits in bytes per second, 0 for none. downloadLimit and
    // uploadLimit above are the bandwidth queue lengths, not limits.
    qint64 downloadRateLimit = 0;
    qint64 uploadRateLimit = 0;
    qint64 queue = -1;
    qint64 pieces = 0;
    double availability = 0;
    QString savePath;
    QString tracker;
    QString error;
    // Bytes per second of a running hash check; not in the report.
    std::optional<double> checkingRate;

    bool isChecking() const { return state == QLatin1String("checking"); }
    // Seconds left of a running, unpaused, error-free hash check, when a rate is known.
    std::optional<double> checkingETA() const;
    // The check's rate as "1,5 МБ/с" while such a check runs and a rate is known, "0 байт/с"
    // once it has stalled, "—" otherwise.
    QString checkingSpeedText() const;

    bool operator==(const TorrentStatus &) const = default;

    // Every report key is required: a report that lacks one is a broken round, not a torrent.
    static std::optional<TorrentStatus> fromJson(const QJsonObject &object);
};

struct SessionInfo
{
    qint64 download = 0;
    qint64 upload = 0;
    int dhtNodes = 0;
    bool incoming = false;
    QString externalIP;
    QString portmap;
    int banned = 0;
    QStringList listening;
    QStringList listenErrors;

    bool operator==(const SessionInfo &) const = default;
    static std::optional<SessionInfo> fromJson(const QJsonObject &object);
};

struct StatusSnapshot
{
    SessionInfo session;
    QList<TorrentStatus> torrents;

    bool operator==(const StatusSnapshot &) const = default;
    static std::optional<StatusSnapshot> decode(const QByteArray &json);
};

struct TorrentEvent
{
    QString type;
    QString id;
    QString name;
    QString message;

    bool operator==(const TorrentEvent &) const = default;
    // A text that doesn't decode gives no events.
    static QList<TorrentEvent> decodeList(const QByteArray &json);
};

struct EngineError
{
    QString message;
    bool operator==(const EngineError &) const = default;
};
