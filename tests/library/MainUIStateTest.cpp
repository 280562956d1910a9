#include "library/MainUIState.h"

#include "engine/TorrentEngine.h"
#include "support/LocalSwarm.h"
#include "support/SmallDisk.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

using testsupport::TempDir;

namespace {

TEST(LibraryPreferencesTest, DecodesEachKeyOnItsOwnAndRejectsUnknownValuesWhole)
{
    struct Row
    {
        const char *file;
        LibraryPreferences expected;
    };
    const std::vector<Row> rows{
        {"", {}}, // missing
        {"not json", {}},
        {R"({"layout":"table"})", {LibraryLayout::table, LibrarySort::newest, false}},
        {R"({"sort":"size","transferDetailsCollapsed":true,"extra":1})", {LibraryLayout::grid, LibrarySort::size, true}},
        // One unknown or mistyped value and none of the three is taken.
        {R"({"layout":"mosaic","sort":"size","transferDetailsCollapsed":true})", {}},
        {R"({"layout":"list","transferDetailsCollapsed":"yes"})", {}},
    };
    TempDir dir;
    const QString path = dir.qpath() + QStringLiteral("/library.json");
    for (const Row &row : rows) {
        QFile::remove(path);
        QFile file(path);
        if (*row.file && file.open(QIODevice::WriteOnly))
            file.write(row.file);
        file.close();
        EXPECT_EQ(LibraryPreferences::load(path), row.expected) << row.file;
    }
}

// The state over an engine whose list the test sets. The engine's own polls land only when the
// event loop runs, which these tests never do, so the list stays as set.
class MainUIStateTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_home = new TempDir;
        s_engine = new TorrentEngine(s_home->qpath(), nullptr,
                                     QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort())));
    }
    static void TearDownTestSuite()
    {
        s_engine->shutdown();
        delete s_engine;
        delete s_home;
    }

    void SetUp() override
    {
        // Newest first: a b c d; b and d paused.
        setLibrary({status("a", 4), status("b", 3, true), status("c", 2), status("d", 1, true)});
        state = std::make_unique<MainUIState>(home.qpath(), s_engine);
    }

    static TorrentStatus status(const char *id, qint64 added, bool paused = false)
    {
        TorrentStatus t;
        t.id = QString::fromUtf8(id);
        t.name = QStringLiteral("Name ") + t.id;
        t.state = QStringLiteral("downloading");
        t.added = added;
        t.paused = paused;
        return t;
    }

    static void setLibrary(const QList<TorrentStatus> &torrents)
    {
        StatusSnapshot snapshot;
        snapshot.torrents = torrents;
        s_engine->apply(snapshot, {});
    }

    static QSet<QString> ids(const QStringList &list) { return QSet<QString>(list.begin(), list.end()); }

    static TempDir *s_home;
    static TorrentEngine *s_engine;
    TempDir home;
    std::unique_ptr<MainUIState> state;
};

TempDir *MainUIStateTest::s_home = nullptr;
TorrentEngine *MainUIStateTest::s_engine = nullptr;

TEST_F(MainUIStateTest, PreferencesAreSavedTheMomentTheyChangeAndOnlyTheyOutliveALaunch)
{
    state->toggleTransferDetails();
    EXPECT_TRUE(LibraryPreferences::load(state->preferencesPath()).transferDetailsCollapsed);
    state->setProperty("layout", QStringLiteral("table"));
    state->setProperty("sort", QStringLiteral("no such sort"));
    state->setFilter(TorrentFilter::paused);

    MainUIState relaunched(home.qpath(), s_engine);
    EXPECT_EQ(relaunched.preferences(), (LibraryPreferences{LibraryLayout::table, LibrarySort::newest, true}));
    EXPECT_EQ(relaunched.filter(), TorrentFilter::all);
}

TEST_F(MainUIStateTest, ALibraryFileThatDoesNotDecodeIsKeptAsideAndTheUserTold)
{
    // A layout a newer build knows: the file is the user's and is not overwritten by defaults.
    const std::string written = R"({"layout":"mosaic","sort":"size"})";
    std::ofstream(home.file("library.json")) << written;
    MainUIState relaunched(home.qpath(), s_engine);
    EXPECT_EQ(relaunched.preferences(), LibraryPreferences{});
    EXPECT_EQ(s_engine->toast(), QStringLiteral("Не удалось прочитать library.json: сохранена копия"));
    relaunched.setProperty("layout", QStringLiteral("list"));
    EXPECT_EQ(LibraryPreferences::load(relaunched.preferencesPath()).layout, LibraryLayout::list);
    const QStringList copies = QDir(home.qpath()).entryList({QStringLiteral("library.json.unreadable-*")}, QDir::Files);
    ASSERT_EQ(copies.size(), 1);
    EXPECT_EQ(testsupport::readWholeFile(home.file(copies.first().toStdString())), written);
}

TEST(LibraryFullDiskTest, ALayoutThatFindsNoRoomKeepsTheOldFileAndLandsWhenThereIsRoom)
{
    const auto disk = testsupport::onSmallDisk(512 * 1024);
    if (!disk)
        return;
    const QString home = QString::fromStdString(*disk) + QStringLiteral("/home");
    TorrentEngine engine(home, nullptr, QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort())));
    MainUIState state(home, &engine);
    state.setProperty("layout", QStringLiteral("list"));
    ASSERT_EQ(LibraryPreferences::load(state.preferencesPath()).layout, LibraryLayout::list);

    const std::string filler = testsupport::fillDisk(*disk);
    state.setProperty("layout", QStringLiteral("table"));
    EXPECT_EQ(engine.toast(), QStringLiteral("Не удалось сохранить library.json: нет места на диске"));
    EXPECT_EQ(LibraryPreferences::load(state.preferencesPath()).layout, LibraryLayout::list);
    std::filesystem::remove(filler);
    EXPECT_TRUE(testsupport::waitFor([&] { return LibraryPreferences::load(state.preferencesPath()).layout == LibraryLayout::table; }));
    engine.shutdown();
}

TEST_F(MainUIStateTest, ShiftClickMeasuresFromTheLastClickWhileItIsVisible)
{
    state->selectItem(QStringLiteral("b"), Qt::NoModifier);
    EXPECT_EQ(state->openedTorrentID(), QStringLiteral("b"));
    state->setOpenedTorrentID(QString());
    state->selectItem(QStringLiteral("d"), Qt::ShiftModifier);
    EXPECT_EQ(state->selection(), ids({"b", "c", "d"}));
    EXPECT_EQ(state->openedTorrentID(), QString());
    // The ctrl-click moves the anchor to a.
    state->selectItem(QStringLiteral("a"), Qt::ControlModifier);
    state->selectItem(QStringLiteral("b"), Qt::ShiftModifier);
    EXPECT_EQ(state->selection(), ids({"a", "b"}));

    // Filtered away, the anchor (b) is no use: the click is a plain one and opens the torrent.
    state->setFilter(TorrentFilter::downloading);
    state->selectItem(QStringLiteral("c"), Qt::ShiftModifier);
    EXPECT_EQ(state->selection(), ids({"c"}));
    EXPECT_EQ(state->openedTorrentID(), QStringLiteral("c"));
}

TEST_F(MainUIStateTest, ReconcileDropsHiddenTorrentsForGood)
{
    state->setSelection(ids({"a", "b"}));
    state->setShowDetails(true);
    state->setOpenedTorrentID(QStringLiteral("c"));

    state->setSearch(QStringLiteral("  name B "));
    state->reconcileSelection();
    EXPECT_EQ(state->selection(), ids({"b"}));
    EXPECT_EQ(state->primary(), QStringLiteral("b"));
    EXPECT_TRUE(state->showDetails());
    EXPECT_EQ(state->openedTorrentID(), QStringLiteral("c")); // hidden, but the engine still has it

    state->setSearch(QString());
    state->setFilter(TorrentFilter::downloading);
    state->reconcileSelection();
    EXPECT_TRUE(state->selection().isEmpty());
    EXPECT_FALSE(state->showDetails());

    setLibrary({status("a", 4)});
    state->reconcileSelection();
    EXPECT_EQ(state->openedTorrentID(), QString());
}

} // namespace
