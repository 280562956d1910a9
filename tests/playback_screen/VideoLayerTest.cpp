#include "ScreenHarness.h"

#include "remote/ControlServer.h"
#include "remote/ControlWindows.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

using namespace screentest;
using testsupport::waitFor;

namespace {

bool reddish(QRgb pixel)
{
    return qRed(pixel) > 150 && qBlue(pixel) < 100;
}

bool bluish(QRgb pixel)
{
    return qBlue(pixel) > 150 && qRed(pixel) < 100;
}

// The frame of the program that the control server's window routes reach; here only the one
// player window a test has loaded.
class OneWindow final : public ControlWindows
{
public:
    explicit OneWindow(QQuickWindow *window)
        : m_window(window)
    {
    }
    QJsonArray visibleWindows() const override { return {}; }
    bool exists(const QString &name) const override { return name == m_window->objectName(); }
    void open(const QString &) override { m_window->show(); }
    void close(const QString &) override { m_window->close(); }
    void sendBack() override {}
    void setContentSize(const QString &, double, double) override {}
    bool snapshot(const QString &, const QString &path) override { return m_window->grabWindow().save(path); }

private:
    QQuickWindow *m_window;
};

class VideoLayerTest : public ScreenFixture
{
};

TEST_F(VideoLayerTest, DrawsUprightTakesHiddenFramesWithoutDrawingAndSnapshotsThroughTheRoute)
{
    QQuickWindow *window = loadPlayerWindow();
    ASSERT_NE(window, nullptr);
    window->show();
    const QString id = addTorrent();
    ASSERT_FALSE(id.isEmpty());
    ASSERT_TRUE(play(id));

    // The load waited for the render context that the shown window made; then frames come.
    MPVCore *core = player->core()->mpvCore();
    ASSERT_TRUE(core->usesRenderContext());
    auto *layer = window->findChild<VideoLayer *>(QStringLiteral("videoSurface"));
    ASSERT_NE(layer, nullptr);
    ASSERT_TRUE(waitFor([&] { return counter(player->videoDiagnostics(), QStringLiteral("rendered")) > 10; }, 90s))
        << "no frames drawn; position " << player->position();
    EXPECT_FALSE(core->hasWaitingLoad());
    window->grabWindow().save(screenshotPath(QStringLiteral("playing")));

    // Upright: red on top, blue below, in the video's own snapshot and in the window.
    const QString snapshot = downloads.qpath() + QStringLiteral("/frame.png");
    ASSERT_EQ(await(player->writeVideoSnapshot(snapshot)), std::optional<bool>(true));
    const QImage frame(snapshot);
    ASSERT_EQ(frame.size(), QSize(960, 540));
    EXPECT_TRUE(reddish(frame.pixel(480, 100))) << QColor(frame.pixel(480, 100)).name().toStdString();
    EXPECT_TRUE(bluish(frame.pixel(480, 440))) << QColor(frame.pixel(480, 440)).name().toStdString();
    const QImage shown = window->grabWindow();
    const QPoint middle(shown.width() / 2, shown.height() / 2);
    EXPECT_TRUE(reddish(shown.pixel(middle.x(), middle.y() - shown.height() / 5)));
    EXPECT_TRUE(bluish(shown.pixel(middle.x(), middle.y() + shown.height() / 5)));

    // Hidden: the scene graph draws nothing, yet every frame is taken on the video's own
    // thread with its GL context, so playback goes on.
    window->hide();
    ASSERT_TRUE(waitFor([&] { return counter(player->videoDiagnostics(), QStringLiteral("hidden-frames-skipped")) > 0; }));
    const uint64_t renderedWhenHidden = counter(player->videoDiagnostics(), QStringLiteral("rendered"));
    const uint64_t skippedWhenHidden = counter(player->videoDiagnostics(), QStringLiteral("hidden-frames-skipped"));
    const double positionWhenHidden = player->position();
    EXPECT_TRUE(waitFor([&] {
        return counter(player->videoDiagnostics(), QStringLiteral("hidden-frames-skipped")) > skippedWhenHidden + 25
               && player->position() > positionWhenHidden + 1.0;
    }, 60s)) << "position " << player->position();
    EXPECT_EQ(counter(player->videoDiagnostics(), QStringLiteral("rendered")), renderedWhenHidden);
    EXPECT_FALSE(window->isExposed());

    // Shown again, it draws again; the route writes the window and the
    // video beside it, and the diagnostics carry the item's counters.
    window->show();
    ASSERT_TRUE(waitFor([&] { return counter(player->videoDiagnostics(), QStringLiteral("rendered")) > 5; }, 60s));
    OneWindow windows(window);
    ControlServer server(engine.get(), player.get(), nullptr);
    server.setWindows(&windows);
    const QString base = downloads.qpath() + QStringLiteral("/route.png");
    const auto answer = await(server.route(QStringLiteral("/snapshot?window=player&video=1&path=") + base));
    ASSERT_TRUE(answer.has_value());
    const QJsonObject object = QJsonDocument::fromJson(*answer).object();
    EXPECT_TRUE(object.value(QStringLiteral("ok")).toBool()) << answer->toStdString();
    EXPECT_TRUE(object.value(QStringLiteral("video")).toBool()) << answer->toStdString();
    const QImage routed(downloads.qpath() + QStringLiteral("/route-video.png"));
    EXPECT_EQ(routed.size(), QSize(960, 540));
    EXPECT_TRUE(!routed.isNull() && reddish(routed.pixel(480, 60)) && bluish(routed.pixel(480, 480)));
    const auto diagnostics = await(server.route(QStringLiteral("/player-diagnostics")));
    ASSERT_TRUE(diagnostics.has_value());
    const QJsonObject counters = QJsonDocument::fromJson(*diagnostics).object();
    EXPECT_GT(counters.value(QStringLiteral("rendered")).toString().toULongLong(), 0u);
    EXPECT_TRUE(counters.contains(QStringLiteral("hidden-frames-skipped")));
    EXPECT_EQ(counters.value(QStringLiteral("current-vo")).toString(), QStringLiteral("libmpv"));

    // A path that can't be written: false, and no file.
    EXPECT_EQ(await(player->writeVideoSnapshot(QStringLiteral("/nonexistent-dir/x.png"))), std::optional<bool>(false));
    EXPECT_FALSE(QFile::exists(QStringLiteral("/nonexistent-dir/x.png")));
}

TEST_F(VideoLayerTest, ALoadWaitsForTheContextAndADestroyedLayerNeverGetsOne)
{
    const QString id = addTorrent();
    ASSERT_FALSE(id.isEmpty());
    VideoLayer *layer = bareLayer({320, 180});
    MPVCore *core = player->core()->mpvCore();
    ASSERT_TRUE(play(id));
    // No window has been shown: no render context, and the load waits instead of failing.
    EXPECT_TRUE(core->hasWaitingLoad());
    EXPECT_FALSE(player->loaded());

    layer->destroy();
    ownWindow->show();
    int frames = 0;
    QObject::connect(ownWindow.get(), &QQuickWindow::frameSwapped, [&frames] { ++frames; });
    ASSERT_TRUE(waitFor([&] { return frames >= 1; }, 30s));
    ownWindow->update();
    ASSERT_TRUE(waitFor([&] { return frames >= 2; }, 30s));
    EXPECT_FALSE(layer->hasRenderContext());
    EXPECT_TRUE(layer->diagnostics().isEmpty());
    EXPECT_TRUE(core->hasWaitingLoad());

    // A stop drops the waiting load: nothing plays later when a context comes.
    player->stop();
    EXPECT_FALSE(core->hasWaitingLoad());

    // Where no render context can be made (no OpenGL), the video goes nowhere and the film
    // plays on with its sound.
    ASSERT_TRUE(play(id));
    EXPECT_TRUE(core->hasWaitingLoad());
    core->renderContextUnavailable();
    EXPECT_FALSE(core->hasWaitingLoad());
    EXPECT_TRUE(waitFor([&] { return player->loaded() && player->position() > 1.0; }, 90s))
        << "position " << player->position();
}

TEST_F(VideoLayerTest, DestroyRacingCreationLeavesNoContextBehind)
{
    // Each round shows a fresh window whose render thread makes the context while the main
    // thread destroys the item after a varying number of event rounds: before, during or after
    // the creation. Whatever the order, no context survives the destroy.
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        VideoLayer *layer = bareLayer({320, 180});
        ownWindow->show();
        for (int spin = 0; spin < round % 8; ++spin) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
            QThread::msleep(static_cast<unsigned long>(round % 3));
        }
        layer->destroy();
        EXPECT_FALSE(layer->hasRenderContext());
        EXPECT_TRUE(layer->diagnostics().isEmpty());
        ownWindow.reset();
    }
    EXPECT_FALSE(player->core()->mpvCore()->renderContextReady());
}

TEST_F(VideoLayerTest, AZeroSizedItemCountsNothing)
{
    const QString id = addTorrent();
    ASSERT_FALSE(id.isEmpty());
    VideoLayer *layer = bareLayer({0, 0});
    ownWindow->show();
    ASSERT_TRUE(waitFor([&] { return layer->hasRenderContext(); }, 30s));
    ASSERT_TRUE(play(id));
    // Frames flow and playback moves, but nothing is drawn or counted.
    ASSERT_TRUE(waitFor([&] { return player->position() > 2.0; }, 90s)) << "position " << player->position();
    EXPECT_EQ(layer->diagnostics().value(QStringLiteral("rendered")), QStringLiteral("0"));
    EXPECT_EQ(layer->diagnostics().value(QStringLiteral("hidden-frames-skipped")), QStringLiteral("0"));
}

} // namespace
