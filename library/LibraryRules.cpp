#include "library/LibraryRules.h"

#include "core/NaturalCompare.h"
#include "library/TorrentDisplay.h"
#include "media/MediaPresentation.h"

#include <QHash>
#include <QLocale>

#include <algorithm>

bool passesFilter(const TorrentStatus &t, TorrentFilter filter)
{
    switch (filter) {
    case TorrentFilter::all:
        return true;
    case TorrentFilter::downloading:
        return !t.paused && !t.finished && !t.seeding;
    case TorrentFilter::seeding:
        return t.seeding && !t.paused;
    case TorrentFilter::completed:
        return t.finished || t.seeding;
    case TorrentFilter::paused:
        return t.paused;
    case TorrentFilter::active:
        return t.downloadRate >= 1 || t.uploadRate >= 1;
    case TorrentFilter::errors:
        return !t.error.isEmpty();
    }
    return false;
}

int filterCount(const QList<TorrentStatus> &torrents, TorrentFilter filter)
{
    return static_cast<int>(std::count_if(torrents.begin(), torrents.end(),
                                          [filter](const TorrentStatus &t) { return passesFilter(t, filter); }));
}

QString normalizedSearch(const QString &search)
{
    auto isBlank = [](QChar c) { return c == QLatin1Char(' ') || c == QLatin1Char('\t'); };
    qsizetype first = 0;
    qsizetype last = search.size();
    while (first < last && isBlank(search.at(first)))
        ++first;
    while (last > first && isBlank(search.at(last - 1)))
        --last;
    return search.mid(first, last - first).toLower();
}

QString searchReading(const QString &text)
{
    static const QLocale locale = [] {
        const QLocale system;
        // Under the bare C locale (no LANG) fold as a Russian reader would: Cyrillic names are
        // the common case and the C locale folds only ASCII.
        return system.language() == QLocale::C ? QLocale(QLocale::Russian, QLocale::Russia) : system;
    }();
    const QString folded = locale.toLower(text);
    QString reading;
    reading.reserve(folded.size());
    bool blank = true; // drops leading blanks and collapses runs
    for (const QChar c : folded) {
        const bool separator = c.isSpace() || c == QLatin1Char('.') || c == QLatin1Char('_') || c == QLatin1Char('-')
            || c == QLatin1Char('[') || c == QLatin1Char(']') || c == QLatin1Char('(') || c == QLatin1Char(')')
            || c == QLatin1Char('{') || c == QLatin1Char('}');
        if (separator) {
            if (!blank)
                reading += QLatin1Char(' ');
            blank = true;
            continue;
        }
        reading += c == QChar(0x0451) ? QChar(0x0435) : c; // ё as е
        blank = false;
    }
    if (reading.endsWith(QLatin1Char(' ')))
        reading.chop(1);
    return reading;
}

SearchKeys searchKeys(const QString &name)
{
    const MediaPresentation presentation(name);
    QString titleLine = presentation.title;
    for (const auto &part : {presentation.year, presentation.episode, presentation.quality}) {
        if (part)
            titleLine += QLatin1Char(' ') + *part;
    }
    return SearchKeys{searchReading(name), searchReading(titleLine), presentation.title};
}

namespace {

// Parsing a title runs four expressions; a library of thousands filters on every typed letter,
// so each name is read once. Names are few next to the memory this costs, and the cache only
// grows by names the library really had.
const SearchKeys &cachedSearchKeys(const QString &name)
{
    thread_local QHash<QString, SearchKeys> cache;
    auto found = cache.constFind(name);
    if (found != cache.constEnd())
        return *found;
    if (cache.size() > 20000)
        cache.clear();
    return *cache.insert(name, searchKeys(name));
}

bool everyWordIn(const QStringList &words, const QString &reading)
{
    return std::all_of(words.begin(), words.end(), [&reading](const QString &w) { return reading.contains(w); });
}

} // namespace

namespace {

QStringList queryWords(const QString &normalizedQuery)
{
    return searchReading(normalizedQuery).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

bool matchesSearch(const TorrentStatus &t, const QString &normalizedQuery, const QStringList &words)
{
    if (normalizedQuery.isEmpty())
        return true;
    if (t.name.contains(normalizedQuery, Qt::CaseInsensitive))
        return true;
    const SearchKeys &keys = cachedSearchKeys(t.name);
    if (keys.title.contains(normalizedQuery, Qt::CaseInsensitive))
        return true;
    if (words.isEmpty())
        return false;
    return everyWordIn(words, keys.nameReading) || everyWordIn(words, keys.titleReading);
}

} // namespace

bool matchesSearch(const TorrentStatus &t, const QString &normalizedQuery)
{
    return matchesSearch(t, normalizedQuery, queryWords(normalizedQuery));
}

bool nameRuleBefore(const TorrentStatus &a, const TorrentStatus &b)
{
    const int byName = localizedStandardCompare(a.name, b.name);
    if (byName != 0)
        return byName < 0;
    return a.id < b.id;
}

namespace {

// Unlike displayProgress this is not clamped and ignores a running check: the library's order
// follows the download, not the check.
double sortFraction(const TorrentStatus &t)
{
    if (t.wanted > 0)
        return static_cast<double>(t.wantedDone) / static_cast<double>(t.wanted);
    return t.hasMetadata ? 1.0 : 0.0;
}

// Larger first; equal values go to the name rule.
template <typename T>
bool largerFirst(T a, T b, const TorrentStatus &ta, const TorrentStatus &tb)
{
    if (a != b)
        return a > b;
    return nameRuleBefore(ta, tb);
}

// <0, 0 or >0 for one table column, ascending.
int compareColumn(const TorrentStatus &a, const TorrentStatus &b, TableSortKey key)
{
    auto three = [](auto x, auto y) { return x < y ? -1 : (y < x ? 1 : 0); };
    switch (key) {
    case TableSortKey::name:
        return localizedStandardCompare(a.name, b.name);
    case TableSortKey::size:
        return three(a.total, b.total);
    case TableSortKey::progress:
        return three(displayProgress(a), displayProgress(b));
    case TableSortKey::added:
        return three(a.added, b.added);
    case TableSortKey::downloadRate:
        return three(a.downloadRate, b.downloadRate);
    case TableSortKey::uploadRate:
        return three(a.uploadRate, b.uploadRate);
    }
    return 0;
}

} // namespace

bool sortsBefore(const TorrentStatus &a, const TorrentStatus &b, LibrarySort sort)
{
    switch (sort) {
    case LibrarySort::newest:
        return largerFirst(a.added, b.added, a, b);
    case LibrarySort::name:
        return nameRuleBefore(a, b);
    case LibrarySort::progress:
        return largerFirst(sortFraction(a), sortFraction(b), a, b);
    case LibrarySort::size:
        return largerFirst(a.total, b.total, a, b);
    }
    return false;
}

QList<TableSortColumn> defaultTableSort()
{
    return {TableSortColumn{TableSortKey::added, false}};
}

QList<TorrentStatus> visibleTorrents(const QList<TorrentStatus> &torrents, const LibraryQuery &query)
{
    const QString needle = normalizedSearch(query.search);
    const QStringList words = queryWords(needle);
    QList<TorrentStatus> result;
    for (const TorrentStatus &t : torrents) {
        if (passesFilter(t, query.filter) && matchesSearch(t, needle, words))
            result << t;
    }
    if (query.layout == LibraryLayout::table) {
        std::stable_sort(result.begin(), result.end(), [&query](const TorrentStatus &a, const TorrentStatus &b) {
            for (const TableSortColumn &column : query.tableSort) {
                const int order = compareColumn(a, b, column.key);
                if (order != 0)
                    return column.ascending ? order < 0 : order > 0;
            }
            return false;
        });
    } else {
        std::stable_sort(result.begin(), result.end(), [sort = query.sort](const TorrentStatus &a, const TorrentStatus &b) {
            return sortsBefore(a, b, sort);
        });
    }
    return result;
}

std::optional<QString> primarySelection(const QSet<QString> &selection, const QList<TorrentStatus> &visible)
{
    const auto firstSelected = std::find_if(visible.begin(), visible.end(),
                                            [&selection](const TorrentStatus &t) { return selection.contains(t.id); });
    if (firstSelected == visible.end())
        return std::nullopt;
    if (selection.size() == 1)
        return *selection.begin();
    return firstSelected->id;
}

ClickOutcome clickSelection(const QSet<QString> &selection, const std::optional<QString> &anchor,
                            const QString &id, Qt::KeyboardModifiers modifiers, const QStringList &visibleIds)
{
    if (modifiers.testFlag(Qt::ControlModifier)) {
        QSet<QString> toggled = selection;
        if (!toggled.remove(id))
            toggled.insert(id);
        return {toggled, false};
    }
    if (modifiers.testFlag(Qt::ShiftModifier) && anchor) {
        const qsizetype from = visibleIds.indexOf(*anchor);
        const qsizetype to = visibleIds.indexOf(id);
        if (from >= 0 && to >= 0) {
            QSet<QString> range;
            for (qsizetype i = std::min(from, to); i <= std::max(from, to); ++i)
                range.insert(visibleIds.at(i));
            return {range, false};
        }
    }
    return {QSet<QString>{id}, true};
}
