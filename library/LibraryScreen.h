#pragma once

#include "engine/TorrentStatus.h"
#include "library/LibraryPreferences.h"
#include "media/MediaKind.h"

#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

// What the main window's screens show, as pure functions of the published torrents and the
// window's state, so every text, count and menu is tested without a view.

// What fills the content column; the first that applies wins.
enum class ContentMode { offers, settings, contents, library };
ContentMode contentMode(bool offersPresented, bool showSettings, const QString &openedTorrentID,
                        const QList<TorrentStatus> &torrents);
QString contentModeName(ContentMode mode); // "offers", "settings", "contents", "library"
// The inspector stands under the library only with something to inspect.
bool showsInspector(ContentMode mode, bool showDetails, const QString &primary);

// What the library header says over the visible torrents and the selected ones among all.
struct LibraryHeader
{
    QString title;          // the current filter's title
    QString countText;      // "В коллекции: 12"
    QString downloadedText; // "3 загружено": visible torrents that are finished or seeding
    QString selectionText;  // "Выбрано: 2", empty without a selection
    QString resumeTitle;    // "Возобновить выбранные", ...
    QString selectionHelp;  // "Действия с выбранными: 2"
    bool operator==(const LibraryHeader &) const = default;
};
LibraryHeader libraryHeader(TorrentFilter filter, const QList<TorrentStatus> &visible,
                            const QList<TorrentStatus> &selected);

enum class EmptyState { none, noMatches, emptyLibrary };
EmptyState emptyState(int engineCount, int visibleCount);

// The torrent shown large above the grid: only in the grid, with no search and no inspector;
// the first visible video that is selected, else the first visible video.
std::optional<QString> featuredTorrent(const QList<TorrentStatus> &visible, const QSet<QString> &selection,
                                       LibraryLayout layout, const QString &search, bool showDetails);
QString featuredLabel(const TorrentStatus &t);

// One entry of the context menu. `command` is what the view hands back to run it: an engine
// action word ("force_start", "recheck", "queue_top", ...) or one of "open", "details",
// "resume", "pause", "sequential_on", "sequential_off", "limits", "move", "reveal", "remove".
// Entries with a `submenu` stand in the submenu of that title, in their order.
struct MenuItem
{
    QString text;
    QString command;
    QString submenu;
    bool checkable = false;
    bool checked = false;
    bool operator==(const MenuItem &) const = default;
};
// The menu over the statuses a context menu acts on; the one-torrent entries only for one.
QList<MenuItem> contextMenuItems(const QList<TorrentStatus> &statuses);

// The removal dialog's title: the name of one torrent, else the count of those to remove.
QString removalTitle(const QStringList &ids, const QList<TorrentStatus> &torrents);

// The sidebar's sums over all torrents.
struct TransferSums
{
    int downloading = 0;
    qint64 downloadRate = 0;
    qint64 uploadRate = 0;
    qint64 peers = 0;
    qint64 remaining = 0;                // wanted bytes not yet in, of torrents that download
    std::optional<double> secondsLeft;   // remaining at the summed download rate
    bool operator==(const TransferSums &) const = default;
};
TransferSums transferSums(const QList<TorrentStatus> &torrents);

// The listening sockets worth showing ("TCP 192.168.1.5:6881"): loopback, link-local and the
// 198.18. benchmark range say nothing about reachability and are left out.
QStringList listenSummary(const QStringList &listening);
// "Порт: 6881" from the first listening socket, "Порт: —" while nothing listens.
QString portText(const QStringList &listening);

// Card and row texts of one torrent.
QString kindLine(MediaKind kind);   // "Документ", "Изображения" or empty
QString kindSymbol(MediaKind kind); // the symbol of a file that is not a video, empty for a video
// Whether the pause button resumes: a torrent the user paused, or one whose files went missing.
bool pauseButtonResumes(const TorrentStatus &t);
QString pauseButtonHelp(const TorrentStatus &t);

struct TorrentFile;
// What "Смотреть" plays: the video last played, else the first video meant to download, else
// the first video. None without videos: the torrent is shown in the file manager instead.
std::optional<TorrentFile> playTarget(const QList<TorrentFile> &videos, std::optional<int> lastPlayedFile);
