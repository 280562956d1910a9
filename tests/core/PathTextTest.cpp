#include "core/NaturalCompare.h"
#include "core/PathText.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

struct PathRow
{
    const char *path;
    const char *last;
    const char *extension;
    const char *withoutExtension;
    const char *parent;
};

constexpr std::array<PathRow, 11> PathRows{{
    {"Show/Season 1/Show.S01E02.mkv", "Show.S01E02.mkv", "mkv", "Show/Season 1/Show.S01E02", "Show/Season 1"},
    {"film.2019.1080p.mp4", "film.2019.1080p.mp4", "mp4", "film.2019.1080p", ""},
    {"a.b/c", "c", "", "a.b/c", "a.b"},
    {"dir/", "dir", "", "dir", ""},
    {"/abs/file.srt", "file.srt", "srt", "/abs/file", "/abs"},
    {"/file", "file", "", "/file", "/"},
    {"/", "/", "", "/", "/"},
    {"", "", "", "", ""},
    {".hidden", ".hidden", "", ".hidden", ""},
    {"name.", "name.", "", "name.", ""},
    {"Сериал/Серия 1.avi", "Серия 1.avi", "avi", "Сериал/Серия 1", "Сериал"},
}};

} // namespace

TEST(PathTextTest, SplitsTorrentPathsLikeTheDesktopDoes)
{
    for (const PathRow &row : PathRows) {
        const QString path = QString::fromUtf8(row.path);
        SCOPED_TRACE(row.path);
        EXPECT_EQ(PathText::lastPathComponent(path), QString::fromUtf8(row.last));
        EXPECT_EQ(PathText::pathExtension(path), QString::fromUtf8(row.extension));
        EXPECT_EQ(PathText::stringByDeletingPathExtension(path), QString::fromUtf8(row.withoutExtension));
        EXPECT_EQ(PathText::stringByDeletingLastPathComponent(path), QString::fromUtf8(row.parent));
    }
}

TEST(NaturalCompareTest, OrdersNumbersByValueAndIgnoresCase)
{
    struct Row
    {
        const char *a;
        const char *b;
        int expected;
    };
    constexpr std::array<Row, 8> rows{{
        {"Серия 2", "Серия 10", -1},
        {"a2", "A10", -1},
        {"Episode 9.mkv", "Episode 10.mkv", -1},
        {"file", "FILE", 0},
        {"b", "a", 1},
        {"x1y2", "x1y10", -1},
        {"Season 1/E10", "Season 2/E1", -1},
        {"", "a", -1},
    }};
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.a) + " vs " + row.b);
        EXPECT_EQ(localizedStandardCompare(QString::fromUtf8(row.a), QString::fromUtf8(row.b)), row.expected);
        EXPECT_EQ(localizedStandardCompare(QString::fromUtf8(row.b), QString::fromUtf8(row.a)), -row.expected);
    }
    QStringList names{QStringLiteral("E10"), QStringLiteral("e2"), QStringLiteral("E1"), QStringLiteral("e21")};
    std::stable_sort(names.begin(), names.end(), localizedStandardLess);
    EXPECT_EQ(names, (QStringList{QStringLiteral("E1"), QStringLiteral("e2"), QStringLiteral("E10"), QStringLiteral("e21")}));
}
