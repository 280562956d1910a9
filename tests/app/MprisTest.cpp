// The desktop's media controls: how the player's state reads as MPRIS properties, and the
// service on a private session bus driven by playerctl, as a desktop's media keys would.

#include "PrivateBus.h"
#include "../playback/RecordingCore.h"

#include "app/MprisService.h"
#include "app/MprisState.h"
#include "engine/TorrentEngine.h"
#include "playback/PlayerModel.h"
#include "support/LocalSwarm.h"

#include <QDBusMessage>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <array>
#include <variant>

using namespace testsupport;

namespace {

const QString Id = QStringLiteral("0123456789abcdef0123456789abcdef01234567");

MprisInput playing()
{
    MprisInput in;
    in.hasItem = true;
    in.torrentId = Id;
    in.fileIndex = 3;
    in.filePath = QStringLiteral("Show/Season 1/Show.S01E02.mkv");
    in.torrentTitle = QStringLiteral("Show");
    in.duration = 1500.25;
    in.loaded = true;
    in.hasNext = true;
    return in;
}

} // namespace

TEST(MprisStateTest, PlayerStatesMapToMediaControlProperties)
{
    struct Row
    {
        const char *name;
        std::function<void(MprisInput &)> change;
        const char *status;
        bool canSeek;
        bool canPlay;
        bool hasTrack;
    };
    const std::array<Row, 7> rows{{
        {"idle", [](MprisInput &in) { in = MprisInput{}; }, "Stopped", false, false, false},
        {"playing", [](MprisInput &) {}, "Playing", true, true, true},
        {"paused", [](MprisInput &in) { in.paused = true; }, "Paused", true, true, true},
        {"ended", [](MprisInput &in) { in.ended = true; }, "Paused", true, true, true},
        {"opening", [](MprisInput &in) { in.loaded = false; in.duration = 0; }, "Playing", false, true, true},
        {"live stream without a length", [](MprisInput &in) { in.duration = 0; }, "Playing", false, true, true},
        {"ended while paused", [](MprisInput &in) { in.ended = true; in.paused = true; }, "Paused", true, true, true},
    }};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        MprisInput in = playing();
        row.change(in);
        const MprisProperties p = Mpris::properties(in);
        EXPECT_EQ(p.playbackStatus, QString::fromLatin1(row.status));
        EXPECT_EQ(p.canSeek, row.canSeek);
        EXPECT_EQ(p.canPlay, row.canPlay);
        EXPECT_EQ(p.canPause, row.canPlay);
        EXPECT_EQ(p.track.has_value(), row.hasTrack);
    }

    const MprisProperties p = Mpris::properties(playing());
    ASSERT_TRUE(p.track);
    EXPECT_EQ(p.track->trackId, QStringLiteral("/org/velix/Velix/track/") + Id + QStringLiteral("/3"));
    EXPECT_EQ(p.track->title, QStringLiteral("Show.S01E02.mkv"));
    EXPECT_EQ(p.track->album, QStringLiteral("Show"));
    EXPECT_EQ(p.track->lengthUs, 1500250000);
    EXPECT_TRUE(p.canGoNext);
    EXPECT_FALSE(p.canGoPrevious);
    EXPECT_FALSE(Mpris::properties([] { auto in = playing(); in.duration = 0; return in; }()).track->lengthUs);

    // Volume is a factor of the player's 100 %; speeds outside the menu's range are held to it.
    struct Level
    {
        double volume, mprisVolume, speed, rate;
    };
    for (const Level &l : std::array<Level, 4>{{{100, 1.0, 1.0, 1.0}, {200, 2.0, 0.25, 0.5}, {0, 0.0, 4.0, 2.0},
                                                {250, 2.0, 1.5, 1.5}}}) {
        MprisInput in = playing();
        in.volume = l.volume;
        in.speed = l.speed;
        const MprisProperties q = Mpris::properties(in);
        EXPECT_DOUBLE_EQ(q.volume, l.mprisVolume) << l.volume;
        EXPECT_DOUBLE_EQ(q.rate, l.rate) << l.speed;
    }
    for (const auto &[set, percent] : std::array<std::pair<double, double>, 5>{
             {{1.0, 100}, {0.5, 50}, {2.0, 200}, {3.0, 200}, {-1.0, 0}}})
        EXPECT_DOUBLE_EQ(Mpris::volumePercent(set), percent) << set;
    EXPECT_DOUBLE_EQ(Mpris::volumePercent(std::nan("")), 100.0);

    // Track ids are object paths whatever stands in the id.
    EXPECT_EQ(Mpris::trackId(QStringLiteral("a-b/ц"), -2), QStringLiteral("/org/velix/Velix/track/a_b__/0"));
}

TEST(MprisStateTest, OnlyPropertiesThatReallyChangedAreAnnounced)
{
    const MprisProperties base = Mpris::properties(playing());
    EXPECT_TRUE(Mpris::changedProperties(base, base).isEmpty());

    MprisInput paused = playing();
    paused.paused = true;
    EXPECT_EQ(Mpris::changedProperties(base, Mpris::properties(paused)), QStringList{QStringLiteral("PlaybackStatus")});

    // The next episode changes the track and with it the neighbours.
    MprisInput next = playing();
    next.fileIndex = 4;
    next.filePath = QStringLiteral("Show/Season 1/Show.S01E03.mkv");
    next.hasNext = false;
    next.hasPrevious = true;
    EXPECT_EQ(Mpris::changedProperties(base, Mpris::properties(next)),
              (QStringList{QStringLiteral("Metadata"), QStringLiteral("CanGoNext"), QStringLiteral("CanGoPrevious")}));

    EXPECT_EQ(Mpris::changedProperties(base, Mpris::properties(MprisInput{})),
              (QStringList{QStringLiteral("PlaybackStatus"), QStringLiteral("Metadata"), QStringLiteral("CanGoNext"),
                           QStringLiteral("CanPlay"), QStringLiteral("CanPause"), QStringLiteral("CanSeek")}));
}

namespace {

class MprisBusTest : public ::testing::Test
{
protected:
    MprisBusTest()
        : engine(std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(quietSettingsText(freeTcpPort()))))
    {
        PlayerModel::Hooks hooks;
        hooks.makeCore = [this]() -> std::unique_ptr<PlayerCore> { return std::make_unique<RecordingCore>(log); };
        hooks.streamProgress = [](QString, int) -> QCoro::Task<double> { co_return -1.0; };
        hooks.prefetch = [](const QString &, int, qint64, double) {};
        player = std::make_unique<PlayerModel>(engine.get(), hooks);
    }

    // Two complete episodes where the engine saves them.
    QString addSeries()
    {
        const std::string root = home.file("series");
        for (const char *path : {"Show/Show.S01E01.mkv", "Show/Show.S01E02.mkv"})
            writePatternFile(root + "/" + path, 40 * 1024);
        const MadeTorrent made = makeTorrent(root, "Show", home.file("torrents"));
        const auto added = resultOf(engine->addTorrent(QString::fromStdString(made.torrentPath),
                                                       QString::fromStdString(root), std::nullopt, false, false));
        if (!added || !std::holds_alternative<AddResult>(*added))
            return {};
        const QString id = std::get<AddResult>(*added).id;
        // Padding files of the torrent are no part of the series.
        for (const TorrentFile &f : resultOf(engine->files(id)).value_or(QList<TorrentFile>())) {
            if (!f.pad)
                files << f;
        }
        return id;
    }

    // playerctl, as the desktop's media keys and sound menu drive a player; its output.
    std::string playerctl(const QStringList &arguments)
    {
        QProcess process;
        process.setProcessEnvironment(bus.environment());
        process.start(QStringLiteral("playerctl"), QStringList{QStringLiteral("--player=velix")} + arguments);
        // playerctl answers through the bus, which this thread serves meanwhile.
        waitFor([&] { return process.state() == QProcess::NotRunning; }, std::chrono::seconds(30));
        return process.readAllStandardOutput().trimmed().toStdString();
    }

    TempDir home;
    std::unique_ptr<TorrentEngine> engine;
    std::shared_ptr<CoreLog> log = std::make_shared<CoreLog>();
    std::unique_ptr<PlayerModel> player;
    QList<TorrentFile> files;
    PrivateBus bus;
};

// Counts the PropertiesChanged signals a client on the bus receives.
class PropertiesWatcher : public QObject
{
    Q_OBJECT

public:
    explicit PropertiesWatcher(QDBusConnection connection)
        : m_connection(connection)
    {
        m_connection.connect(QString(), QString::fromLatin1(MprisService::ObjectPath),
                             QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"), this,
                             SLOT(changed(QString, QVariantMap, QStringList)));
        m_connection.connect(QString(), QString::fromLatin1(MprisService::ObjectPath),
                             QStringLiteral("org.mpris.MediaPlayer2.Player"), QStringLiteral("Seeked"), this,
                             SLOT(seeked(qlonglong)));
    }

    QList<QStringList> changes;
    QList<qlonglong> seeks;

public slots:
    void changed(const QString &, const QVariantMap &values, const QStringList &)
    {
        QStringList names = values.keys();
        names.sort();
        changes << names;
    }
    void seeked(qlonglong position) { seeks << position; }

private:
    QDBusConnection m_connection;
};

} // namespace

TEST_F(MprisBusTest, PlayerctlDrivesThePlayerAndSeesItsState)
{
    ASSERT_FALSE(bus.address().isEmpty());
    const QString id = addSeries();
    ASSERT_FALSE(id.isEmpty());
    ASSERT_EQ(files.size(), 2);

    bool raised = false;
    bool quit = false;
    MprisService::Hooks hooks;
    hooks.torrentTitle = [](const QString &) { return QStringLiteral("Show, season one"); };
    hooks.raise = [&raised] { raised = true; };
    hooks.quit = [&quit] { quit = true; };
    MprisService service(player.get(), hooks);
    ASSERT_TRUE(service.start(bus.connect()));
    EXPECT_EQ(service.serviceName(), QStringLiteral("org.mpris.MediaPlayer2.velix"));
    PropertiesWatcher watcher(bus.connect());

    EXPECT_EQ(playerctl({QStringLiteral("status")}), "Stopped");

    player->open(id, files.at(0));
    ASSERT_TRUE(waitFor([&] { return log->loads() == 1; }));
    player->handle(MPVEvent::of(MPVEvent::Kind::FileLoaded));
    player->handle(MPVEvent::property(QStringLiteral("duration"), MPVValue::ofDouble(120.0)));
    player->handle(MPVEvent::property(QStringLiteral("time-pos"), MPVValue::ofDouble(12.5)));

    EXPECT_EQ(playerctl({QStringLiteral("status")}), "Playing");
    // playerctl writes object paths quoted.
    EXPECT_EQ(playerctl({QStringLiteral("metadata"), QStringLiteral("--format"),
                         QStringLiteral("{{xesam:title}}|{{xesam:album}}|{{mpris:length}}|{{mpris:trackid}}")}),
              QStringLiteral("Show.S01E01.mkv|Show, season one|120000000|'/org/velix/Velix/track/%1/%2'")
                  .arg(id)
                  .arg(files.at(0).i)
                  .toStdString());
    // playerctl carries the position on at the playing rate since it read it.
    EXPECT_NEAR(std::stod(playerctl({QStringLiteral("position")})), 12.5, 1.0);

    // Pause and play go through the player's own toggle; libmpv's answer moves the status.
    log->clear();
    playerctl({QStringLiteral("pause")});
    EXPECT_EQ(log->commandsNamed(QStringLiteral("cycle")).size(), 1);
    player->handle(MPVEvent::property(QStringLiteral("pause"), MPVValue::ofFlag(true)));
    EXPECT_EQ(playerctl({QStringLiteral("status")}), "Paused");
    playerctl({QStringLiteral("pause")}); // already paused: nothing to do
    EXPECT_EQ(log->commandsNamed(QStringLiteral("cycle")).size(), 1);
    playerctl({QStringLiteral("play")});
    EXPECT_EQ(log->commandsNamed(QStringLiteral("cycle")).size(), 2);
    player->handle(MPVEvent::property(QStringLiteral("pause"), MPVValue::ofFlag(false)));

    // Absolute and relative seeks; the landing point goes out as Seeked.
    playerctl({QStringLiteral("position"), QStringLiteral("30")});
    playerctl({QStringLiteral("position"), QStringLiteral("10+")});
    const QList<QStringList> seeks = log->commandsNamed(QStringLiteral("seek"));
    ASSERT_EQ(seeks.size(), 2);
    EXPECT_EQ(seeks.at(0).at(1), QStringLiteral("30.000"));
    EXPECT_EQ(seeks.at(1).at(1), QStringLiteral("40.000"));
    player->handle(MPVEvent::property(QStringLiteral("seeking"), MPVValue::ofFlag(true)));
    player->handle(MPVEvent::property(QStringLiteral("time-pos"), MPVValue::ofDouble(40.0)));
    player->handle(MPVEvent::property(QStringLiteral("seeking"), MPVValue::ofFlag(false)));
    ASSERT_TRUE(waitFor([&] { return !watcher.seeks.isEmpty(); }));
    EXPECT_EQ(watcher.seeks.last(), 40000000);

    // A SetPosition for a track that no longer plays is stale and ignored.
    QDBusConnection client = bus.connect();
    QDBusMessage stale = QDBusMessage::createMethodCall(service.serviceName(), QString::fromLatin1(MprisService::ObjectPath),
                                                        QStringLiteral("org.mpris.MediaPlayer2.Player"),
                                                        QStringLiteral("SetPosition"));
    stale << QVariant::fromValue(QDBusObjectPath(Mpris::trackId(id, 99))) << qlonglong(5000000);
    EXPECT_EQ(client.call(stale, QDBus::BlockWithGui).type(), QDBusMessage::ReplyMessage);
    EXPECT_EQ(log->commandsNamed(QStringLiteral("seek")).size(), 2);

    // Volume 1.5 is the player's 150 %.
    playerctl({QStringLiteral("volume"), QStringLiteral("1.5")});
    EXPECT_EQ(log->valuesOf(QStringLiteral("volume")).last(), QStringLiteral("150"));

    // Next goes to the matcher's next episode.
    ASSERT_TRUE(player->hasNextFile());
    playerctl({QStringLiteral("next")});
    ASSERT_TRUE(waitFor([&] { return player->item() && player->item()->file.i == files.at(1).i; }));
    ASSERT_TRUE(waitFor([&] {
        return playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:title")}) == "Show.S01E02.mkv";
    }));

    // Nothing changed, nothing announced.
    waitFor([] { return false; }, std::chrono::milliseconds(300));
    const qsizetype announced = watcher.changes.size();
    EXPECT_GT(announced, 0);
    service.refresh();
    player->handle(MPVEvent::property(QStringLiteral("pause"), MPVValue::ofFlag(false)));
    waitFor([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(watcher.changes.size(), announced);

    playerctl({QStringLiteral("stop")});
    EXPECT_FALSE(player->item());
    EXPECT_EQ(playerctl({QStringLiteral("status")}), "Stopped");

    QDBusMessage raise = QDBusMessage::createMethodCall(service.serviceName(), QString::fromLatin1(MprisService::ObjectPath),
                                                        QStringLiteral("org.mpris.MediaPlayer2"), QStringLiteral("Raise"));
    client.call(raise, QDBus::BlockWithGui);
    EXPECT_TRUE(raised);
    EXPECT_FALSE(quit);
    QDBusMessage quitCall = QDBusMessage::createMethodCall(service.serviceName(), QString::fromLatin1(MprisService::ObjectPath),
                                                           QStringLiteral("org.mpris.MediaPlayer2"), QStringLiteral("Quit"));
    client.call(quitCall, QDBus::BlockWithGui);
    EXPECT_TRUE(quit);
}

TEST_F(MprisBusTest, ASecondVelixTakesAnInstanceNameAndNoBusMeansNoService)
{
    ASSERT_FALSE(bus.address().isEmpty());
    MprisService first(player.get(), {});
    ASSERT_TRUE(first.start(bus.connect()));
    MprisService second(player.get(), {});
    ASSERT_TRUE(second.start(bus.connect()));
    EXPECT_EQ(second.serviceName(), QStringLiteral("org.mpris.MediaPlayer2.velix.instance%1").arg(::getpid()));

    QDBusConnection client = bus.connect();
    QDBusMessage get = QDBusMessage::createMethodCall(second.serviceName(), QString::fromLatin1(MprisService::ObjectPath),
                                                      QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.mpris.MediaPlayer2") << QStringLiteral("DesktopEntry");
    const QDBusMessage reply = client.call(get, QDBus::BlockWithGui);
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage);
    EXPECT_EQ(reply.arguments().value(0).value<QDBusVariant>().variant().toString(), QStringLiteral("org.velix.Velix"));

    MprisService none(player.get(), {});
    EXPECT_FALSE(none.start(QDBusConnection(QStringLiteral("velix-no-such-bus"))));
    EXPECT_TRUE(none.serviceName().isEmpty());
}

#include "MprisTest.moc"
