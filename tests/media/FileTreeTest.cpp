#include "media/FileTree.h"

#include "MediaTestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>

// Rows print as their ids, which is what a failure needs to name them.
void PrintTo(const FileNode &node, std::ostream *out)
{
    *out << node.id.toStdString() << " done " << node.done;
}

namespace {

using mediatest::torrentFiles;

QStringList flatIds(const QList<FileNode> &nodes)
{
    QStringList ids;
    for (const FileNode &node : FileTree::flatten(nodes))
        ids.append(node.id);
    return ids;
}

TEST(FileTreeTest, TreeShapeFromPaths)
{
    struct Row {
        const char *what;
        QList<TorrentFile> files;
        const char *filter;
        QStringList ids;  // in flatten order
    };
    const std::vector<Row> rows{
        {"only padding", torrentFiles({".pad/16384", ".pad/1024"}), "", {}},
        {"one top folder is stripped", torrentFiles({"Show/a.mkv", "Show/b.mkv"}), "",
         {"f:0", "f:1"}},
        {"two top folders stay", torrentFiles({"Show/a.mkv", "Other/b.mkv"}), "",
         {"d:/Other", "f:1", "d:/Show", "f:0"}},
        {"a file named like the top folder stops the stripping",
         torrentFiles({"Show/a.mkv", "Show"}), "", {"d:/Show", "f:0", "f:1"}},
        {"only one level is stripped", torrentFiles({"Show/S1/a.mkv", "Show/S1/b.mkv"}), "",
         {"d:/S1", "f:0", "f:1"}},
        {"empty components are ignored", torrentFiles({"/Show//X/a.mkv", "Show/X//b.mkv/"}), "",
         {"d:/X", "f:0", "f:1"}},
        // libtorrent keeps padding in a top-level ".pad" folder; it must not hide the root.
        {"padding does not block the root", torrentFiles({".pad/32768", "Show/a.mkv"}), "",
         {"f:1"}},
        {"folders first, then natural order ignoring case",
         torrentFiles({"S/Episode 10.mkv", "S/Episode 2.mkv", "S/Extras/x.mkv", "S/episode 1.mkv",
                       "S/Covers/y.jpg"}),
         "", {"d:/Covers", "f:4", "d:/Extras", "f:2", "f:3", "f:1", "f:0"}},
        {"blank filter is no filter", torrentFiles({"S/1/a.mkv", "S/2/b.mkv"}), " \t ",
         {"d:/1", "f:0", "d:/2", "f:1"}},
        {"filter on the file name; folder ids keep the stripped root",
         torrentFiles({"S/Season 1/show.s01e02.mkv", "S/Season 2/show.s02e01.mkv"}), "S01",
         {"d:/Season 1", "f:0"}},
        {"filter on the stripped top folder keeps everything",
         torrentFiles({"Show.Complete/S1/a.mkv", "Show.Complete/b.mkv"}), "COMPLETE",
         {"d:/S1", "f:0", "f:1"}},
        {"filter in Cyrillic ignores case",
         torrentFiles({"Сериал/Серия 1.mkv", "Сериал/Субтитры/Серия 1.srt"}), "СУБТИТРЫ",
         {QString::fromUtf8("d:/Субтитры"), "f:1"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(flatIds(FileTree::build(row.files, QStringLiteral("ignored"),
                                          QString::fromUtf8(row.filter))),
                  row.ids);
    }
}

TEST(FileTreeTest, NamesEqualButForCaseKeepTheirOrder)
{
    // All 32 spellings of "extra" collate the same, as folders and as files: enough siblings
    // that a sort which is not stable would show it.
    QStringList spellings;
    for (int mask = 31; mask >= 0; --mask) {
        QString name = QStringLiteral("extra");
        for (int letter = 0; letter < 5; ++letter) {
            if (mask & (1 << letter))
                name[letter] = name.at(letter).toUpper();
        }
        spellings.append(name);
    }
    QList<TorrentFile> files;
    for (const QString &suffix : {QStringLiteral("/clip.mkv"), QStringLiteral(".srt")}) {
        for (const QString &name : spellings)
            files.append({static_cast<int>(files.size()), QStringLiteral("Show/") + name + suffix});
    }
    const QList<FileNode> top = FileTree::build(files);
    ASSERT_EQ(top.size(), 64);
    for (qsizetype n = 0; n < 32; ++n) {
        EXPECT_EQ(top.at(n).name, spellings.at(n));
        EXPECT_EQ(top.at(32 + n).name, spellings.at(n) + QStringLiteral(".srt"));
    }
}

TEST(FileTreeTest, FoldersSumAndUniteTheirFiles)
{
    QList<TorrentFile> files = torrentFiles({"Show/Season 1/E02.mkv", "Show/Season 1/E01.mkv",
                                             "Show/Season 2/Extras/Clip.MKV", "Show/Notes.txt"});
    const std::vector<std::tuple<qint64, qint64, int>> sizeDonePrio{
        {200, 50, 4}, {100, 100, 0}, {300, 0, 1}, {5, 5, 7}};
    for (qsizetype n = 0; n < files.size(); ++n)
        std::tie(files[n].size, files[n].done, files[n].prio) = sizeDonePrio.at(n);

    const QList<FileNode> top = FileTree::build(files);
    ASSERT_EQ(top.size(), 3);
    const FileNode &season1 = top.at(0);
    EXPECT_EQ(std::tuple(season1.name, season1.size, season1.done),
              std::tuple(QStringLiteral("Season 1"), qint64(300), qint64(150)));
    EXPECT_EQ(season1.indices, (QList<int>{1, 0}));  // children sorted: E01 first
    EXPECT_EQ(season1.priorities, (QSet<int>{0, 4}));
    EXPECT_FALSE(season1.file || season1.kind);

    const FileNode &season2 = top.at(1);
    EXPECT_EQ(season2.indices, (QList<int>{2}));
    EXPECT_EQ(season2.check(), CheckState::on);
    ASSERT_EQ(season2.children.size(), 1);
    EXPECT_EQ(season2.children.at(0).id, QStringLiteral("d:/Season 2/Extras"));
    const FileNode &clip = season2.children.at(0).children.value(0);
    EXPECT_EQ(std::tuple(clip.name, clip.kind, clip.file),
              std::tuple(QStringLiteral("Clip.MKV"), std::optional(MediaKind::video),
                         std::optional(files.at(2))));
    EXPECT_EQ(std::tuple(top.at(2).id, top.at(2).kind),
              std::tuple(QStringLiteral("f:3"), std::optional(MediaKind::text)));
}

TEST(FileTreeTest, CheckStateFromPriorities)
{
    const std::vector<std::pair<QSet<int>, CheckState>> rows{
        {{}, CheckState::off},    {{0}, CheckState::off},  {{0, 4}, CheckState::mixed},
        {{1, 4}, CheckState::on}, {{-1}, CheckState::off}, {{-1, 4}, CheckState::on},
    };
    for (const auto &[priorities, state] : rows) {
        FileNode node;
        node.priorities = priorities;
        std::vector<int> sorted(priorities.begin(), priorities.end());
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(node.check(), state) << ::testing::PrintToString(sorted);
    }
}

TEST(FileTreeTest, NodesCompareByProgressAndPrioritiesOnly)
{
    const QList<TorrentFile> files = torrentFiles({"Show/A/a.mkv", "Show/A/b.mkv", "Show/c.mkv"});
    const QList<FileNode> before = FileTree::build(files);

    QList<TorrentFile> changed = files;
    changed[0].size = 5;
    changed[0].path = QStringLiteral("Show/A/aa.mkv");  // renamed, still before b.mkv
    EXPECT_EQ(FileTree::build(changed), before) << "size and name take no part";

    changed = files;
    changed[1].done = 10;
    EXPECT_NE(FileTree::build(changed).at(0), before.at(0)) << "a child's progress redraws";
    EXPECT_EQ(FileTree::build(changed).at(1), before.at(1));

    changed = files;
    changed[2].prio = 0;
    EXPECT_NE(FileTree::build(changed).at(1), before.at(1));
}

TEST(FileTreeTest, FindFollowsFlattenOrder)
{
    const QList<TorrentFile> files =
        torrentFiles({"Show/Season 2/b.mkv", "Show/Season 1/a.mkv", "Show/Season 1/X/c.mkv"});
    const QList<FileNode> tree = FileTree::build(files);
    EXPECT_EQ(flatIds(tree),
              (QStringList{"d:/Season 1", "d:/Season 1/X", "f:2", "f:1", "d:/Season 2", "f:0"}));
    EXPECT_EQ(flatIds(FileTree::find({"f:0", "d:/Season 1/X", "d:/Missing", "f:1"}, tree)),
              (QStringList{"d:/Season 1/X", "f:2", "f:1", "f:0"}));
    EXPECT_TRUE(FileTree::find({}, tree).isEmpty());

    // A folder whose files were all filtered away is not in the tree: its id finds nothing.
    const QList<FileNode> filtered = FileTree::build(files, {}, QStringLiteral("b.mkv"));
    EXPECT_TRUE(FileTree::find({"d:/Season 1", "d:/Season 1/X"}, filtered).isEmpty());
}

} // namespace
