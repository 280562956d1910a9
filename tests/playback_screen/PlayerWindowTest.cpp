#include "ScreenHarness.h"

#include "playback/PlayerScreen.h"

#include <QKeyEvent>
#include <QQuickItem>
#include <QScreen>
#include <QTest>

using namespace screentest;
using testsupport::waitFor;

namespace {

// A key as the X server delivers it: its physical keycode, and what the layout makes of it.
void pressKey(QQuickWindow *window, quint32 scanCode, int qtKey, const QString &text,
              Qt::KeyboardModifiers modifiers = Qt::NoModifier)
{
    QKeyEvent press(QEvent::KeyPress, qtKey, modifiers, scanCode, 0, 0, text);
    QCoreApplication::sendEvent(window, &press);
    QKeyEvent release(QEvent::KeyRelease, qtKey, modifiers, scanCode, 0, 0, text);
    QCoreApplication::sendEvent(window, &release);
}

class PlayerWindowTest : public ScreenFixture
{
protected:
    QQuickWindow *openPlaying()
    {
        QQuickWindow *window = loadPlayerWindow();
        if (!window)
            return nullptr;
        window->show();
        window->requestActivate();
        const QString id = addTorrent();
        if (id.isEmpty() || !play(id))
            return nullptr;
        waitFor([&] { return player->loaded() && player->position() > 0.5; }, 90s);
        return window;
    }

    QQuickItem *item(QQuickWindow *window, const char *name)
    {
        return window->findChild<QQuickItem *>(QString::fromUtf8(name));
    }

    PlayerScreen *screen(QQuickWindow *window) { return window->findChild<PlayerScreen *>(); }
};

TEST_F(PlayerWindowTest, KeysReachThePlayerByPositionAlsoFromACyrillicLayout)
{
    QQuickWindow *window = openPlaying();
    ASSERT_NE(window, nullptr);
    ASSERT_TRUE(player->loaded());
    auto *video = window->findChild<VideoLayer *>(QStringLiteral("videoSurface"));
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(window->objectName(), QStringLiteral("player"));
    EXPECT_EQ(window->title(), QStringLiteral("Плеер"));
    EXPECT_EQ(window->size(), QSize(1280, 760));
    video->forceActiveFocus();

    // Space by its keycode pauses; the space bar is the same key in every layout.
    pressKey(window, 65, Qt::Key_Space, QStringLiteral(" "));
    ASSERT_TRUE(waitFor([&] { return player->paused(); }));
    // The key where F lies sends "а" in the Russian layout: full screen all the same.
    pressKey(window, 41, 0x0410, QStringLiteral("а"));
    EXPECT_TRUE(waitFor([&] { return window->visibility() == QWindow::FullScreen && player->fullScreen(); }));
    waitFor([&] { return window->width() == window->screen()->size().width(); }, 10s);
    window->grabWindow().save(screenshotPath(QStringLiteral("fullscreen")));
    pressKey(window, 9, Qt::Key_Escape, QString());
    EXPECT_TRUE(waitFor([&] { return window->visibility() != QWindow::FullScreen && !player->fullScreen(); }));
    // Up raises the volume, "ь" (where M lies) mutes, and the bar's texts follow.
    const double volume = player->volume();
    pressKey(window, 111, Qt::Key_Up, QString());
    EXPECT_TRUE(waitFor([&] { return player->volume() == std::min(volume + 5, 200.0); }));
    pressKey(window, 58, 0x042c, QStringLiteral("ь"));
    ASSERT_TRUE(waitFor([&] { return player->muted(); }));
    EXPECT_EQ(screen(window)->muteLabel(), QStringLiteral("Включить звук"));
    EXPECT_EQ(screen(window)->playPauseLabel(), QStringLiteral("Воспроизвести"));
    pressKey(window, 65, Qt::Key_Space, QStringLiteral(" "));
    ASSERT_TRUE(waitFor([&] { return !player->paused(); }));
    EXPECT_EQ(screen(window)->playPauseLabel(), QStringLiteral("Пауза"));

    // A wheel notch up over the video is louder.
    const double before = player->volume();
    QWheelEvent wheel(QPointF(640, 300), window->mapToGlobal(QPointF(640, 300)), QPoint(), QPoint(0, 120), Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(window, &wheel);
    EXPECT_TRUE(waitFor([&] { return player->volume() == std::min(before + 5, 200.0); }));

    // A double click on the video takes the screen too.
    QTest::mouseDClick(window, Qt::LeftButton, Qt::NoModifier, QPoint(640, 300));
    EXPECT_TRUE(waitFor([&] { return window->visibility() == QWindow::FullScreen; }));
    QTest::mouseDClick(window, Qt::LeftButton, Qt::NoModifier, QPoint(640, 300));
    EXPECT_TRUE(waitFor([&] { return window->visibility() != QWindow::FullScreen; }));
}

TEST_F(PlayerWindowTest, TheBarsMenusAndOverlayShowThePlayersState)
{
    QQuickWindow *window = openPlaying();
    ASSERT_NE(window, nullptr);
    PlayerScreen *view = screen(window);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(item(window, "title")->property("text").toString(), QStringLiteral("Film.mkv"));
    EXPECT_TRUE(item(window, "controlBar")->isVisible());
    EXPECT_EQ(view->overlayName(), QString());
    EXPECT_FALSE(item(window, "statusOverlay")->isVisible());

    // The speed menu checks the current speed; a choice reaches libmpv and comes back.
    auto *speedMenu = window->findChild<QObject *>(QStringLiteral("speedMenu"));
    ASSERT_NE(speedMenu, nullptr);
    QMetaObject::invokeMethod(speedMenu, "open");
    ASSERT_TRUE(waitFor([&] { return speedMenu->property("opened").toBool(); }));
    QTest::qWait(300);
    window->grabWindow().save(screenshotPath(QStringLiteral("speed-menu")));
    view->chooseSpeed(QStringLiteral("1.50"));
    EXPECT_TRUE(waitFor([&] { return player->speed() == 1.5; }));
    EXPECT_EQ(view->speedTitle(), QStringLiteral("1.5×"));
    QMetaObject::invokeMethod(speedMenu, "close");

    auto *audioMenu = window->findChild<QObject *>(QStringLiteral("audioMenu"));
    ASSERT_NE(audioMenu, nullptr);
    QMetaObject::invokeMethod(audioMenu, "open");
    ASSERT_TRUE(waitFor([&] { return audioMenu->property("opened").toBool(); }));
    QTest::qWait(300);
    // An open menu holds the bars up however long the user looks.
    QTest::qWait(3500);
    EXPECT_TRUE(player->controlsVisible());
    window->grabWindow().save(screenshotPath(QStringLiteral("audio-menu")));
    EXPECT_EQ(view->audioRows().size(), 1);
    QMetaObject::invokeMethod(audioMenu, "close");

    auto *episodeMenu = window->findChild<QObject *>(QStringLiteral("episodeMenu"));
    QMetaObject::invokeMethod(episodeMenu, "open");
    ASSERT_TRUE(waitFor([&] { return episodeMenu->property("opened").toBool(); }));
    QTest::qWait(300);
    window->grabWindow().save(screenshotPath(QStringLiteral("episode-menu")));
    QMetaObject::invokeMethod(episodeMenu, "close");

    // The controls fade while the film plays, and come back when the pointer moves.
    ASSERT_TRUE(waitFor([&] { return !player->controlsVisible(); }, 30s));
    EXPECT_TRUE(waitFor([&] { return !item(window, "controlBar")->isVisible(); }));
    EXPECT_TRUE(view->cursorHidden());
    QTest::mouseMove(window, QPoint(400, 300));
    QTest::mouseMove(window, QPoint(420, 310));
    EXPECT_TRUE(waitFor([&] { return player->controlsVisible() && !view->cursorHidden(); }));

    // Closing the window stops playback and dismantles the surface; the core stays.
    MPVCore *core = player->core()->mpvCore();
    window->close();
    EXPECT_FALSE(player->item().has_value());
    EXPECT_TRUE(waitFor([&] { return window->findChild<VideoLayer *>() == nullptr; }));
    EXPECT_EQ(player->core()->mpvCore(), core);
    EXPECT_FALSE(core->renderContextReady());
}

TEST_F(PlayerWindowTest, AnErrorStandsInTheOverlayWithTheControls)
{
    QQuickWindow *window = loadPlayerWindow();
    ASSERT_NE(window, nullptr);
    window->show();
    const QString id = addTorrent();
    ASSERT_FALSE(id.isEmpty());
    // A file that is no media: libmpv gives up on it.
    TorrentFile bogus;
    bogus.i = 7;
    bogus.path = QStringLiteral("Film/Missing.mkv");
    await(finished(player->open(id, bogus)));
    ASSERT_TRUE(waitFor([&] { return player->error().has_value(); }, 60s));
    PlayerScreen *view = screen(window);
    EXPECT_EQ(view->overlayName(), QStringLiteral("error"));
    EXPECT_TRUE(view->errorText().startsWith(QStringLiteral("Не удалось открыть файл")));
    EXPECT_TRUE(item(window, "statusOverlay")->isVisible());
    EXPECT_DOUBLE_EQ(item(window, "statusOverlay")->opacity(), 0.85);
    QTest::qWait(3500);
    EXPECT_TRUE(player->controlsVisible());
    window->grabWindow().save(screenshotPath(QStringLiteral("error")));
}

// A seeder that gives 48 KB a second: the player opens and then waits for pieces.
class ThrottledPlayerWindowTest : public PlayerWindowTest
{
protected:
    int seederLimit() const override { return 48 * 1024; }
};

TEST_F(ThrottledPlayerWindowTest, AStalledStreamShowsTheWaitWithTheRate)
{
    QQuickWindow *window = loadPlayerWindow();
    ASSERT_NE(window, nullptr);
    window->show();
    const QString id = addTorrent();
    ASSERT_FALSE(id.isEmpty());
    ASSERT_TRUE(play(id));
    PlayerScreen *view = screen(window);
    EXPECT_EQ(view->overlayName(), QStringLiteral("status"));
    ASSERT_TRUE(waitFor([&] { return view->statusText().contains(QStringLiteral("/с")); }, 60s))
        << view->statusText().toStdString();
    // The spinner stands exactly while the overlay shows the wait (the film may already play on).
    EXPECT_EQ(item(window, "spinner")->isVisible(), view->overlayName() == QStringLiteral("status"));
    QTest::qWait(500);
    window->grabWindow().save(screenshotPath(QStringLiteral("buffering")));
}

} // namespace
