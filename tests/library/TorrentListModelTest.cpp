#include "library/MainViewModel.h"
#include "library/TorrentListModel.h"

#include "engine/TorrentEngine.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

#include <memory>

using testsupport::TempDir;

namespace {

TorrentStatus status(const QString &id, qint64 added)
{
    TorrentStatus t;
    t.id = id;
    t.name = QStringLiteral("Film ") + id + QStringLiteral(".mkv");
    t.state = QStringLiteral("downloading");
    t.hasMetadata = true;
    t.total = 1000;
    t.wanted = 1000;
    t.added = added;
    return t;
}

QList<TorrentStatus> library(int count)
{
    QList<TorrentStatus> list;
    for (int i = 0; i < count; ++i)
        list << status(QStringLiteral("t%1").arg(i, 4, 10, QLatin1Char('0')), 10000 - i);
    return list;
}

// Every structural signal the views get, counted.
struct Signals
{
    explicit Signals(QAbstractItemModel *model)
        : changed(model, &QAbstractItemModel::dataChanged)
        , inserted(model, &QAbstractItemModel::rowsInserted)
        , removed(model, &QAbstractItemModel::rowsRemoved)
        , moved(model, &QAbstractItemModel::rowsMoved)
        , reset(model, &QAbstractItemModel::modelReset)
    {
    }
    QSignalSpy changed, inserted, removed, moved, reset;
};

QStringList idsOf(const TorrentListModel &model)
{
    QStringList ids;
    for (int row = 0; row < model.rowCount(); ++row)
        ids << model.idAt(row);
    return ids;
}

TEST(TorrentListModelTest, APollThatChangesOneTorrentTellsOnlyItsRow)
{
    TorrentListModel model;
    QList<TorrentStatus> list = library(2000);
    model.setTorrents(list);
    ASSERT_EQ(model.rowCount(), 2000);

    Signals spy(&model);
    list[1234].wantedDone = 500;
    list[1234].downloadRate = 2048;
    model.setTorrents(list);
    ASSERT_EQ(spy.changed.count(), 1);
    EXPECT_EQ(spy.changed.at(0).at(0).toModelIndex().row(), 1234);
    EXPECT_EQ(spy.changed.at(0).at(1).toModelIndex().row(), 1234);
    EXPECT_EQ(spy.inserted.count() + spy.removed.count() + spy.moved.count() + spy.reset.count(), 0);
    EXPECT_EQ(model.data(model.index(1234), TorrentListModel::ProgressTextRole).toString(), QStringLiteral("50%"));

    // The same list again tells nothing.
    model.setTorrents(list);
    EXPECT_EQ(spy.changed.count(), 1);
}

TEST(TorrentListModelTest, ComingGoingAndFewMovesAreRowSignalsAndANewOrderResets)
{
    TorrentListModel model;
    QList<TorrentStatus> list = library(10);
    model.setTorrents(list);

    {
        // Two gone (one of them the first), one new in the middle.
        Signals spy(&model);
        QList<TorrentStatus> next = list;
        next.removeAt(6);
        next.removeAt(0);
        next.insert(3, status(QStringLiteral("new"), 1));
        model.setTorrents(next);
        EXPECT_EQ(idsOf(model), QStringList({"t0001", "t0002", "t0003", "new", "t0004", "t0005", "t0007", "t0008", "t0009"}));
        EXPECT_EQ(spy.removed.count(), 2);
        EXPECT_EQ(spy.inserted.count(), 1);
        EXPECT_EQ(spy.reset.count() + spy.moved.count() + spy.changed.count(), 0);
        list = next;
    }
    {
        // One torrent moves up (a rename under the name sort): a move, not a reset.
        Signals spy(&model);
        QList<TorrentStatus> next = list;
        next.move(7, 1);
        model.setTorrents(next);
        EXPECT_EQ(spy.moved.count(), 1);
        EXPECT_EQ(spy.reset.count(), 0);
        EXPECT_EQ(idsOf(model).at(1), QStringLiteral("t0008"));
        list = next;
    }
    {
        Signals spy(&model);
        std::reverse(list.begin(), list.end());
        model.setTorrents(list);
        EXPECT_EQ(spy.reset.count(), 1);
        EXPECT_EQ(spy.changed.count() + spy.moved.count(), 0);
        QStringList expected;
        for (const TorrentStatus &t : list)
            expected << t.id;
        EXPECT_EQ(idsOf(model), expected);
    }
    {
        Signals spy(&model);
        model.setTorrents({});
        EXPECT_EQ(model.rowCount(), 0);
        EXPECT_EQ(spy.removed.count(), 1); // one block
    }
}

TEST(TorrentListModelTest, SelectionTellsTheRowsWhoseMembershipChanged)
{
    TorrentListModel model;
    model.setTorrents(library(5));
    TorrentTableModel table(&model);
    Signals spy(&model);
    QSignalSpy tableChanged(&table, &QAbstractItemModel::dataChanged);
    model.setSelection({QStringLiteral("t0001"), QStringLiteral("t0003")});
    model.setSelection({QStringLiteral("t0003"), QStringLiteral("t0004")});
    QList<int> rows;
    for (const auto &arguments : spy.changed) {
        rows << arguments.at(0).toModelIndex().row();
        EXPECT_EQ(arguments.at(2).value<QList<int>>(), QList<int>{TorrentListModel::SelectedRole});
    }
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ(rows, (QList<int>{1, 1, 3, 4}));
    EXPECT_TRUE(model.data(model.index(4), TorrentListModel::SelectedRole).toBool());
    // The table tells the whole line of each.
    ASSERT_EQ(tableChanged.count(), 4);
    EXPECT_EQ(tableChanged.at(0).at(1).toModelIndex().column(), 5);
    EXPECT_EQ(table.data(table.index(4, 0), Qt::DisplayRole).toString(), QStringLiteral("Film t0004.mkv"));
    EXPECT_EQ(table.data(table.index(4, 5), Qt::DisplayRole).toString(), QStringLiteral("—")); // idle: no time left
}

// The model over a real engine whose list the test sets as a poll would.
class MainViewModelTest : public ::testing::Test
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
        apply(library(4));
        state = std::make_unique<MainUIState>(home.qpath(), s_engine);
        model = std::make_unique<MainViewModel>(s_engine, nullptr, state.get());
    }
    void TearDown() override
    {
        model.reset();
        state.reset();
    }
    static void apply(const QList<TorrentStatus> &torrents)
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
    std::unique_ptr<MainViewModel> model;
};

TempDir *MainViewModelTest::s_home = nullptr;
TorrentEngine *MainViewModelTest::s_engine = nullptr;

TEST_F(MainViewModelTest, ARemovedTorrentLeavesTheSelectionAndItsRowOnly)
{
    model->selectItem(QStringLiteral("t0001"), Qt::NoModifier);
    model->selectItem(QStringLiteral("t0003"), Qt::ShiftModifier);
    EXPECT_EQ(state->selection(), ids({"t0001", "t0002", "t0003"}));
    EXPECT_EQ(model->selectionText(), QStringLiteral("Выбрано: 3"));

    Signals spy(model->torrents());
    QList<TorrentStatus> next = library(4);
    next.removeAt(2);
    apply(next);
    EXPECT_EQ(state->selection(), ids({"t0001", "t0003"}));
    EXPECT_EQ(model->selectionText(), QStringLiteral("Выбрано: 2"));
    EXPECT_EQ(model->countText(), QStringLiteral("В коллекции: 3"));
    EXPECT_EQ(spy.removed.count(), 1);
    EXPECT_EQ(spy.reset.count(), 0);

    // The context menu of a selected torrent acts on the whole selection.
    model->runCommand(QStringLiteral("t0003"), QStringLiteral("remove"));
    EXPECT_TRUE(model->showRemoval());
    EXPECT_EQ(model->removalTitle(), QStringLiteral("Удалить торренты: 2?"));
    model->cancelRemoval();
    EXPECT_FALSE(model->showRemoval());
    EXPECT_TRUE(model->pendingRemoval().isEmpty());
    // ... of another torrent on that one alone.
    model->runCommand(QStringLiteral("t0000"), QStringLiteral("remove"));
    EXPECT_EQ(model->removalTitle(), QStringLiteral("Удалить «Film t0000.mkv»?"));
    model->cancelRemoval();
}

TEST_F(MainViewModelTest, KeysAndTableClicksSelectWithoutOpening)
{
    model->keySelect(QStringLiteral("t0000"), false);
    model->keySelect(QStringLiteral("t0002"), true);
    EXPECT_EQ(state->selection(), ids({"t0000", "t0001", "t0002"}));
    model->tableClick(QStringLiteral("t0003"), Qt::ControlModifier);
    EXPECT_EQ(state->selection(), ids({"t0000", "t0001", "t0002", "t0003"}));
    model->tableClick(QStringLiteral("t0001"), Qt::NoModifier);
    EXPECT_EQ(state->selection(), ids({"t0001"}));
    EXPECT_EQ(state->openedTorrentID(), QString());
    EXPECT_EQ(model->contentMode(), QStringLiteral("library"));
    model->selectAll();
    EXPECT_EQ(state->selection().size(), 4);

    // A plain click opens the contents screen, Escape leaves it; a search goes first.
    model->selectItem(QStringLiteral("t0002"), Qt::NoModifier);
    EXPECT_EQ(model->contentMode(), QStringLiteral("contents"));
    state->setSearch(QStringLiteral("film"));
    model->escape();
    EXPECT_EQ(state->search(), QString());
    EXPECT_EQ(model->contentMode(), QStringLiteral("contents"));
    model->escape();
    EXPECT_EQ(model->contentMode(), QStringLiteral("library"));
}

TEST_F(MainViewModelTest, TableHeaderClicksLeadTheSortAndTurnItsDirection)
{
    state->setProperty("layout", QStringLiteral("table"));
    EXPECT_FALSE(model->sortMenuVisible());
    EXPECT_EQ(model->sortColumn(), 3); // added, newest first
    EXPECT_FALSE(model->sortAscending());
    model->sortByColumn(3);
    EXPECT_TRUE(model->sortAscending());
    EXPECT_EQ(model->torrents()->idAt(0), QStringLiteral("t0003"));
    model->sortByColumn(0);
    EXPECT_EQ(model->sortColumn(), 0);
    EXPECT_TRUE(model->sortAscending());
    EXPECT_EQ(state->tableSort(), (QList<TableSortColumn>{{TableSortKey::name, true}, {TableSortKey::added, true}}));
    EXPECT_EQ(model->torrents()->idAt(0), QStringLiteral("t0000"));
}

TEST_F(MainViewModelTest, AFocusRequestSelectsAndOpensTheInspectorOnce)
{
    state->setFilter(TorrentFilter::paused);
    state->setShowSettings(true);
    s_engine->setFocusRequest(QStringLiteral("t0002"));
    EXPECT_EQ(state->selection(), ids({"t0002"}));
    EXPECT_EQ(state->filter(), TorrentFilter::all);
    EXPECT_EQ(state->tab(), DetailTab::files);
    EXPECT_TRUE(state->showDetails());
    EXPECT_TRUE(model->showsInspector());
    EXPECT_EQ(s_engine->focusRequest(), QString());

    // The sidebar counts all torrents whatever the search.
    state->setSearch(QStringLiteral("t0001"));
    EXPECT_EQ(model->countText(), QStringLiteral("В коллекции: 1"));
    EXPECT_EQ(model->filterCount(QStringLiteral("all")), 4);
    EXPECT_FALSE(model->showsInspector()); // t0002 left the selection with the search
}

} // namespace
