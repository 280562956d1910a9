#include "engine/TorrentReports.h"

#include "media/TorrentFile.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

QJsonArray arrayOf(const QByteArray &json)
{
    const QJsonDocument doc = QJsonDocument::fromJson(json);
    return doc.isArray() ? doc.array() : QJsonArray();
}

} // namespace

QList<PeerInfo> PeerInfo::decodeList(const QByteArray &json)
{
    QList<PeerInfo> peers;
    for (const QJsonValue &item : arrayOf(json)) {
        const QJsonObject o = item.toObject();
        PeerInfo p;
        p.ip = o.value(QLatin1String("ip")).toString();
        p.port = o.value(QLatin1String("port")).toInt();
        p.client = o.value(QLatin1String("client")).toString();
        p.flags = o.value(QLatin1String("flags")).toString();
        p.source = o.value(QLatin1String("source")).toString();
        p.progress = o.value(QLatin1String("progress")).toDouble();
        p.downloadRate = o.value(QLatin1String("downloadRate")).toInteger();
        p.uploadRate = o.value(QLatin1String("uploadRate")).toInteger();
        p.downloaded = o.value(QLatin1String("downloaded")).toInteger();
        p.uploaded = o.value(QLatin1String("uploaded")).toInteger();
        peers << p;
    }
    return peers;
}

QList<TrackerInfo> TrackerInfo::decodeList(const QByteArray &json)
{
    QList<TrackerInfo> trackers;
    for (const QJsonValue &item : arrayOf(json)) {
        const QJsonObject o = item.toObject();
        TrackerInfo t;
        t.url = o.value(QLatin1String("url")).toString();
        t.tier = o.value(QLatin1String("tier")).toInt();
        t.status = o.value(QLatin1String("status")).toString();
        t.message = o.value(QLatin1String("message")).toString();
        t.fails = o.value(QLatin1String("fails")).toInt();
        t.seeds = o.value(QLatin1String("seeds")).toInt(-1);
        t.peers = o.value(QLatin1String("peers")).toInt(-1);
        t.downloaded = o.value(QLatin1String("downloaded")).toInt(-1);
        t.nextAnnounce = o.value(QLatin1String("nextAnnounce")).toInt(-1);
        t.extra = o.value(QLatin1String("extra")).toBool();
        t.mirror = o.value(QLatin1String("mirror")).toBool();
        trackers << t;
    }
    return trackers;
}

TorrentPreview TorrentPreview::decode(const QByteArray &json)
{
    TorrentPreview preview;
    const QJsonDocument doc = QJsonDocument::fromJson(json);
    if (!doc.isObject()) {
        preview.error = QStringLiteral("Не удалось прочитать файл");
        return preview;
    }
    const QJsonObject o = doc.object();
    auto str = [&o](const char *key) -> std::optional<QString> {
        const QJsonValue v = o.value(QLatin1String(key));
        return v.isString() ? std::optional<QString>(v.toString()) : std::nullopt;
    };
    preview.id = str("id");
    preview.name = str("name");
    preview.comment = str("comment");
    preview.error = str("error");
    if (o.value(QLatin1String("size")).isDouble())
        preview.size = o.value(QLatin1String("size")).toInteger();
    if (o.value(QLatin1String("pieceLength")).isDouble())
        preview.pieceLength = o.value(QLatin1String("pieceLength")).toInt();
    if (o.value(QLatin1String("pieces")).isDouble())
        preview.pieces = o.value(QLatin1String("pieces")).toInt();
    if (o.value(QLatin1String("private")).isBool())
        preview.isPrivate = o.value(QLatin1String("private")).toBool();
    if (o.value(QLatin1String("trackers")).isArray()) {
        QStringList urls;
        for (const QJsonValue &v : o.value(QLatin1String("trackers")).toArray())
            urls << v.toString();
        preview.trackers = urls;
    }
    if (o.value(QLatin1String("files")).isArray()) {
        QList<TorrentPreviewFile> files;
        for (const QJsonValue &v : o.value(QLatin1String("files")).toArray()) {
            const QJsonObject f = v.toObject();
            files << TorrentPreviewFile{f.value(QLatin1String("i")).toInt(), f.value(QLatin1String("path")).toString(),
                                        f.value(QLatin1String("size")).toInteger(),
                                        f.value(QLatin1String("pad")).toBool()};
        }
        preview.files = files;
    }
    return preview;
}

QList<TorrentFile> decodeTorrentFiles(const QByteArray &json)
{
    QList<TorrentFile> files;
    for (const QJsonValue &item : arrayOf(json)) {
        const QJsonObject o = item.toObject();
        TorrentFile f;
        f.i = o.value(QLatin1String("i")).toInt();
        f.path = o.value(QLatin1String("path")).toString();
        f.size = o.value(QLatin1String("size")).toInteger();
        f.done = o.value(QLatin1String("done")).toInteger();
        f.prio = o.value(QLatin1String("prio")).toInt(4);
        f.pad = o.value(QLatin1String("pad")).toBool();
        f.first = o.value(QLatin1String("first")).toInt();
        f.last = o.value(QLatin1String("last")).toInt();
        files << f;
    }
    return files;
}

namespace {

// The pieces a range names, clamped to the map; empty when it names none.
std::pair<int, int> clampedRange(const PieceMap &map, std::optional<std::pair<int, int>> range)
{
    int first = range ? std::max(range->first, 0) : 0;
    int last = range ? std::min(range->second, map.count() - 1) : map.count() - 1;
    if (first > last)
        return {0, -1};
    return {first, last};
}

int stateSlot(char digit)
{
    switch (static_cast<PieceState>(digit)) {
    case PieceState::downloaded:
        return 0;
    case PieceState::receiving:
        return 1;
    case PieceState::unavailable:
        return 3;
    case PieceState::waiting:
        break;
    }
    return 2;
}

constexpr PieceState SlotStates[4] = {PieceState::downloaded, PieceState::receiving, PieceState::waiting,
                                      PieceState::unavailable};

} // namespace

QList<PieceState> PieceMap::columns(std::optional<std::pair<int, int>> range, int wanted) const
{
    const auto [first, last] = clampedRange(*this, range);
    const int pieces = last - first + 1;
    if (pieces <= 0 || wanted <= 0)
        return {};
    const int spans = std::min(pieces, wanted);
    QList<PieceState> result;
    result.reserve(spans);
    for (int span = 0; span < spans; ++span) {
        const int from = first + static_cast<int>(static_cast<qint64>(span) * pieces / spans);
        const int to = first + static_cast<int>(static_cast<qint64>(span + 1) * pieces / spans);
        int counts[4] = {0, 0, 0, 0};
        for (int piece = from; piece < to; ++piece)
            ++counts[stateSlot(bytes.at(piece))];
        if (counts[1] > 0) {
            result << PieceState::receiving;
            continue;
        }
        int best = 0;
        for (int slot : {2, 3}) {
            if (counts[slot] > counts[best])
                best = slot;
        }
        result << SlotStates[best];
    }
    return result;
}

QString PieceMap::summary(std::optional<std::pair<int, int>> range) const
{
    const auto [first, last] = clampedRange(*this, range);
    int counts[4] = {0, 0, 0, 0};
    for (int piece = first; piece <= last; ++piece)
        ++counts[stateSlot(bytes.at(piece))];
    return QStringLiteral("Загружено: %1, Получение / запись: %2, Ожидание: %3, Нет у пиров: %4")
        .arg(counts[0])
        .arg(counts[1])
        .arg(counts[2])
        .arg(counts[3]);
}
