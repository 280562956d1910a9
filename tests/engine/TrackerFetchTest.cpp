#include "engine/Storage.h"
#include "engine/TorrentEngine.h"

#include "support/LocalHttpServer.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QDateTime>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

using testsupport::LocalHttpServer;
using testsupport::TempDir;
using testsupport::waitFor;

namespace {

const QString Updating = QStringLiteral("Обновление…");
const QString Unreachable = QStringLiteral("Источники недоступны");

QStringList announceList(int count, const char *scheme = "udp")
{
    QStringList lines;
    for (int i = 0; i < count; ++i)
        lines << QStringLiteral("%1://tracker%2.example.net:1337/announce").arg(QLatin1String(scheme)).arg(i);
    return lines;
}

QByteArray body(const QStringList &lines)
{
    return lines.join(QLatin1Char('\n')).toUtf8();
}

// A hanging source fails after `timeout`, within the test rather than after the real twelve seconds.
std::unique_ptr<TorrentEngine> makeEngine(const TempDir &home, const QList<QUrl> &sources,
                                          std::chrono::milliseconds timeout = std::chrono::milliseconds(500))
{
    const QString quiet = QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort()));
    return std::make_unique<TorrentEngine>(home.qpath(), nullptr, quiet, TrackerListSources{false, sources, timeout});
}

// Runs one refresh to its end.
bool refresh(TorrentEngine &engine, bool force)
{
    bool done = false;
    QCoro::connect(engine.refreshTrackers(force), &engine, [&] { done = true; });
    return waitFor([&] { return done; });
}

// A settings file as a previous run would have left it.
void writeSettings(const TempDir &home, const QStringList &fetched, const std::optional<QDateTime> &fetchedAt)
{
    AppSettings settings = AppSettings::defaults();
    settings.fetchedTrackers = fetched;
    settings.trackersFetchedAt = fetchedAt;
    Storage::save(settings.toJson(), home.qpath() + QStringLiteral("/settings.json"));
}

bool settled(const TorrentEngine &engine)
{
    return !engine.trackerFetchStatus().isEmpty() && engine.trackerFetchStatus() != Updating;
}

} // namespace

TEST(TrackerFetchTest, ListsAreKeptOnlyWithFiveUsableLinesAndCutAtEighty)
{
    const QStringList five = announceList(5);
    struct Row
    {
        const char *what;
        QByteArray body;
        std::optional<QStringList> list;
    };
    const Row rows[] = {
        {"five lines", body(five), five},
        {"blanks, carriage returns and other lines are skipped",
         "  udp://a.example:1/announce \r\n\r\n# a comment\nhttp://b.example/announce\nftp://c.example/x\n"
         "https://d.example/announce\r\nudp://e.example:2/announce\nudp://f.example:3/announce\n",
         QStringList{"udp://a.example:1/announce", "http://b.example/announce", "https://d.example/announce",
                     "udp://e.example:2/announce", "udp://f.example:3/announce"}},
        {"four lines", body(announceList(4)), std::nullopt},
        {"websocket trackers count for nothing", body(announceList(4) + announceList(6, "wss")), std::nullopt},
        {"a hundred lines keep the first eighty", body(announceList(100)), announceList(80)},
        {"not UTF-8", body(five) + "\n\xff\xfe", std::nullopt},
        {"empty", QByteArray(), std::nullopt},
    };
    for (const Row &row : rows)
        EXPECT_EQ(parseTrackerList(row.body), row.list) << row.what;
}

TEST(TrackerFetchTest, AStartTriesEachSourceInTurnUntilOneGivesAList)
{
    LocalHttpServer server;
    server.serve("/error", body(announceList(10)), 500);
    server.route("/hang", LocalHttpServer::Response{200, QByteArray(), {}, true});
    server.serve("/hundred", body(announceList(100)));
    server.serve("/unused", body(announceList(10)));
    QList<QUrl> sources;
    for (const char *path : {"/missing", "/error", "/hang", "/hundred", "/unused"})
        sources << server.url(QString::fromLatin1(path));

    TempDir home;
    const QDateTime before = QDateTime::currentDateTimeUtc();
    auto engine = makeEngine(home, sources);
    EXPECT_EQ(engine->trackerFetchStatus(), Updating);
    ASSERT_TRUE(waitFor([&] { return settled(*engine); }));

    EXPECT_EQ(engine->trackerFetchStatus(), "80 · 127.0.0.1");
    EXPECT_EQ(server.requests(), QStringList({"/missing", "/error", "/hang", "/hundred"}));
    EXPECT_EQ(engine->settings().fetchedTrackers, announceList(80));
    ASSERT_TRUE(engine->settings().trackersFetchedAt.has_value());
    EXPECT_GE(*engine->settings().trackersFetchedAt, before.addSecs(-1));
    // The fetched list reaches the settings file.
    engine->shutdown();
    const auto saved = Storage::load(home.qpath() + "/settings.json");
    ASSERT_TRUE(saved.has_value());
    EXPECT_EQ(saved->value("fetchedTrackers").toArray().size(), 80);
}

TEST(TrackerFetchTest, WhenEverySourceFailsTheLastListStays)
{
    LocalHttpServer server;
    server.serve("/four", body(announceList(4)));
    TempDir home;
    const QStringList previous = announceList(7, "http");
    const QDateTime twoDaysAgo = QDateTime::currentDateTimeUtc().addDays(-2);
    writeSettings(home, previous, twoDaysAgo);

    // A list too short to use moves the fetch on, like a source that isn't there.
    auto engine = makeEngine(home, {server.url("/four"), server.url("/missing")});
    ASSERT_TRUE(waitFor([&] { return settled(*engine); }));
    EXPECT_EQ(engine->trackerFetchStatus(), Unreachable);
    EXPECT_EQ(server.requests(), QStringList({"/four", "/missing"}));
    EXPECT_EQ(engine->settings().fetchedTrackers, previous);
    ASSERT_TRUE(engine->settings().trackersFetchedAt.has_value());
    EXPECT_EQ(engine->settings().trackersFetchedAt->toSecsSinceEpoch(), twoDaysAgo.toSecsSinceEpoch());
}

TEST(TrackerFetchTest, AListFromWithinTheDayIsKeptUntilARefreshIsForced)
{
    LocalHttpServer server;
    server.serve("/list", body(announceList(12)));
    server.redirect("/moved", "/list");
    TempDir home;
    const QStringList previous = announceList(6, "https");
    writeSettings(home, previous, QDateTime::currentDateTimeUtc().addSecs(-3600));

    auto engine = makeEngine(home, {server.url("/list")});
    ASSERT_TRUE(refresh(*engine, false));
    // Neither the start nor the later call asked anyone or said anything.
    EXPECT_TRUE(server.requests().isEmpty());
    EXPECT_TRUE(engine->trackerFetchStatus().isEmpty());
    EXPECT_EQ(engine->settings().fetchedTrackers, previous);

    // The settings page forces it; a source that has moved is followed to its new place.
    engine->setTrackerListSources(TrackerListSources{false, {server.url("/moved")}, std::chrono::milliseconds(5000)});
    ASSERT_TRUE(refresh(*engine, true));
    EXPECT_EQ(engine->trackerFetchStatus(), "12 · 127.0.0.1");
    EXPECT_EQ(server.requests(), QStringList({"/moved", "/list"}));
    EXPECT_EQ(engine->settings().fetchedTrackers, announceList(12));

    // With automatic trackers off not even a forced refresh fetches.
    AppSettings off = engine->settings();
    off.autoTrackers = false;
    engine->setSettings(off);
    ASSERT_TRUE(refresh(*engine, true));
    EXPECT_EQ(server.requests().size(), 2);
}

TEST(TrackerFetchTest, StoppingTheEngineEndsAFetchUnderWay)
{
    LocalHttpServer server;
    server.route("/hang", LocalHttpServer::Response{200, QByteArray(), {}, true});
    TempDir home;
    auto engine = makeEngine(home, {server.url("/hang"), server.url("/later")}, std::chrono::minutes(5));
    ASSERT_TRUE(waitFor([&] { return server.requests().size() == 1; }));
    // The fetch wakes inside the stop, finds the engine stopped and goes no further.
    engine.reset();
    QCoreApplication::processEvents();
    EXPECT_EQ(server.requests(), QStringList{"/hang"});
}
