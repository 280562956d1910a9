// The program's windows on a real X server: the main window with its menu bar, the commands'
// keys from every window, the control routes that list, size and photograph windows, and a
// program that keeps running with every window closed. Screenshots land in the build tree's
// tests/screenshots for a person to look at.

#include "../../playback/RecordingCore.h"

#include "app/AppActions.h"
#include "app/AppCommands.h"
#include "app/AppFrame.h"
#include "app/SingleInstance.h"
#include "app/WindowOpener.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "playback/PlayerModel.h"
#include "remote/ControlServer.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QQmlApplicationEngine>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

QString screenshotPath(const QString &name)
{
    const QString dir = QStringLiteral(VELIX_SCREENSHOT_DIR);
    QDir().mkpath(dir);
    return dir + QLatin1Char('/') + name + QStringLiteral(".png");
}

// Every object under `root` (QML objects, menus, popups) with that object name.
QObject *findObject(QObject *root, const QString &name)
{
    if (!root)
        return nullptr;
    if (root->objectName() == name)
        return root;
    for (QObject *child : root->children()) {
        if (QObject *found = findObject(child, name))
            return found;
    }
    if (auto *item = qobject_cast<QQuickItem *>(root)) {
        for (QQuickItem *child : item->childItems()) {
            if (QObject *found = findObject(child, name))
                return found;
        }
    }
    return nullptr;
}

QQuickItem *findItem(QQuickItem *root, const std::function<bool(QQuickItem *)> &matches)
{
    if (!root)
        return nullptr;
    if (matches(root))
        return root;
    for (QQuickItem *child : root->childItems()) {
        if (QQuickItem *found = findItem(child, matches))
            return found;
    }
    return nullptr;
}

QJsonObject routeJson(ControlServer &server, const QString &target)
{
    const auto text = resultOf(server.route(target));
    return text ? QJsonDocument::fromJson(*text).object() : QJsonObject();
}

class WindowFrameTest : public ::testing::Test
{
protected:
    WindowFrameTest()
        : engine(std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(quietSettingsText(freeTcpPort()))))
        , ui(home.qpath(), engine.get())
        , player(engine.get(), PlayerModel::Hooks{[this]() -> std::unique_ptr<PlayerCore> {
                                                     return std::make_unique<RecordingCore>(log);
                                                 },
                                                 [](QString, int) -> QCoro::Task<double> { co_return -1.0; },
                                                 [](const QString &, int) { return false; },
                                                 [](const QString &, int, qint64, double) {}})
    {
        AppFrame::Options options;
        options.tray = false;
        options.mpris = false;
        options.quit = [this] { ++quits; };
        frame = std::make_unique<AppFrame>(engine.get(), &player, &ui, options);
    }

    ~WindowFrameTest() override
    {
        delete standIn;
        frame.reset();
    }

    QQuickWindow *main() const { return frame->window(QStringLiteral("main")); }

    // A window that takes every key its focused item sees, as the player window does with its
    // own keys.
    QQuickWindow *keyHungryWindow()
    {
        QQmlComponent component(frame->qmlEngine());
        component.setData(R"(
            import QtQuick
            Window {
                objectName: "player"
                title: "Плеер"
                width: 640; height: 360
                property var keys: []
                Item {
                    anchors.fill: parent
                    focus: true
                    Keys.onPressed: (event) => { parent.Window.window.keys.push(event.key); event.accepted = true }
                    Keys.onShortcutOverride: (event) => { event.accepted = false }
                }
            })",
                          QUrl(QStringLiteral("qrc:/test/KeyHungry.qml")));
        standIn = qobject_cast<QQuickWindow *>(component.create());
        if (!standIn)
            ADD_FAILURE() << component.errorString().toStdString();
        return standIn;
    }

    static bool showAndActivate(QQuickWindow *window)
    {
        window->show();
        window->raise();
        window->requestActivate();
        return QTest::qWaitForWindowExposed(window, 20000) && waitFor([window] { return window->isActive(); });
    }

    TempDir home;
    std::unique_ptr<TorrentEngine> engine;
    MainUIState ui;
    std::shared_ptr<CoreLog> log = std::make_shared<CoreLog>();
    PlayerModel player;
    std::unique_ptr<AppFrame> frame;
    QQuickWindow *standIn = nullptr;
    int quits = 0;
};

} // namespace

TEST_F(WindowFrameTest, MainWindowOpensWithItsMenuBarAndTheLibrary)
{
    ASSERT_TRUE(frame->start()) << frame->warnings().join('\n').toStdString();
    QQuickWindow *window = main();
    ASSERT_TRUE(window);
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window, 20000));
    EXPECT_EQ(window->objectName(), QStringLiteral("main"));
    EXPECT_EQ(window->title(), QStringLiteral("Velix"));
    EXPECT_EQ(window->size(), QSize(1280, 860));
    EXPECT_EQ(window->minimumSize(), QSize(900, 560));
    EXPECT_FALSE(QGuiApplication::quitOnLastWindowClosed());
    // The content area holds the library's own view, from its module.
    QObject *content = findObject(window, QStringLiteral("mainContent"));
    ASSERT_TRUE(content);
    EXPECT_NE(content->property("item").value<QObject *>(), nullptr);

    // The menus show what the commands say, in their order.
    QStringList shown;
    for (QObject *menuObject : frame->commands()->menus()) {
        auto *command = qobject_cast<CommandMenu *>(menuObject);
        QObject *menu = findObject(window, command->id());
        ASSERT_TRUE(menu) << command->id().toStdString();
        EXPECT_EQ(menu->property("title").toString(), command->title());
        EXPECT_EQ(menu->property("count").toInt(), command->items().size());
        for (QObject *itemObject : command->items()) {
            auto *item = qobject_cast<CommandItem *>(itemObject);
            QObject *menuItem = findObject(menu, item->id());
            ASSERT_TRUE(menuItem) << item->id().toStdString();
            EXPECT_EQ(menuItem->property("text").toString(), item->text());
            EXPECT_EQ(menuItem->property("enabled").toBool(), item->enabled()) << item->id().toStdString();
        }
    }

    // Open each menu with a click on its title, as a user does, and photograph it.
    for (const char *id : {"menu.app", "menu.file", "menu.torrents"}) {
        QObject *menu = findObject(window, QString::fromLatin1(id));
        QQuickItem *title = findItem(window->contentItem(), [menu](QQuickItem *item) {
            // The bar's title of the menu, not one of the menu's own items.
            return item->property("menuBar").value<QObject *>() && item->property("menu").value<QObject *>() == menu;
        });
        ASSERT_TRUE(title) << id;
        const QPoint at = title->mapToScene(QPointF(title->width() / 2, title->height() / 2)).toPoint();
        QTest::mouseClick(window, Qt::LeftButton, {}, at);
        const bool opened = waitFor([menu] { return menu->property("opened").toBool(); }, std::chrono::seconds(5));
        if (!opened)
            window->grabWindow().save(screenshotPath(QStringLiteral("failed-") + QString::fromLatin1(id)));
        ASSERT_TRUE(opened) << id << " at " << at.x() << "," << at.y();
        QTest::qWait(200);
        const QImage shot = window->grabWindow();
        ASSERT_FALSE(shot.isNull());
        EXPECT_TRUE(shot.save(screenshotPath(QStringLiteral("main-") + QString::fromLatin1(id))));
        // A click beside the menu closes it and leaves the bar idle again.
        QTest::mouseClick(window, Qt::LeftButton, {}, QPoint(640, 500));
        ASSERT_TRUE(waitFor([menu] { return !menu->property("visible").toBool(); })) << id;
    }
}

TEST_F(WindowFrameTest, CommandKeysWorkFromEveryWindowAheadOfThePlayersKeys)
{
    ASSERT_TRUE(frame->start());
    ASSERT_TRUE(QTest::qWaitForWindowExposed(main(), 20000));
    QQuickWindow *other = keyHungryWindow();
    ASSERT_TRUE(other);
    frame->windows()->registerWindow(QStringLiteral("player"), other);
    ASSERT_TRUE(showAndActivate(other));

    // In the window that takes keys for itself the command's key still wins...
    QTest::keyClick(other, Qt::Key_T, Qt::ControlModifier);
    EXPECT_TRUE(engine->settings().altSpeedEnabled);
    // ...and its own keys stay its own.
    QTest::keyClick(other, Qt::Key_Space);
    const QVariantList keys = other->property("keys").toList();
    EXPECT_TRUE(keys.contains(int(Qt::Key_Space)));
    EXPECT_FALSE(keys.contains(int(Qt::Key_T)));

    QGuiApplication::clipboard()->setText(QStringLiteral("magnet:?xt=urn:btih:0123456789abcdef0123456789abcdef01234567"));
    QTest::keyClick(other, Qt::Key_O, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_TRUE(ui.showMagnet());
    EXPECT_TRUE(ui.magnetText().startsWith(QStringLiteral("magnet:?xt=")));
    // The magnet sheet belongs to the main window, which comes forward for it.
    EXPECT_TRUE(main()->isVisible());

    ASSERT_TRUE(showAndActivate(main()));
    QTest::keyClick(main(), Qt::Key_Comma, Qt::ControlModifier);
    EXPECT_TRUE(ui.showSettings());
    QTest::keyClick(main(), Qt::Key_T, Qt::ControlModifier);
    EXPECT_FALSE(engine->settings().altSpeedEnabled);
    // Pause has nothing selected to act on: its key does nothing.
    QTest::keyClick(main(), Qt::Key_Period, Qt::ControlModifier);
    QTest::keyClick(main(), Qt::Key_Q, Qt::ControlModifier);
    EXPECT_EQ(quits, 1);

    // The file chooser opens in the main window, for .torrent files, several at once; a cancel
    // adds nothing.
    QTest::keyClick(main(), Qt::Key_O, Qt::ControlModifier);
    QObject *panel = findObject(main(), QStringLiteral("torrentPanel"));
    ASSERT_TRUE(panel);
    ASSERT_TRUE(waitFor([panel] { return panel->property("visible").toBool(); }));
    EXPECT_EQ(panel->property("nameFilters").toStringList(), QStringList{QStringLiteral("Торренты (*.torrent)")});
    QTest::qWait(300);
    EXPECT_TRUE(main()->grabWindow().save(screenshotPath(QStringLiteral("main-open-torrent"))));
    const QList<QUrl> before = engine->pendingOpen();
    QMetaObject::invokeMethod(panel, "reject");
    ASSERT_TRUE(waitFor([panel] { return !panel->property("visible").toBool(); }));
    EXPECT_EQ(engine->pendingOpen(), before);
}

TEST_F(WindowFrameTest, ControlRoutesListSizeOpenCloseAndPhotographWindows)
{
    ASSERT_TRUE(frame->start());
    ASSERT_TRUE(QTest::qWaitForWindowExposed(main(), 20000));
    QQuickWindow *other = keyHungryWindow();
    ASSERT_TRUE(other);
    frame->windows()->registerWindow(QStringLiteral("player"), other);
    ControlServer server(engine.get(), &player, &ui);
    server.setWindows(frame->windows());

    QJsonArray windows = routeJson(server, QStringLiteral("/window")).value(QStringLiteral("windows")).toArray();
    ASSERT_EQ(windows.size(), 1);
    EXPECT_EQ(windows.at(0).toObject().value(QStringLiteral("id")).toString(), QStringLiteral("main"));
    EXPECT_EQ(windows.at(0).toObject().value(QStringLiteral("title")).toString(), QStringLiteral("Velix"));

    windows = routeJson(server, QStringLiteral("/window?open=player")).value(QStringLiteral("windows")).toArray();
    ASSERT_EQ(windows.size(), 2);
    EXPECT_TRUE(other->isVisible());

    routeJson(server, QStringLiteral("/window?size=1000x640&name=main"));
    ASSERT_TRUE(waitFor([this] { return main()->size() == QSize(1000, 640); }));
    // Below the minimum the window stays at the minimum; nonsense sizes change nothing.
    routeJson(server, QStringLiteral("/window?size=10x10&name=main"));
    ASSERT_TRUE(waitFor([this] { return main()->size() == QSize(900, 560); }));
    routeJson(server, QStringLiteral("/window?size=axb&name=main"));
    routeJson(server, QStringLiteral("/window?size=-5x300&name=main"));
    QTest::qWait(200);
    EXPECT_EQ(main()->size(), QSize(900, 560));
    QSignalSpy drawn(main(), &QQuickWindow::frameSwapped);
    routeJson(server, QStringLiteral("/window?size=1100x700&name=main"));
    ASSERT_TRUE(waitFor([this] { return main()->size() == QSize(1100, 700); }));
    // The next frame is drawn at the new size.
    ASSERT_TRUE(waitFor([&drawn] { return drawn.count() > 0; }));

    routeJson(server, QStringLiteral("/window?open=settings"));
    EXPECT_TRUE(ui.showSettings());

    const QString shot = screenshotPath(QStringLiteral("snapshot-main"));
    QFile::remove(shot);
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?window=main&path=") + shot),
              (QJsonObject{{QStringLiteral("ok"), true}}));
    const QImage image(shot);
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.size(), QSize(1100, 700) * main()->devicePixelRatio());
    // "set" names the main window through its settings page.
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?window=settings&path=") + home.qpath() + QStringLiteral("/s.png")),
              (QJsonObject{{QStringLiteral("ok"), true}}));

    const QJsonObject missing{{QStringLiteral("error"), QStringLiteral("window/path")}};
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?window=nosuch&path=") + home.qpath() + QStringLiteral("/a.png")), missing);
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?window=main")), missing);
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?path=") + home.qpath() + QStringLiteral("/a.png")), missing);
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?window=main&path=") + home.qpath() + QStringLiteral("/no/such/dir/a.png")),
              (QJsonObject{{QStringLiteral("ok"), false}}));
    // Without a video layer the player's picture is reported as not taken.
    EXPECT_EQ(routeJson(server, QStringLiteral("/snapshot?window=player&video=1&path=") + home.qpath() + QStringLiteral("/p.png")),
              (QJsonObject{{QStringLiteral("ok"), true}, {QStringLiteral("video"), false}}));

    // /stop closes the player window; the main window stays.
    routeJson(server, QStringLiteral("/stop"));
    ASSERT_TRUE(waitFor([other] { return !other->isVisible(); }));
    windows = routeJson(server, QStringLiteral("/window")).value(QStringLiteral("windows")).toArray();
    ASSERT_EQ(windows.size(), 1);
    EXPECT_EQ(windows.at(0).toObject().value(QStringLiteral("id")).toString(), QStringLiteral("main"));
}

TEST_F(WindowFrameTest, ClosingEveryWindowKeepsTheProgramAndASecondLaunchBringsMainBack)
{
    ASSERT_TRUE(frame->start());
    ASSERT_TRUE(QTest::qWaitForWindowExposed(main(), 20000));
    SingleInstance instance(home.qpath());
    ASSERT_FALSE(instance.forwardToRunning({}));
    frame->showMainOn(&instance);

    QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
    main()->close();
    ASSERT_TRUE(waitFor([this] { return !main()->isVisible(); }));
    // Long enough for a quit on the last window to have come through the event loop.
    QTest::qWait(500);
    EXPECT_EQ(quitting.count(), 0);
    EXPECT_FALSE(engine->isShutDown());

    bool forwarded = false;
    QThread *second = QThread::create([&] {
        SingleInstance other(home.qpath());
        forwarded = other.forwardToRunning({});
    });
    second->start();
    ASSERT_TRUE(waitFor([&] { return second->isFinished(); }));
    delete second;
    EXPECT_TRUE(forwarded);
    ASSERT_TRUE(waitFor([this] { return main()->isVisible(); }));
    EXPECT_TRUE(QTest::qWaitForWindowExposed(main(), 20000));
}

TEST_F(WindowFrameTest, BackgroundModeMakesTheWindowsButShowsNone)
{
    AppFrame::Options options;
    options.background = true;
    AppFrame background(engine.get(), &player, &ui, options);
    ASSERT_TRUE(background.start());
    QQuickWindow *window = background.window(QStringLiteral("main"));
    ASSERT_TRUE(window);
    background.windows()->open(QStringLiteral("main"));
    background.windows()->open(QStringLiteral("settings"));
    QSignalSpy panel(background.actions(), &AppActions::torrentPanelRequested);
    background.actions()->openTorrentPanel();
    QTest::qWait(300);
    EXPECT_FALSE(window->isVisible());
    EXPECT_TRUE(ui.showSettings());
    EXPECT_EQ(panel.count(), 0);
    EXPECT_EQ(background.tray(), nullptr);
    EXPECT_EQ(background.mpris(), nullptr);
    EXPECT_TRUE(background.windows()->visibleWindows().isEmpty());
    // A hidden window still photographs, for scripts that check what a screen would show.
    const QString shot = home.qpath() + QStringLiteral("/hidden.png");
    EXPECT_TRUE(background.windows()->snapshot(QStringLiteral("main"), shot));
    EXPECT_FALSE(QImage(shot).isNull());
}
