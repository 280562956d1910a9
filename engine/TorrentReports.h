#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>
#include <utility>

struct TorrentFile;

// Decoded forms of the bridge's per-torrent reports.

struct PeerInfo
{
    QString ip;
    int port = 0;
    QString client;
    QString flags;
    QString source;
    double progress = 0;
    qint64 downloadRate = 0;
    qint64 uploadRate = 0;
    qint64 downloaded = 0;
    qint64 uploaded = 0;

    bool operator==(const PeerInfo &) const = default;
    static QList<PeerInfo> decodeList(const QByteArray &json);
};

struct TrackerInfo
{
    QString url;
    int tier = 0;
    QString status;
    QString message;
    int fails = 0;
    int seeds = -1;
    int peers = -1;
    int downloaded = -1;
    int nextAnnounce = -1;
    bool extra = false;
    bool mirror = false;

    bool operator==(const TrackerInfo &) const = default;
    static QList<TrackerInfo> decodeList(const QByteArray &json);
};

enum class PieceState : char { waiting = '0', downloaded = '1', receiving = '2', unavailable = '3' };

struct PieceMap
{
    // One ASCII digit per piece, each a PieceState.
    QByteArray bytes;

    bool operator==(const PieceMap &) const = default;
    PieceState state(int piece) const { return static_cast<PieceState>(bytes.at(piece)); }
    int count() const { return static_cast<int>(bytes.size()); }

    // The pieces first..last (inclusive, clamped to the map; none: all) cut into at most
    // `count` equal spans, one state a span, for a bar that has fewer pixels than pieces. A
    // span that is receiving anything shows that; otherwise its most frequent state, a tie
    // going to the state further along (downloaded, then waiting, then unavailable). A bad
    // digit counts as waiting.
    QList<PieceState> columns(std::optional<std::pair<int, int>> range, int count) const;
    // "Загружено: 3, Получение / запись: 1, Ожидание: 5, Нет у пиров: 0" over the same range,
    // the spoken form of the bar.
    QString summary(std::optional<std::pair<int, int>> range = std::nullopt) const;
};

struct TorrentPreviewFile
{
    int i = 0;
    QString path;
    qint64 size = 0;
    bool pad = false;
    bool operator==(const TorrentPreviewFile &) const = default;
};

// A look at a .torrent file before it is added. Every field may be missing so that the error
// form decodes too.
struct TorrentPreview
{
    std::optional<QString> id;
    std::optional<QString> name;
    std::optional<qint64> size;
    std::optional<int> pieceLength;
    std::optional<int> pieces;
    std::optional<bool> isPrivate;
    std::optional<QString> comment;
    std::optional<QStringList> trackers;
    std::optional<QList<TorrentPreviewFile>> files;
    std::optional<QString> error;

    bool operator==(const TorrentPreview &) const = default;
    // A text that doesn't decode gives a preview with only `error`.
    static TorrentPreview decode(const QByteArray &json);
};

// The files report; a text that doesn't decode gives no files.
QList<TorrentFile> decodeTorrentFiles(const QByteArray &json);

// What a user picks for a file; the bridge gets 0, 1, 4 or 7.
enum class FilePriority { skip, low, normal, high };
