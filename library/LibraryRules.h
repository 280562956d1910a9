#pragma once

#include "engine/TorrentStatus.h"
#include "library/LibraryPreferences.h"

#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <Qt>

#include <optional>

// How the library is filtered, searched, sorted and selected. Pure functions over the engine's
// published list, so the rules are tested without a window.

bool passesFilter(const TorrentStatus &t, TorrentFilter filter);
// The sidebar's count for one filter over the whole list; the search text doesn't narrow it.
int filterCount(const QList<TorrentStatus> &torrents, TorrentFilter filter);

// The search text as it is matched: blanks and tabs trimmed at both ends (a pasted new line is
// kept, it can't be in a name anyway), lower-cased.
QString normalizedSearch(const QString &search);
// A name as people type it when they look for it: release separators (".", "_", "-", brackets
// and parentheses) read as blanks, runs of blanks as one, letters folded by the locale's case
// and "ё" read as "е". Used for both sides of the word search.
QString searchReading(const QString &text);

// What a torrent is found by: the reading of its name, and the reading of the title parsed from
// it with that title's year, season and quality. Kept per name, since a name never changes.
struct SearchKeys
{
    QString nameReading;
    QString titleReading;
    QString title; // the parsed title as it stands, for the whole-query test
};
SearchKeys searchKeys(const QString &name);

// A torrent passes when its name or the title parsed from it contains the whole query,
// ignoring case; or when every word of the query is in the reading of its name or of its
// title line. An empty query passes all. Nothing else of a torrent is searched: not tracker,
// path or file names.
bool matchesSearch(const TorrentStatus &t, const QString &normalizedQuery);

// The last word of every order: names in natural order, then ids, so two torrents of the same
// name keep one order from poll to poll.
bool nameRuleBefore(const TorrentStatus &a, const TorrentStatus &b);
// Whether a goes before b in the grid and list under `sort`; ties fall to the name rule.
bool sortsBefore(const TorrentStatus &a, const TorrentStatus &b, LibrarySort sort);

// One column of the table's own sort, as the table hands it over.
enum class TableSortKey { name, size, progress, added, downloadRate, uploadRate };
struct TableSortColumn
{
    TableSortKey key = TableSortKey::added;
    bool ascending = false;
    bool operator==(const TableSortColumn &) const = default;
};
// The table sorts newest first until the user clicks a header.
QList<TableSortColumn> defaultTableSort();

struct LibraryQuery
{
    TorrentFilter filter = TorrentFilter::all;
    QString search;
    LibraryLayout layout = LibraryLayout::grid;
    LibrarySort sort = LibrarySort::newest;
    QList<TableSortColumn> tableSort = defaultTableSort();
};

// The filtered, searched and sorted list the library shows. The grid and list sort by the
// preference; the table by its columns and ignores the preference. Both sorts are stable.
QList<TorrentStatus> visibleTorrents(const QList<TorrentStatus> &torrents, const LibraryQuery &query);

// The torrent the inspector shows: none when nothing selected is visible, the one id of a single
// selection, else the first selected torrent in display order.
std::optional<QString> primarySelection(const QSet<QString> &selection, const QList<TorrentStatus> &visible);

struct ClickOutcome
{
    QSet<QString> selection;
    bool opens = false; // a plain click opens the torrent's contents screen
    bool operator==(const ClickOutcome &) const = default;
};
// A click on a card or row. Ctrl toggles one id; Shift selects the visible range between the
// anchor and the id when both are visible; anything else (also Shift without a usable anchor)
// selects the id alone and opens it. The caller moves the anchor to id afterwards.
ClickOutcome clickSelection(const QSet<QString> &selection, const std::optional<QString> &anchor,
                            const QString &id, Qt::KeyboardModifiers modifiers, const QStringList &visibleIds);
