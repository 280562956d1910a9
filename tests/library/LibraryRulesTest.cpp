#include "library/LibraryRules.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using Change = std::function<void(TorrentStatus &)>;

TorrentStatus torrent(const char *id, const char *name, const Change &change = [](TorrentStatus &) {})
{
    TorrentStatus t;
    t.id = QString::fromUtf8(id);
    t.name = QString::fromUtf8(name);
    t.state = QStringLiteral("downloading");
    t.hasMetadata = true;
    t.total = 1000;
    t.wanted = 1000;
    change(t);
    return t;
}

QStringList idsOf(const QList<TorrentStatus> &list)
{
    QStringList ids;
    for (const TorrentStatus &t : list)
        ids << t.id;
    return ids;
}

QStringList split(const char *text)
{
    return QString::fromUtf8(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

QSet<QString> set(const char *ids)
{
    const QStringList list = split(ids);
    return QSet<QString>(list.begin(), list.end());
}

TEST(LibraryRulesTest, EachFilterPassesItsTorrents)
{
    // One torrent per situation; each row names the ones a filter keeps.
    const QList<TorrentStatus> library{
        torrent("down", "a"),
        torrent("pausedDown", "b", [](TorrentStatus &t) { t.paused = true; }),
        torrent("seed", "c", [](TorrentStatus &t) { t.seeding = true; t.finished = true; t.uploadRate = 5; }),
        torrent("pausedSeed", "d", [](TorrentStatus &t) { t.seeding = true; t.paused = true; }),
        torrent("done", "e", [](TorrentStatus &t) { t.finished = true; }),
        torrent("fast", "f", [](TorrentStatus &t) { t.downloadRate = 1; }),
        torrent("broken", "g", [](TorrentStatus &t) { t.error = QStringLiteral("disk full"); t.paused = true; }),
    };
    struct Row
    {
        TorrentFilter filter;
        const char *kept;
    };
    const std::vector<Row> rows{
        {TorrentFilter::all, "down pausedDown seed pausedSeed done fast broken"},
        {TorrentFilter::downloading, "down fast"},
        {TorrentFilter::seeding, "seed"},
        {TorrentFilter::completed, "seed pausedSeed done"},
        {TorrentFilter::paused, "pausedDown pausedSeed broken"},
        {TorrentFilter::active, "seed fast"},
        {TorrentFilter::errors, "broken"},
    };
    for (const Row &row : rows) {
        QStringList kept;
        for (const TorrentStatus &t : library) {
            if (passesFilter(t, row.filter))
                kept << t.id;
        }
        EXPECT_EQ(kept, split(row.kept)) << rawValue(row.filter).toStdString();
        EXPECT_EQ(filterCount(library, row.filter), kept.size());
    }
}

TEST(LibraryRulesTest, SearchMatchesTheNameAndTheParsedTitleOnly)
{
    const TorrentStatus show = torrent("a", "Some.Show.S02E05.1080p.WEB-DL.mkv", [](TorrentStatus &t) {
        t.tracker = QStringLiteral("http://tracker.example/announce");
        t.savePath = QStringLiteral("/home/user/Films");
    });
    struct Row
    {
        QString search;
        bool passes;
    };
    const std::vector<Row> rows{
        {QString(), true},
        {QStringLiteral(" \t "), true},               // only blanks: no search at all
        {QStringLiteral("  SHOW.s02  "), true},       // the name, any case, trimmed
        {QStringLiteral("some show"), true},          // the parsed title has blanks where the name has dots
        {QStringLiteral("1080p.web"), true},
        {QStringLiteral("tracker.example"), false},   // not the tracker
        {QStringLiteral("Films"), false},             // not the save path
        {QStringLiteral("some\nshow"), true},         // a pasted new line parts words like a blank
        {QStringLiteral("show tracker"), false},      // every word must be found
    };
    for (const Row &row : rows)
        EXPECT_EQ(matchesSearch(show, normalizedSearch(row.search)), row.passes) << row.search.toStdString();

    // Case folding follows the locale, not ASCII only.
    EXPECT_TRUE(matchesSearch(torrent("b", "Серия 2"), normalizedSearch(QStringLiteral("СЕРИЯ"))));
}

TEST(LibraryRulesTest, SearchFindsReleaseNamesByTheWordsPeopleType)
{
    const QList<TorrentStatus> library{
        torrent("harbor", "Silver.Harbor.S02E05.1080p.WEB-DL.mkv"),
        torrent("hollow", "Dark_Hollow_(1987)_[DVDRip].avi"),
        torrent("moon", "Лунный.Свет.2015.BDRip.1080p"),
        torrent("hedgehog", "Ёжик в тумане (1975)"),
        torrent("album", "Some Band - Greatest Hits {2001}"),
    };
    struct Row
    {
        const char *search;
        const char *found;
    };
    const std::vector<Row> rows{
        {"silver harbor s02", "harbor"},
        {"Harbor silver", "harbor"},       // words in any order
        {"silver.harbor", "harbor"},       // the query's separators are blanks too
        {"сезон 2 серия 5", "harbor"},     // the parsed season and episode
        {"dark hollow 1987", "hollow"},
        {"hollow dvdrip", "hollow"},
        {"лунный свет 2015", "moon"},
        {"ЛУННЫЙ 1080P", "moon"},          // case folded for Cyrillic and Latin alike
        {"ежик в тумане", "hedgehog"},     // "ё" is read as "е" on both sides
        {"Ёжик 1975", "hedgehog"},
        {"band 2001", "album"},
        {"hits greatest", "album"},
        {"1080p", "harbor moon"},
        {"silver 1987", ""},               // words of two torrents find neither
        {"harbour", ""},
        {"  ", "harbor hollow moon hedgehog album"},
    };
    for (const Row &row : rows) {
        LibraryQuery query;
        query.search = QString::fromUtf8(row.search);
        QStringList found;
        for (const TorrentStatus &t : library) {
            if (matchesSearch(t, normalizedSearch(query.search)))
                found << t.id;
        }
        EXPECT_EQ(found, split(row.found)) << row.search;
    }
    EXPECT_EQ(searchReading(QStringLiteral("  Ёлки.(2010)_[BDRip]--Part  2 ")), QStringLiteral("елки 2010 bdrip part 2"));
}

TEST(LibraryRulesTest, SortsOrderLargerFirstAndBreakTiesByName)
{
    const QList<TorrentStatus> library{
        torrent("1", "Episode 10", [](TorrentStatus &t) { t.added = 100; t.total = 50; t.wantedDone = 500; }),
        torrent("2", "episode 2", [](TorrentStatus &t) { t.added = 300; t.total = 50; t.wantedDone = 500; }),
        torrent("3", "Alpha", [](TorrentStatus &t) { t.added = 300; t.total = 90; t.wanted = 0; }),
        torrent("4", "Beta", [](TorrentStatus &t) { t.added = 200; t.total = 10; t.wanted = 0; t.hasMetadata = false; }),
        // Unclamped: more done than wanted sorts above complete.
        torrent("5", "Gamma", [](TorrentStatus &t) { t.added = 50; t.total = 10; t.wantedDone = 1500; }),
        // Equal in everything but the id, and listed against its order: the id decides, so two
        // polls never swap them.
        torrent("7", "Delta", [](TorrentStatus &t) { t.added = 150; t.total = 30; t.wantedDone = 250; }),
        torrent("6", "Delta", [](TorrentStatus &t) { t.added = 150; t.total = 30; t.wantedDone = 250; }),
    };
    struct Row
    {
        LibrarySort sort;
        const char *order;
    };
    const std::vector<Row> rows{
        {LibrarySort::newest, "3 2 4 6 7 1 5"},   // 3 and 2 tie on added: Alpha before episode
        {LibrarySort::name, "3 4 6 7 2 1 5"},     // natural order: episode 2 before Episode 10, case ignored
        {LibrarySort::progress, "5 3 2 1 6 7 4"}, // 2 and 1 tie at one half: name rule
        {LibrarySort::size, "3 2 1 6 7 4 5"},
    };
    for (const Row &row : rows) {
        LibraryQuery query;
        query.sort = row.sort;
        EXPECT_EQ(idsOf(visibleTorrents(library, query)), split(row.order)) << rawValue(row.sort).toStdString();
    }
}

TEST(LibraryRulesTest, TableLayoutSortsByItsColumnsAndIgnoresThePreference)
{
    const QList<TorrentStatus> library{
        torrent("old", "Alpha", [](TorrentStatus &t) { t.added = 1; t.total = 300; }),
        torrent("new", "Beta", [](TorrentStatus &t) { t.added = 3; t.total = 100; }),
        torrent("mid", "Gamma", [](TorrentStatus &t) { t.added = 2; t.total = 100; }),
    };
    LibraryQuery query;
    query.sort = LibrarySort::name;
    EXPECT_EQ(idsOf(visibleTorrents(library, query)), split("old new mid"));

    query.layout = LibraryLayout::table;
    EXPECT_EQ(idsOf(visibleTorrents(library, query)), split("new mid old"));

    // Columns apply in turn; rows equal on every column keep the engine's order.
    query.tableSort = {{TableSortKey::size, true}};
    EXPECT_EQ(idsOf(visibleTorrents(library, query)), split("new mid old"));
    query.tableSort = {{TableSortKey::size, true}, {TableSortKey::name, false}};
    EXPECT_EQ(idsOf(visibleTorrents(library, query)), split("mid new old"));
}

TEST(LibraryRulesTest, PrimaryIsTheSingleSelectionOrTheFirstSelectedInDisplayOrder)
{
    const QList<TorrentStatus> visible{torrent("x", "X"), torrent("y", "Y"), torrent("z", "Z")};
    const std::vector<std::pair<const char *, std::optional<QString>>> rows{
        {"", std::nullopt},
        {"gone other", std::nullopt},
        {"y", QStringLiteral("y")},
        {"z y", QStringLiteral("y")},
        {"gone z", QStringLiteral("z")},
    };
    for (const auto &[selection, primary] : rows)
        EXPECT_EQ(primarySelection(set(selection), visible), primary) << selection;
}

TEST(LibraryRulesTest, ClicksSelectByModifier)
{
    const QStringList visible = split("a b c d e");
    struct Row
    {
        const char *what;
        const char *selection;
        std::optional<QString> anchor;
        const char *id;
        Qt::KeyboardModifiers modifiers;
        ClickOutcome outcome;
    };
    const std::vector<Row> rows{
        {"plain click selects alone and opens", "a b", QStringLiteral("a"), "c", Qt::NoModifier, {set("c"), true}},
        {"ctrl adds", "a", QStringLiteral("a"), "c", Qt::ControlModifier, {set("a c"), false}},
        {"ctrl removes", "a c", QStringLiteral("a"), "c", Qt::ControlModifier, {set("a"), false}},
        {"ctrl wins over shift", "a", QStringLiteral("a"), "d", Qt::ControlModifier | Qt::ShiftModifier,
         {set("a d"), false}},
        {"shift takes the range down and drops the rest", "e", QStringLiteral("b"), "d", Qt::ShiftModifier,
         {set("b c d"), false}},
        {"shift takes the range up", "", QStringLiteral("d"), "b", Qt::ShiftModifier, {set("b c d"), false}},
        {"shift on the anchor itself", "", QStringLiteral("c"), "c", Qt::ShiftModifier, {set("c"), false}},
        {"shift without an anchor is a plain click", "a", std::nullopt, "c", Qt::ShiftModifier, {set("c"), true}},
        {"shift after the anchor was filtered away is a plain click", "a", QStringLiteral("hidden"), "c",
         Qt::ShiftModifier, {set("c"), true}},
    };
    for (const Row &row : rows) {
        const ClickOutcome outcome = clickSelection(set(row.selection), row.anchor, QString::fromUtf8(row.id),
                                                    row.modifiers, visible);
        EXPECT_EQ(outcome, row.outcome) << row.what;
    }
}

} // namespace
