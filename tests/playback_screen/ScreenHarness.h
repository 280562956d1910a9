#pragma once

// A player on a real display: a real engine downloading from a seeder on 127.0.0.1, real
// libmpv drawing through the video item, and the player window loaded from its QML module.

#include "engine/TorrentEngine.h"
#include "playback/MPVCore.h"
#include "playback/PlayerModel.h"
#include "playback/VideoLayer.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QCoroTask>
#include <QDir>
#include <QFuture>
#include <QImage>
#include <QProcess>
#include <QQmlApplicationEngine>
#include <QQuickWindow>

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace screentest {

using namespace std::chrono_literals;

// A clip whose top half is red and bottom half blue, so a picture upside down shows at once.
inline bool makeTwoColourVideo(const std::string &path, int seconds, int width = 320, int height = 180)
{
    QDir().mkpath(QFileInfo(QString::fromStdString(path)).absolutePath());
    const QString half = QStringLiteral("s=%1x%2:d=%3:r=25").arg(width).arg(height / 2).arg(seconds);
    QProcess ffmpeg;
    ffmpeg.setStandardInputFile(QProcess::nullDevice());
    ffmpeg.setProcessChannelMode(QProcess::MergedChannels);
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"), QStringLiteral("error"), QStringLiteral("-y"),
                  QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), QStringLiteral("color=c=red:") + half,
                  QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), QStringLiteral("color=c=blue:") + half,
                  QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                  QStringLiteral("sine=frequency=440:duration=%1").arg(seconds), QStringLiteral("-filter_complex"),
                  QStringLiteral("[0:v][1:v]vstack=inputs=2[v]"), QStringLiteral("-map"), QStringLiteral("[v]"),
                  QStringLiteral("-map"), QStringLiteral("2:a"), QStringLiteral("-c:v"), QStringLiteral("libx264"),
                  QStringLiteral("-preset"), QStringLiteral("ultrafast"), QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p"),
                  QStringLiteral("-g"), QStringLiteral("25"), QStringLiteral("-c:a"), QStringLiteral("aac"),
                  QString::fromStdString(path)});
    if (!ffmpeg.waitForFinished(120000))
        return false;
    return ffmpeg.exitStatus() == QProcess::NormalExit && ffmpeg.exitCode() == 0;
}

// Where the tests leave their pictures of the screen, to be looked at.
inline QString screenshotPath(const QString &name)
{
    const QString dir = QDir::tempPath() + QStringLiteral("/velix-player-screens");
    QDir().mkpath(dir);
    return dir + QLatin1Char('/') + name + QStringLiteral(".png");
}

template <typename T>
std::optional<T> await(QCoro::Task<T> task, std::chrono::milliseconds deadline = 60s)
{
    auto result = std::make_shared<std::optional<T>>();
    QObject context;
    QCoro::connect(std::move(task), &context, [result](T value) { *result = std::move(value); });
    testsupport::waitFor([&] { return result->has_value(); }, deadline);
    return *result;
}

template <typename T>
std::optional<T> await(QFuture<T> future, std::chrono::milliseconds deadline = 60s)
{
    testsupport::waitFor([&] { return future.isFinished(); }, deadline);
    if (!future.isFinished())
        return std::nullopt;
    return future.result();
}

inline QCoro::Task<bool> finished(QCoro::Task<> task)
{
    co_await std::move(task);
    co_return true;
}

inline QCoro::Task<bool> openFirstFile(PlayerModel *player, TorrentEngine *engine, QString id)
{
    QPointer<PlayerModel> guard(player);
    auto filesTask = engine->files(id);
    const QList<TorrentFile> files = co_await std::move(filesTask);
    if (!guard || files.isEmpty())
        co_return false;
    auto opening = player->open(id, files.first());
    co_await std::move(opening);
    co_return true;
}

class ScreenFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(makeTwoColourVideo(content.file("Film/Film.mkv"), seconds())) << "ffmpeg could not make the clip";
        made = testsupport::makeTorrent(content.path(), "Film", content.path());
        seeder = std::make_unique<testsupport::LocalSeeder>(seederLimit());
        ASSERT_TRUE(seeder->seed(made));
        enginePort = testsupport::freeTcpPort();
        engine = std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(testsupport::quietSettingsText(enginePort)));
        PlayerModel::Hooks hooks;
        hooks.makeCore = [this] { return makeMPVPlayerCore(engine->session(), false, true); };
        player = std::make_unique<PlayerModel>(engine.get(), hooks);
        PlayerModel::setShared(player.get());
    }

    void TearDown() override
    {
        // The program's stop order: windows, player, core, session.
        qml.reset();
        ownWindow.reset();
        if (player) {
            player->stop();
            player->destroyCore();
        }
        PlayerModel::setShared(nullptr);
        player.reset();
        if (engine)
            engine->shutdown();
    }

    virtual int seconds() const { return 30; }
    virtual int seederLimit() const { return 0; }

    QString addTorrent()
    {
        const std::optional<AddOutcome> outcome = await(engine->addTorrent(
            QString::fromStdString(made.torrentPath), downloads.qpath(), std::nullopt, false, false));
        const auto *added = outcome ? std::get_if<AddResult>(&*outcome) : nullptr;
        if (!added)
            return {};
        seeder->offer(made, enginePort);
        return added->id;
    }

    bool play(const QString &id)
    {
        return await(openFirstFile(player.get(), engine.get(), id)).value_or(false);
    }

    QQuickWindow *loadPlayerWindow()
    {
        qml = std::make_unique<QQmlApplicationEngine>();
        qml->addImportPath(QStringLiteral("qrc:/qt/qml"));
        qml->load(QUrl(QStringLiteral("qrc:/qt/qml/Velix/Playback/PlayerWindow.qml")));
        if (qml->rootObjects().isEmpty())
            return nullptr;
        return qobject_cast<QQuickWindow *>(qml->rootObjects().first());
    }

    // A bare window holding only a video item of the given size, bound to the player's core.
    VideoLayer *bareLayer(QSizeF size)
    {
        ownWindow = std::make_unique<QQuickWindow>();
        ownWindow->resize(640, 360);
        // Placed after construction, as QML does, so the item sees its window arrive.
        auto *layer = new VideoLayer;
        layer->setParentItem(ownWindow->contentItem());
        layer->setSize(size);
        layer->setPlayer(player.get());
        return layer;
    }

    static uint64_t counter(const QMap<QString, QString> &diagnostics, const QString &name)
    {
        return diagnostics.value(name).toULongLong();
    }

    testsupport::TempDir content;
    testsupport::TempDir home;
    testsupport::TempDir downloads;
    testsupport::MadeTorrent made;
    std::unique_ptr<testsupport::LocalSeeder> seeder;
    int enginePort = 0;
    std::unique_ptr<TorrentEngine> engine;
    std::unique_ptr<PlayerModel> player;
    std::unique_ptr<QQmlApplicationEngine> qml;
    std::unique_ptr<QQuickWindow> ownWindow;
};

} // namespace screentest
