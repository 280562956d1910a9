#include "engine/TorrentEngine.h"

#include "engine/Storage.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>

using testsupport::TempDir;
using testsupport::waitFor;

namespace {

QString quietOverrides()
{
    return QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort()));
}

std::unique_ptr<TorrentEngine> makeEngine(const TempDir &home)
{
    return std::make_unique<TorrentEngine>(home.qpath(), nullptr, quietOverrides());
}

TorrentStatus status(const QString &id, const QString &name, qint64 added)
{
    TorrentStatus t;
    t.id = id;
    t.name = name;
    t.added = added;
    t.state = QStringLiteral("downloading");
    t.total = 1000;
    return t;
}

StatusSnapshot snapshotOf(QList<TorrentStatus> torrents)
{
    StatusSnapshot s;
    s.torrents = std::move(torrents);
    return s;
}

QJsonObject readJson(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

} // namespace

TEST(TorrentEngineTest, PollsTheSessionAndStopsOnceLeavingItsFilesBehind)
{
    TempDir home;
    auto engine = makeEngine(home);
    // The first poll runs at construction; the listen result arrives through later ones.
    ASSERT_TRUE(waitFor([&] { return !engine->sessionInfo().listening.isEmpty(); }));
    EXPECT_EQ(engine->pollInterval(), 1.0);
    EXPECT_TRUE(engine->torrents().isEmpty());
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/settings.json")));

    engine->shutdown();
    EXPECT_TRUE(engine->isShutDown());
    EXPECT_EQ(engine->session(), nullptr);
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/torrents.json")));
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/state/session.state")));

    // A round that arrives after the stop is dropped, and a second stop does nothing.
    QSignalSpy spy(engine.get(), &TorrentEngine::torrentsChanged);
    engine->apply(snapshotOf({status(QStringLiteral("a"), QStringLiteral("A"), 1)}), {});
    EXPECT_EQ(spy.count(), 0);
    engine->shutdown();
    engine->poll();
}

TEST(TorrentEngineTest, PublishesSortedTorrentsOnlyWhenTheyChange)
{
    TempDir home;
    auto engine = makeEngine(home);
    QSignalSpy spy(engine.get(), &TorrentEngine::torrentsChanged);
    const auto round = snapshotOf({status(QStringLiteral("1"), QStringLiteral("b"), 10),
                                   status(QStringLiteral("2"), QStringLiteral("a"), 10),
                                   status(QStringLiteral("3"), QStringLiteral("z"), 30),
                                   status(QStringLiteral("4"), QStringLiteral("B"), 10)});
    engine->apply(round, {});
    ASSERT_EQ(engine->torrents().size(), 4);
    QStringList order;
    for (const auto &t : engine->torrents())
        order << t.id;
    // Newest first; equal times by name in plain comparison, so "B" before "a" before "b".
    EXPECT_EQ(order, (QStringList{QStringLiteral("3"), QStringLiteral("4"), QStringLiteral("2"), QStringLiteral("1")}));
    const qsizetype afterFirst = spy.count();
    engine->apply(round, {});
    EXPECT_EQ(spy.count(), afterFirst);
    EXPECT_EQ(engine->torrent(QStringLiteral("2"))->name, QStringLiteral("a"));
    EXPECT_FALSE(engine->torrent(QStringLiteral("missing")).has_value());
    engine->apply(std::nullopt, {});
    EXPECT_EQ(engine->torrents().size(), 4);
}

TEST(TorrentEngineTest, OnlyAnActiveCheckQuickensThePoll)
{
    struct Row
    {
        const char *state;
        bool paused;
        const char *error;
        double interval;
    };
    constexpr std::array<Row, 4> rows{{{"checking", false, "", 0.25},
                                       {"checking", true, "", 1.0},
                                       {"checking", false, "read error", 1.0},
                                       {"downloading", false, "", 1.0}}};
    TempDir home;
    auto engine = makeEngine(home);
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.state) + (row.paused ? " paused" : "") + " " + row.error);
        TorrentStatus t = status(QStringLiteral("c"), QStringLiteral("C"), 1);
        t.state = QString::fromLatin1(row.state);
        t.paused = row.paused;
        t.error = QString::fromLatin1(row.error);
        engine->apply(snapshotOf({t}), {});
        EXPECT_EQ(engine->pollInterval(), row.interval);
    }
}

TEST(TorrentEngineTest, CheckRateFeedsTheTimeLeftOfAnActiveCheckOnly)
{
    TorrentStatus t = status(QStringLiteral("c"), QStringLiteral("C"), 1);
    t.state = QStringLiteral("checking");
    t.total = 1000;
    t.progress = 0.25;
    t.checkingRate = 100;
    ASSERT_TRUE(t.checkingETA().has_value());
    EXPECT_DOUBLE_EQ(*t.checkingETA(), 7.5);

    struct Row
    {
        const char *why;
        std::function<void(TorrentStatus &)> change;
    };
    const std::array<Row, 5> rows{{{"paused", [](TorrentStatus &s) { s.paused = true; }},
                                   {"error", [](TorrentStatus &s) { s.error = QStringLiteral("x"); }},
                                   {"zero rate", [](TorrentStatus &s) { s.checkingRate = 0; }},
                                   {"done", [](TorrentStatus &s) { s.progress = 1.5; }},
                                   {"not checking", [](TorrentStatus &s) { s.state = QStringLiteral("downloading"); }}}};
    for (const Row &row : rows) {
        TorrentStatus copy = t;
        row.change(copy);
        EXPECT_FALSE(copy.checkingETA().has_value()) << row.why;
    }
}

TEST(TorrentEngineTest, EventsBecomeToastsAndFocusRequests)
{
    TempDir home;
    auto engine = makeEngine(home);
    TorrentStatus done = status(QStringLiteral("d"), QStringLiteral("Фильм"), 1);
    done.wanted = 100;
    TorrentStatus nothingWanted = status(QStringLiteral("n"), QStringLiteral("Пусто"), 2);
    nothingWanted.wanted = 0;
    const auto round = snapshotOf({done, nothingWanted});

    struct Row
    {
        TorrentEvent event;
        QString toast;
    };
    const std::array<Row, 5> rows{{
        {{QStringLiteral("finished"), QStringLiteral("d"), QStringLiteral("Фильм"), {}}, QStringLiteral("«Фильм» скачан")},
        {{QStringLiteral("finished"), QStringLiteral("n"), QStringLiteral("Пусто"), {}}, QString()},
        {{QStringLiteral("error"), QStringLiteral("d"), QStringLiteral("Фильм"), QStringLiteral("disk full")},
         QStringLiteral("«Фильм»: disk full")},
        {{QStringLiteral("recheck"), QStringLiteral("d"), QStringLiteral("Фильм"), {}},
         QStringLiteral("«Фильм»: проверка файлов")},
        {{QStringLiteral("listen_failed"), {}, {}, QStringLiteral("0.0.0.0:1 denied")},
         QStringLiteral("Порт недоступен: 0.0.0.0:1 denied")},
    }};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.event.type.toStdString());
        engine->show(QStringLiteral("before"));
        engine->apply(round, {row.event});
        EXPECT_EQ(engine->toast(), row.toast.isEmpty() ? QStringLiteral("before") : row.toast);
    }
    engine->apply(round, {TorrentEvent{QStringLiteral("metadata"), QStringLiteral("m"), QStringLiteral("M"), {}}});
    EXPECT_EQ(engine->focusRequest(), QStringLiteral("m"));
}

TEST(TorrentEngineTest, SeedLimitsPauseUnlessTheUserResumedPastThem)
{
    TempDir home;
    auto engine = makeEngine(home);
    AppSettings settings = engine->settings();

    TorrentStatus t = status(QStringLiteral("s"), QStringLiteral("Раздача"), 1);
    t.state = QStringLiteral("seeding");
    t.seeding = true;
    t.finished = true;
    t.totalDone = 1000;
    t.downloaded = 400;
    t.uploaded = 2000;
    t.seedingTime = 3600;

    struct Row
    {
        double ratio;
        int minutes;
        bool reached;
    };
    // 2000 uploaded over max(1000, 400) is a ratio of 2; 3600 s of seeding is 60 minutes.
    constexpr std::array<Row, 6> rows{
        {{0, 0, false}, {2.0, 0, true}, {2.5, 0, false}, {0, 60, true}, {0, 61, false}, {3.0, 60, true}}};
    for (const Row &row : rows) {
        settings.ratioLimit = row.ratio;
        settings.seedTimeLimitMinutes = row.minutes;
        engine->setSettings(settings);
        EXPECT_EQ(engine->settingsLimitReached(t), row.reached) << row.ratio << " " << row.minutes;
    }
    TorrentStatus fresh = t;
    fresh.totalDone = 0;
    fresh.downloaded = 0;
    settings.ratioLimit = 0.1;
    settings.seedTimeLimitMinutes = 0;
    engine->setSettings(settings);
    EXPECT_FALSE(engine->settingsLimitReached(fresh)) << "nothing downloaded reads as ratio 0";

    settings.ratioLimit = 1.0;
    engine->setSettings(settings);
    engine->apply(snapshotOf({t}), {});
    EXPECT_EQ(engine->toast(), QStringLiteral("Раздача «Раздача» остановлена по лимиту"));

    // The user's resume past the limit is remembered and the limit leaves the torrent alone.
    engine->resume({t.id});
    EXPECT_TRUE(engine->meta().value(t.id).ignoreSeedLimits);
    engine->show(QStringLiteral("quiet"));
    engine->apply(snapshotOf({t}), {});
    EXPECT_EQ(engine->toast(), QStringLiteral("quiet"));
}

TEST(TorrentEngineTest, SettingsAndMetaSavesAreDebouncedAndSurviveAQuickQuit)
{
    TempDir home;
    const QString settingsPath = home.qpath() + QStringLiteral("/settings.json");
    const QString metaPath = home.qpath() + QStringLiteral("/torrents.json");
    {
        auto engine = makeEngine(home);
        AppSettings settings = engine->settings();
        for (int k = 1; k <= 10; ++k) {
            settings.activeDownloads = k;
            engine->setSettings(settings);
        }
        // A burst is not written while it lasts, but once after it.
        EXPECT_NE(readJson(settingsPath).value(QStringLiteral("activeDownloads")).toInt(), 10);
        ASSERT_TRUE(waitFor([&] { return readJson(settingsPath).value(QStringLiteral("activeDownloads")).toInt() == 10; }));

        QSignalSpy metaSpy(engine.get(), &TorrentEngine::metaChanged);
        engine->updateMeta(QStringLiteral("abc"), [](TorrentMeta &m) { m.positions.insert(1, 42.5); });
        engine->updateMeta(QStringLiteral("abc"), [](TorrentMeta &m) { m.positions.insert(1, 42.5); });
        EXPECT_EQ(metaSpy.count(), 1);

        settings.activeSeeds = 77;
        engine->setSettings(settings);
        // Quitting right after a change still writes it.
        engine->shutdown();
    }
    EXPECT_EQ(readJson(settingsPath).value(QStringLiteral("activeSeeds")).toInt(), 77);
    ASSERT_TRUE(readJson(metaPath).contains(QStringLiteral("abc")));

    auto again = makeEngine(home);
    EXPECT_EQ(again->settings().activeSeeds, 77);
    EXPECT_EQ(again->meta().value(QStringLiteral("abc")).positions.value(1), 42.5);
}

TEST(TorrentEngineTest, BrokenFilesStartFromDefaultsAndTheDownloadDirCanBeOverridden)
{
    TempDir home;
    std::filesystem::create_directories(home.path());
    std::ofstream(home.file("settings.json")) << "[not an object";
    std::ofstream(home.file("torrents.json")) << R"({"x": {"positions": {}}})"; // ignoreSeedLimits is required

    qputenv("VELIX_DOWNLOAD_DIR", QFile::encodeName(home.qpath() + QStringLiteral("/dl")));
    auto engine = makeEngine(home);
    qunsetenv("VELIX_DOWNLOAD_DIR");
    EXPECT_EQ(engine->settings().downloadDirectory, home.qpath() + QStringLiteral("/dl"));
    EXPECT_TRUE(engine->meta().isEmpty());
    EXPECT_EQ(engine->settings().activeSeeds, AppSettings::defaults().activeSeeds);
    // Saved at start, so the override and the fresh random port stay.
    EXPECT_EQ(readJson(home.qpath() + QStringLiteral("/settings.json")).value(QStringLiteral("downloadDirectory")).toString(),
              home.qpath() + QStringLiteral("/dl"));
}
