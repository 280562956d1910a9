#include "engine/TorrentStatus.h"

#include "media/Format.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cmath>

namespace {

// Strict field readers: each returns false when the key is missing or of another type.
bool readString(const QJsonObject &o, const char *key, QString &out)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isString())
        return false;
    out = v.toString();
    return true;
}

bool readBool(const QJsonObject &o, const char *key, bool &out)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isBool())
        return false;
    out = v.toBool();
    return true;
}

bool readDouble(const QJsonObject &o, const char *key, double &out)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isDouble())
        return false;
    out = v.toDouble();
    return true;
}

template <typename Int>
bool readInt(const QJsonObject &o, const char *key, Int &out)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isDouble())
        return false;
    out = static_cast<Int>(v.toInteger());
    return true;
}

bool readStrings(const QJsonObject &o, const char *key, QStringList &out)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (!v.isArray())
        return false;
    out.clear();
    for (const QJsonValue &item : v.toArray()) {
        if (!item.isString())
            return false;
        out << item.toString();
    }
    return true;
}

} // namespace

std::optional<double> TorrentStatus::checkingETA() const
{
    if (state != QLatin1String("checking") || paused || !error.isEmpty() || total < 1)
        return std::nullopt;
    if (!checkingRate || *checkingRate < 1)
        return std::nullopt;
    const double done = std::clamp(progress, 0.0, 1.0);
    if (done >= 1)
        return std::nullopt;
    return (1 - done) * static_cast<double>(total) / *checkingRate;
}

QString TorrentStatus::checkingSpeedText() const
{
    if (state != QLatin1String("checking") || paused || !error.isEmpty() || !checkingRate)
        return QStringLiteral("—");
    // The estimator caps its rates at 2^62; anything else that is not a sane count reads as 0.
    const double rate = std::isfinite(*checkingRate) ? std::clamp(*checkingRate, 0.0, 4611686018427387904.0) : 0.0;
    return Format::bytes(static_cast<qint64>(rate)) + QStringLiteral("/с");
}

std::optional<TorrentStatus> TorrentStatus::fromJson(const QJsonObject &o)
{
    TorrentStatus t;
    const bool ok = readString(o, "id", t.id) && readString(o, "name", t.name)
        && readString(o, "state", t.state) && readBool(o, "paused", t.paused)
        && readBool(o, "autoManaged", t.autoManaged) && readBool(o, "sequential", t.sequential)
        && readBool(o, "private", t.isPrivate) && readBool(o, "hasMetadata", t.hasMetadata)
        && readBool(o, "finished", t.finished) && readBool(o, "seeding", t.seeding)
        && readBool(o, "moving", t.moving) && readDouble(o, "progress", t.progress)
        && readInt(o, "total", t.total) && readInt(o, "totalDone", t.totalDone)
        && readInt(o, "wanted", t.wanted) && readInt(o, "wantedDone", t.wantedDone)
        && readInt(o, "downloadRate", t.downloadRate) && readInt(o, "uploadRate", t.uploadRate)
        && readInt(o, "peers", t.peers) && readInt(o, "seeds", t.seeds)
        && readInt(o, "swarmPeers", t.swarmPeers) && readInt(o, "swarmSeeds", t.swarmSeeds)
        && readInt(o, "connectCandidates", t.connectCandidates) && readInt(o, "uploaded", t.uploaded)
        && readInt(o, "downloaded", t.downloaded) && readInt(o, "added", t.added)
        && readInt(o, "completed", t.completed) && readInt(o, "activeTime", t.activeTime)
        && readInt(o, "seedingTime", t.seedingTime) && readInt(o, "downloadLimit", t.downloadLimit)
        && readInt(o, "uploadLimit", t.uploadLimit) && readInt(o, "connectionsLimit", t.connectionsLimit)
        && readInt(o, "uploadsLimit", t.uploadsLimit) && readInt(o, "downloadRateLimit", t.downloadRateLimit)
        && readInt(o, "uploadRateLimit", t.uploadRateLimit) && readInt(o, "queue", t.queue)
        && readInt(o, "pieces", t.pieces) && readDouble(o, "availability", t.availability)
        && readString(o, "savePath", t.savePath) && readString(o, "tracker", t.tracker)
        && readString(o, "error", t.error);
    if (!ok)
        return std::nullopt;
    return t;
}

std::optional<SessionInfo> SessionInfo::fromJson(const QJsonObject &o)
{
    SessionInfo s;
    const bool ok = readInt(o, "download", s.download) && readInt(o, "upload", s.upload)
        && readInt(o, "dhtNodes", s.dhtNodes) && readBool(o, "incoming", s.incoming)
        && readString(o, "externalIP", s.externalIP) && readString(o, "portmap", s.portmap)
        && readInt(o, "banned", s.banned) && readStrings(o, "listening", s.listening)
        && readStrings(o, "listenErrors", s.listenErrors);
    if (!ok)
        return std::nullopt;
    return s;
}

std::optional<StatusSnapshot> StatusSnapshot::decode(const QByteArray &json)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonObject root = doc.object();
    if (!root.value(QLatin1String("session")).isObject() || !root.value(QLatin1String("torrents")).isArray())
        return std::nullopt;
    StatusSnapshot snapshot;
    const auto session = SessionInfo::fromJson(root.value(QLatin1String("session")).toObject());
    if (!session)
        return std::nullopt;
    snapshot.session = *session;
    for (const QJsonValue &item : root.value(QLatin1String("torrents")).toArray()) {
        if (!item.isObject())
            return std::nullopt;
        auto torrent = TorrentStatus::fromJson(item.toObject());
        if (!torrent)
            return std::nullopt;
        snapshot.torrents << std::move(*torrent);
    }
    return snapshot;
}

QList<TorrentEvent> TorrentEvent::decodeList(const QByteArray &json)
{
    QList<TorrentEvent> events;
    const QJsonDocument doc = QJsonDocument::fromJson(json);
    if (!doc.isArray())
        return events;
    for (const QJsonValue &item : doc.array()) {
        const QJsonObject o = item.toObject();
        TorrentEvent e;
        if (!readString(o, "type", e.type) || !readString(o, "id", e.id) || !readString(o, "name", e.name)
            || !readString(o, "message", e.message))
            return {};
        events << e;
    }
    return events;
}
