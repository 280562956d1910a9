// The library screens drawn in a real window over a real engine: torrents made and seeded on
// 127.0.0.1 at run time, clicked with the mouse and driven by the keyboard. Runs under Xvfb;
// every screen it passes through is written as a PNG for a person to look at.

#include "library/MainViewModel.h"

#include "engine/TorrentEngine.h"
#include "library/TorrentDisplay.h"
#include "support/LocalSwarm.h"
#include "support/TaskResult.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QIcon>
#include <QPainter>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QQuickImageProvider>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>
#include <QUrl>
#include <QtPlugin>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

Q_IMPORT_QML_PLUGIN(Velix_LibraryPlugin)

using testsupport::LocalSeeder;
using testsupport::MadeTorrent;
using testsupport::TempDir;
using testsupport::waitFor;
namespace fs = std::filesystem;

namespace {

// The program's symbol images come with the window frame; here a plain mark stands in for each
// so the screenshots show where the symbols sit.
class MarkProvider : public QQuickImageProvider
{
public:
    MarkProvider() : QQuickImageProvider(QQuickImageProvider::Image) {}
    QImage requestImage(const QString &, QSize *size, const QSize &requested) override
    {
        const QSize side = requested.isValid() && !requested.isEmpty() ? requested : QSize(32, 32);
        QImage image(side, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(QColor(220, 220, 230), side.width() / 10.0));
        painter.drawEllipse(QRectF(image.rect()).adjusted(3, 3, -3, -3));
        if (size)
            *size = side;
        return image;
    }
};

QQuickItem *findItem(QQuickItem *root, const QString &name)
{
    if (!root)
        return nullptr;
    if (root->objectName() == name && root->isVisible())
        return root;
    for (QQuickItem *child : root->childItems()) {
        if (QQuickItem *found = findItem(child, name))
            return found;
    }
    return nullptr;
}

int countItems(QQuickItem *root, const QString &prefix)
{
    if (!root || !root->isVisible())
        return 0;
    int count = root->objectName().startsWith(prefix) ? 1 : 0;
    for (QQuickItem *child : root->childItems())
        count += countItems(child, prefix);
    return count;
}

QString screenshotDir()
{
    const QString dir = QStringLiteral(VELIX_SCREENSHOT_DIR);
    QDir().mkpath(dir);
    return dir;
}

class MainViewTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        port = testsupport::freeTcpPort();
        engine = std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(testsupport::quietSettingsText(port)));
        state = std::make_unique<MainUIState>(home.qpath(), engine.get());
        model = std::make_unique<MainViewModel>(engine.get(), nullptr, state.get());
        MainViewModel::install(model.get());

        qml = std::make_unique<QQmlApplicationEngine>();
        qml->addImportPath(QStringLiteral("qrc:/qt/qml"));
        qml->addImageProvider(QStringLiteral("symbol"), new MarkProvider);
        qml->loadData(R"(
            import QtQuick
            Window {
                objectName: "main"
                width: 1280
                height: 820
                visible: true
                color: "#1f2024"
                Loader {
                    anchors.fill: parent
                    focus: true
                    source: "qrc:/qt/qml/Velix/Library/MainView.qml"
                }
            }
        )");
        ASSERT_FALSE(qml->rootObjects().isEmpty());
        window = qobject_cast<QQuickWindow *>(qml->rootObjects().constFirst());
        ASSERT_NE(window, nullptr);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
        // Shortcuts act in the active window only.
        window->requestActivate();
        ASSERT_TRUE(QTest::qWaitForWindowActive(window));
        ASSERT_NE(item(QStringLiteral("mainView")), nullptr) << "MainView.qml did not load";
    }

    void TearDown() override
    {
        qml.reset();
        MainViewModel::install(nullptr);
        model.reset();
        state.reset();
        engine->shutdown();
        engine.reset();
    }

    QQuickItem *item(const QString &name) const { return findItem(window->contentItem(), name); }
    QString textOf(const QString &name) const
    {
        QQuickItem *found = item(name);
        return found ? found->property("text").toString() : QStringLiteral("<%1 not shown>").arg(name);
    }

    // Lets the bindings, layouts and one frame settle.
    void settle()
    {
        for (int i = 0; i < 5; ++i) {
            QCoreApplication::processEvents();
            QTest::qWait(40);
        }
    }

    void click(const QString &name, Qt::KeyboardModifiers modifiers = Qt::NoModifier,
               Qt::MouseButton button = Qt::LeftButton)
    {
        QQuickItem *target = item(name);
        ASSERT_NE(target, nullptr) << name.toStdString();
        const QPoint at = target->mapToScene(QPointF(target->width() / 2, target->height() / 3)).toPoint();
        QTest::mouseClick(window, button, modifiers, at);
        settle();
    }

    void type(const QString &text)
    {
        for (const QChar c : text)
            QTest::keyClick(window, c.toLatin1());
    }

    void screenshot(const QString &name)
    {
        settle();
        const QImage image = window->grabWindow();
        ASSERT_FALSE(image.isNull());
        ASSERT_TRUE(image.save(screenshotDir() + QLatin1Char('/') + name + QStringLiteral(".png")));
    }

    MadeTorrent make(const std::string &name, int64_t size, uint32_t seed, bool directory = false)
    {
        const std::string content = directory ? name + "/" + name + ".mkv" : name;
        testsupport::writePatternFile(source.file(content), size, seed);
        return testsupport::makeTorrent(source.path(), name, torrents.path());
    }

    // A torrent whose data is already in place: it checks and then seeds.
    QString addSeeding(const MadeTorrent &t)
    {
        const auto outcome = resultOf(engine->addTorrent(QString::fromStdString(t.torrentPath),
                                                         QString::fromStdString(source.path()), std::nullopt, false, false));
        return outcome ? std::get<AddResult>(*outcome).id : QString();
    }

    QString addTo(const MadeTorrent &t, const std::string &savePath)
    {
        const auto outcome = resultOf(engine->addTorrent(QString::fromStdString(t.torrentPath),
                                                         QString::fromStdString(savePath), std::nullopt, false, false));
        return outcome ? std::get<AddResult>(*outcome).id : QString();
    }

    bool waitForStatus(const QString &id, const std::function<bool(const TorrentStatus &)> &pred)
    {
        return waitFor([&] {
            const auto t = engine->torrent(id);
            return t && pred(*t);
        });
    }

    TempDir home;
    TempDir source;
    TempDir torrents;
    TempDir downloads;
    int port = 0;
    std::unique_ptr<TorrentEngine> engine;
    std::unique_ptr<MainUIState> state;
    std::unique_ptr<MainViewModel> model;
    std::unique_ptr<QQmlApplicationEngine> qml;
    QQuickWindow *window = nullptr;
};

TEST_F(MainViewTest, AnEmptyLibraryOffersToAddInEveryLayout)
{
    for (const QString &layout : {QStringLiteral("grid"), QStringLiteral("list"), QStringLiteral("table")}) {
        click(QStringLiteral("library.layout.") + layout);
        EXPECT_EQ(state->preferences().layout, fromRaw<LibraryLayout>(layout));
        ASSERT_NE(item(QStringLiteral("library.emptyAddTorrent")), nullptr) << layout.toStdString();
        EXPECT_NE(item(QStringLiteral("library.emptyMagnet")), nullptr);
        EXPECT_EQ(item(QStringLiteral("library.") + layout), nullptr) << "an empty " << layout.toStdString() << " shows";
        screenshot(QStringLiteral("empty-") + layout);
    }
    click(QStringLiteral("library.emptyMagnet"));
    EXPECT_TRUE(state->showMagnet());
    EXPECT_EQ(textOf(QStringLiteral("library.emptyTitle")), QStringLiteral("Медиатека пуста"));
}

TEST_F(MainViewTest, OneTorrentIsACardARowAndALine)
{
    const QString id = addSeeding(make("Dark_Hollow_(1987)_[DVDRip].avi", 600 * 1024, 1));
    ASSERT_TRUE(waitForStatus(id, [](const TorrentStatus &t) { return t.seeding; }));
    settle();

    ASSERT_NE(item(QStringLiteral("torrent.card.") + id), nullptr);
    ASSERT_NE(item(QStringLiteral("library.featured")), nullptr);
    EXPECT_EQ(textOf(QStringLiteral("library.featuredLabel")), QStringLiteral("В ВАШЕЙ МЕДИАТЕКЕ"));
    EXPECT_EQ(textOf(QStringLiteral("library.count")), QStringLiteral("В коллекции: 1"));
    EXPECT_EQ(textOf(QStringLiteral("library.downloaded")), QStringLiteral("1 загружено"));
    screenshot(QStringLiteral("one-grid"));

    // The featured block goes as soon as a search is typed, and comes back with the search cleared.
    QQuickItem *search = item(QStringLiteral("library.search"));
    ASSERT_NE(search, nullptr);
    QTest::keyClick(window, Qt::Key_F, Qt::ControlModifier);
    settle();
    EXPECT_TRUE(search->hasActiveFocus());
    type(QStringLiteral("hollow 1987"));
    settle();
    EXPECT_EQ(state->search(), QStringLiteral("hollow 1987"));
    EXPECT_EQ(item(QStringLiteral("library.featured")), nullptr);
    EXPECT_NE(item(QStringLiteral("torrent.card.") + id), nullptr);
    type(QStringLiteral("x"));
    settle();
    EXPECT_EQ(textOf(QStringLiteral("library.emptyTitle")), QStringLiteral("Ничего не найдено"));
    screenshot(QStringLiteral("one-nothing-found"));
    click(QStringLiteral("library.showAll"));
    EXPECT_EQ(state->search(), QString());
    EXPECT_NE(item(QStringLiteral("library.featured")), nullptr);

    QTest::keyClick(window, Qt::Key_2, Qt::ControlModifier);
    settle();
    EXPECT_EQ(state->preferences().layout, LibraryLayout::list);
    ASSERT_NE(item(QStringLiteral("torrent.row.") + id), nullptr);
    screenshot(QStringLiteral("one-list"));

    QTest::keyClick(window, Qt::Key_3, Qt::ControlModifier);
    settle();
    ASSERT_NE(item(QStringLiteral("library.table")), nullptr);
    EXPECT_EQ(item(QStringLiteral("library.sort")), nullptr); // the table sorts by its header
    screenshot(QStringLiteral("one-table"));

    // A plain click on a card opens the torrent's contents; Escape leaves it.
    QTest::keyClick(window, Qt::Key_1, Qt::ControlModifier);
    settle();
    click(QStringLiteral("torrent.card.") + id);
    EXPECT_EQ(state->openedTorrentID(), id);
    EXPECT_EQ(model->contentMode(), QStringLiteral("contents"));
    QTest::keyClick(window, Qt::Key_Escape);
    settle();
    EXPECT_EQ(model->contentMode(), QStringLiteral("library"));

    // A move takes the files to the chosen folder and the torrent follows them.
    const std::string moved = downloads.path() + "/moved";
    fs::create_directories(moved);
    model->move(id, QUrl::fromLocalFile(QString::fromStdString(moved)).toString());
    ASSERT_TRUE(waitFor([&] {
        const auto t = engine->torrent(id);
        return t && t->savePath == QString::fromStdString(moved) && !t->moving
            && fs::exists(moved + "/Dark_Hollow_(1987)_[DVDRip].avi");
    }));
    EXPECT_FALSE(fs::exists(source.file("Dark_Hollow_(1987)_[DVDRip].avi")));
    EXPECT_EQ(textOf(QStringLiteral("library.count")), QStringLiteral("В коллекции: 1"));
}

// A library with a torrent in each state the engine reports, a seeder on 127.0.0.1 feeding the
// ones that download, and thirty small seeding torrents around them.
TEST_F(MainViewTest, ALibraryInEveryStateIsDrawnClickedAndTrimmed)
{
    LocalSeeder seeder(24 * 1024); // slow enough that a download is still running when drawn
    const MadeTorrent show = make("Silver.Harbor.S02E05.1080p.WEB-DL.mkv", 3 * 1024 * 1024, 2);
    const MadeTorrent broken = make("Broken.Reel.2019.720p.mkv", 2 * 1024 * 1024, 3);
    ASSERT_TRUE(seeder.seed(show));
    ASSERT_TRUE(seeder.seed(broken));

    const QString downloading = addTo(show, downloads.path());
    // Its save folder is a file, so the first piece it receives cannot be written.
    testsupport::writePatternFile(downloads.file("blocked"), 10, 9);
    const QString failing = addTo(broken, downloads.file("blocked") + "/inside");
    const QString seeding = addSeeding(make("Лунный.Свет.2015.BDRip.1080p", 700 * 1024, 4, true));
    const QString paused = addSeeding(make("Dark_Hollow_(1987)_[DVDRip].avi", 500 * 1024, 5));
    const QString missing = addSeeding(make("Quiet.Coast.S01.720p.HDTV", 400 * 1024, 6, true));
    const QString checking = addSeeding(make("Northern.Lights.2021.2160p.REMUX.mkv", 48 * 1024 * 1024, 7));
    const QString document = addSeeding(make("Field.Manual.pdf", 200 * 1024, 8));
    QStringList small;
    for (int i = 1; i <= 23; ++i) {
        small << addSeeding(make(QStringLiteral("Harbor.Tales.S01E%1.720p.mkv").arg(i, 2, 10, QLatin1Char('0')).toStdString(),
                                 64 * 1024, 100 + i));
    }
    ASSERT_TRUE(seeder.connectTo(show, port));
    seeder.offer(broken, port);

    ASSERT_TRUE(waitForStatus(seeding, [](const TorrentStatus &t) { return t.seeding; }));
    ASSERT_TRUE(waitForStatus(checking, [](const TorrentStatus &t) { return t.seeding; }));
    ASSERT_TRUE(waitForStatus(paused, [](const TorrentStatus &t) { return t.seeding; }));
    ASSERT_TRUE(waitForStatus(missing, [](const TorrentStatus &t) { return t.seeding; }));
    engine->pause({paused});
    fs::remove_all(source.file("Quiet.Coast.S01.720p.HDTV"));
    // A check held by a pause stays a check.
    engine->action(QStringLiteral("recheck"), {checking});
    engine->pause({checking});
    ASSERT_TRUE(waitForStatus(paused, [](const TorrentStatus &t) { return t.paused; }));
    ASSERT_TRUE(waitForStatus(missing, [](const TorrentStatus &t) { return t.state == QLatin1String("missing"); }));
    ASSERT_TRUE(waitFor([&] {
        seeder.offer(show, port);
        const auto t = engine->torrent(downloading);
        return t && t->wantedDone > 0 && t->downloadRate > 0;
    })) << statusText(engine->torrent(downloading).value_or(TorrentStatus{})).toStdString() << " peers "
        << engine->torrent(downloading).value_or(TorrentStatus{}).peers;
    ASSERT_TRUE(waitFor([&] {
        seeder.offer(broken, port);
        const auto t = engine->torrent(failing);
        return t && !t->error.isEmpty();
    }));
    for (const QString &id : small)
        ASSERT_TRUE(waitForStatus(id, [](const TorrentStatus &t) { return t.seeding; }));
    ASSERT_EQ(engine->torrents().size(), 30);
    settle();

    const auto checkingNow = engine->torrent(checking);
    // The check may have finished before the pause came; then the torrent is a paused one.
    const bool checkHeld = checkingNow && checkingNow->isChecking();
    if (checkHeld) {
        EXPECT_EQ(statusText(*checkingNow), QStringLiteral("Проверка · пауза"));
    }

    EXPECT_EQ(statusText(*engine->torrent(downloading)), QStringLiteral("Загрузка"));
    EXPECT_EQ(statusText(*engine->torrent(seeding)), QStringLiteral("Раздача"));
    EXPECT_EQ(statusText(*engine->torrent(missing)), QStringLiteral("Файл отсутствует"));
    EXPECT_EQ(statusText(*engine->torrent(failing)), QStringLiteral("Ошибка"));
    EXPECT_EQ(model->filterCount(QStringLiteral("all")), 30);
    EXPECT_EQ(model->filterCount(QStringLiteral("errors")), 2);
    EXPECT_EQ(textOf(QStringLiteral("sidebar.filter.errors")), QStringLiteral("С ошибками"));
    EXPECT_EQ(textOf(QStringLiteral("sidebar.downloading")), QStringLiteral("Загрузка: 1"));

    // Grid, list and table of thirty.
    EXPECT_GT(countItems(window->contentItem(), QStringLiteral("torrent.card.")), 3);
    EXPECT_NE(item(QStringLiteral("library.featured")), nullptr);
    screenshot(QStringLiteral("states-grid"));
    click(QStringLiteral("library.layout.list"));
    EXPECT_GT(countItems(window->contentItem(), QStringLiteral("torrent.row.")), 3);
    screenshot(QStringLiteral("states-list"));
    click(QStringLiteral("library.layout.table"));
    screenshot(QStringLiteral("states-table"));
    click(QStringLiteral("library.layout.grid"));

    // The sidebar's transfer block folds away and back.
    click(QStringLiteral("sidebar.transferDetails"));
    EXPECT_TRUE(state->preferences().transferDetailsCollapsed);
    EXPECT_EQ(item(QStringLiteral("sidebar.downloadRate")), nullptr);
    screenshot(QStringLiteral("states-sidebar-collapsed"));
    click(QStringLiteral("sidebar.transferDetails"));
    EXPECT_NE(item(QStringLiteral("sidebar.downloadRate")), nullptr);

    // Clicks with Ctrl and Shift, in the list where every row is in reach.
    click(QStringLiteral("library.layout.list"));
    const QStringList order = state->visibleIds();
    ASSERT_GE(order.size(), 4);
    state->setOpenedTorrentID(QString());
    click(QStringLiteral("torrent.row.") + order.at(0), Qt::ControlModifier);
    click(QStringLiteral("torrent.row.") + order.at(2), Qt::ShiftModifier);
    EXPECT_EQ(state->selection(), (QSet<QString>{order.at(0), order.at(1), order.at(2)}));
    click(QStringLiteral("torrent.row.") + order.at(1), Qt::ControlModifier);
    EXPECT_EQ(state->selection(), (QSet<QString>{order.at(0), order.at(2)}));
    EXPECT_EQ(state->openedTorrentID(), QString());
    EXPECT_EQ(textOf(QStringLiteral("library.selectionCount")), QStringLiteral("Выбрано: 2"));
    screenshot(QStringLiteral("states-list-selection"));

    // The keyboard: Down moves and selects, Shift+Down extends.
    QQuickItem *list = item(QStringLiteral("library.list"));
    ASSERT_NE(list, nullptr);
    list->forceActiveFocus();
    QTest::keyClick(window, Qt::Key_Home);
    QTest::keyClick(window, Qt::Key_Down, Qt::ShiftModifier);
    settle();
    EXPECT_EQ(state->selection(), (QSet<QString>{order.at(0), order.at(1)}));

    // The context menu of a selected row acts on the selection.
    click(QStringLiteral("torrent.row.") + order.at(1), Qt::NoModifier, Qt::RightButton);
    QQuickItem *pauseEntry = item(QStringLiteral("menu.pause"));
    ASSERT_NE(pauseEntry, nullptr);
    EXPECT_EQ(item(QStringLiteral("menu.open")), nullptr); // two torrents: no one-torrent entries
    screenshot(QStringLiteral("states-context-menu"));
    QTest::keyClick(window, Qt::Key_Escape);
    settle();

    // Remove the downloading torrent with its files, then a seeding one without.
    state->setSelection({});
    const std::string downloadingFile = downloads.file("Silver.Harbor.S02E05.1080p.WEB-DL.mkv");
    ASSERT_TRUE(waitFor([&] { return fs::exists(downloadingFile); }));
    click(QStringLiteral("sidebar.filter.downloading"));
    EXPECT_EQ(state->filter(), TorrentFilter::downloading);
    click(QStringLiteral("torrent.row.") + downloading, Qt::NoModifier, Qt::RightButton);
    click(QStringLiteral("menu.remove"));
    ASSERT_TRUE(model->showRemoval());
    EXPECT_EQ(textOf(QStringLiteral("library.removalTitle")),
              QStringLiteral("Удалить «Silver.Harbor.S02E05.1080p.WEB-DL.mkv»?"));
    screenshot(QStringLiteral("states-removal"));
    click(QStringLiteral("removal.deleteFiles"));
    ASSERT_TRUE(waitFor([&] { return !engine->torrent(downloading) && !fs::exists(downloadingFile); }));

    const std::string seedingFolder = source.file("Лунный.Свет.2015.BDRip.1080p");
    click(QStringLiteral("sidebar.filter.all"));
    state->setSearch(QStringLiteral("лунный свет 2015"));
    settle();
    click(QStringLiteral("torrent.row.") + seeding, Qt::NoModifier, Qt::RightButton);
    click(QStringLiteral("menu.remove"));
    click(QStringLiteral("removal.keepFiles"));
    ASSERT_TRUE(waitFor([&] { return !engine->torrent(seeding); }));
    EXPECT_TRUE(fs::exists(seedingFolder + "/Лунный.Свет.2015.BDRip.1080p.mkv"));
    click(QStringLiteral("library.clearSearch"));
    EXPECT_EQ(model->countText(), QStringLiteral("В коллекции: 28"));
    screenshot(QStringLiteral("states-after-removal"));
}

} // namespace
