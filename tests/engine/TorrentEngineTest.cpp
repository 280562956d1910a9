#include "engine/TorrentEngine.h"

#include "engine/Storage.h"
#include "support/LocalSwarm.h"
#include "support/TaskResult.h"
#include "support/SmallDisk.h"
#include "support/TestSupport.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <atomic>
#include <future>

using testsupport::TempDir;
using testsupport::waitFor;

namespace {

std::unique_ptr<TorrentEngine> makeEngine(const TempDir &home)
{
    const QString quiet = QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort()));
    return std::make_unique<TorrentEngine>(home.qpath(), nullptr, quiet);
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

// A file the engine saved in its home; empty while there is none.
QJsonObject saved(const TempDir &home, const char *file)
{
    return Storage::load(home.qpath() + '/' + QLatin1String(file)).value_or(QJsonObject());
}

} // namespace

TEST(EngineDeathTest, ASessionThatCannotStartEndsTheProgramWithAMessage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir home;
    const QString quiet = QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort()));
    EXPECT_EXIT(
        {
            // The bus's own thread is up before the limit, as it is in a program that has run a
            // while; a bus call without it would wait for ever instead of failing.
            QDBusConnection::systemBus();
            testsupport::forbidNewThreads();
            TorrentEngine engine(home.qpath(), nullptr, quiet);
            std::_Exit(0);
        },
        ::testing::ExitedWithCode(1), "the torrent session could not be created");
}

TEST(TorrentEngineTest, PollsTheSessionAndStopsOnceLeavingItsFilesBehind)
{
    TempDir home;
    auto engine = makeEngine(home);
    // The first poll runs at construction; the listen result arrives through later ones.
    ASSERT_TRUE(waitFor([&] { return !engine->sessionInfo().listening.isEmpty(); }));
    EXPECT_TRUE(engine->torrents().isEmpty());
    // Made without tracker list sources, it fetches nothing from anywhere.
    EXPECT_TRUE(engine->trackerFetchStatus().isEmpty());
    EXPECT_FALSE(engine->settings().trackersFetchedAt.has_value());

    engine->shutdown();
    EXPECT_EQ(engine->session(), nullptr);
    EXPECT_TRUE(QFile::exists(home.qpath() + "/state/session.state"));

    // A round that arrives after the stop is dropped, and a second stop does nothing.
    QSignalSpy spy(engine.get(), &TorrentEngine::torrentsChanged);
    engine->apply(snapshotOf({status("a", "A", 1)}), {});
    EXPECT_EQ(spy.count(), 0);
    engine->shutdown();
    engine->poll();
}

TEST(TorrentEngineTest, PublishesSortedTorrentsOnlyWhenTheyChange)
{
    TempDir home;
    auto engine = makeEngine(home);
    QSignalSpy spy(engine.get(), &TorrentEngine::torrentsChanged);
    const auto round =
        snapshotOf({status("1", "b", 10), status("2", "a", 10), status("3", "z", 30), status("4", "B", 10)});
    engine->apply(round, {});
    ASSERT_EQ(engine->torrents().size(), 4);
    QStringList order;
    for (const auto &t : engine->torrents())
        order << t.id;
    // Newest first; equal times by name in plain comparison, so "B" before "a" before "b".
    EXPECT_EQ(order, QStringList({"3", "4", "2", "1"}));
    const qsizetype afterFirst = spy.count();
    engine->apply(round, {});
    EXPECT_EQ(spy.count(), afterFirst);
    engine->apply(std::nullopt, {});
    EXPECT_EQ(engine->torrents().size(), 4);
}

TEST(TorrentEngineTest, AnActiveOrQueuedCheckQuickensThePoll)
{
    struct Row
    {
        const char *state;
        bool paused;
        bool autoManaged;
        const char *error;
        double interval;
    };
    const Row rows[] = {{"checking", false, false, "", 0.25},
                        {"checking", true, true, "", 0.25}, // waits in the queue for the one before it
                        {"checking", true, false, "", 1.0}, // paused by the user
                        {"checking", false, false, "read error", 1.0},
                        {"checking", true, true, "read error", 1.0},
                        {"downloading", false, true, "", 1.0}};
    TempDir home;
    auto engine = makeEngine(home);
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.state) + (row.paused ? " paused" : "") + (row.autoManaged ? " queued" : "") + " "
                     + row.error);
        TorrentStatus t = status("c", "C", 1);
        t.state = QString::fromLatin1(row.state);
        t.paused = row.paused;
        t.autoManaged = row.autoManaged;
        t.error = QString::fromLatin1(row.error);
        engine->apply(snapshotOf({t}), {});
        EXPECT_EQ(engine->pollInterval(), row.interval);
    }
}

TEST(TorrentEngineTest, EventsBecomeToastsAndFocusRequests)
{
    TempDir home;
    auto engine = makeEngine(home);
    TorrentStatus done = status("d", "Фильм", 1);
    done.wanted = 100;
    TorrentStatus nothingWanted = status("n", "Пусто", 2);
    nothingWanted.wanted = 0;
    const auto round = snapshotOf({done, nothingWanted});

    struct Row
    {
        TorrentEvent event;
        QString toast; // empty: the toast before stays
    };
    const Row rows[] = {
        {{"finished", "d", "Фильм", {}}, "«Фильм» скачан"},
        {{"finished", "n", "Пусто", {}}, {}},
        {{"error", "d", "Фильм", "disk full"}, "«Фильм»: disk full"},
        {{"recheck", "d", "Фильм", {}}, "«Фильм»: проверка файлов"},
        {{"listen_failed", {}, {}, "0.0.0.0:1 denied"}, "Порт недоступен: 0.0.0.0:1 denied"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.event.type.toStdString());
        engine->show("before");
        engine->apply(round, {row.event});
        EXPECT_EQ(engine->toast(), row.toast.isEmpty() ? "before" : row.toast);
    }
    engine->apply(round, {TorrentEvent{"metadata", "m", "M", {}}});
    EXPECT_EQ(engine->focusRequest(), "m");
}

TEST(TorrentEngineTest, SeedLimitsPauseUnlessTheUserResumedPastThem)
{
    TempDir home;
    auto engine = makeEngine(home);
    AppSettings settings = engine->settings();
    const auto limit = [&](double ratio, int minutes) {
        settings.ratioLimit = ratio;
        settings.seedTimeLimitMinutes = minutes;
        engine->setSettings(settings);
    };

    TorrentStatus t = status("s", "Раздача", 1);
    t.state = "seeding";
    t.seeding = t.finished = true;
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
    const Row rows[] = {{0, 0, false}, {2.0, 0, true}, {2.5, 0, false}, {0, 60, true}, {0, 61, false}, {3.0, 60, true}};
    for (const Row &row : rows) {
        limit(row.ratio, row.minutes);
        EXPECT_EQ(engine->settingsLimitReached(t), row.reached) << row.ratio << " " << row.minutes;
    }
    TorrentStatus fresh = t;
    fresh.totalDone = fresh.downloaded = 0;
    limit(0.1, 0);
    EXPECT_FALSE(engine->settingsLimitReached(fresh)) << "nothing downloaded reads as ratio 0";

    limit(1.0, 0);
    engine->apply(snapshotOf({t}), {});
    EXPECT_EQ(engine->toast(), "Раздача «Раздача» остановлена по лимиту");

    // The user's resume past the limit is remembered and the limit leaves the torrent alone.
    engine->resume({t.id});
    EXPECT_TRUE(engine->meta().value(t.id).ignoreSeedLimits);
    engine->show("quiet");
    engine->apply(snapshotOf({t}), {});
    EXPECT_EQ(engine->toast(), "quiet");
}

TEST(TorrentEngineTest, SettingsAndMetaSavesAreDebouncedAndSurviveAQuickQuit)
{
    TempDir home;
    {
        auto engine = makeEngine(home);
        AppSettings settings = engine->settings();
        for (int k = 1; k <= 10; ++k) {
            settings.activeDownloads = k;
            engine->setSettings(settings);
        }
        // A burst is not written while it lasts, but once after it.
        EXPECT_NE(saved(home, "settings.json").value("activeDownloads").toInt(), 10);
        ASSERT_TRUE(waitFor([&] { return saved(home, "settings.json").value("activeDownloads").toInt() == 10; }));

        QSignalSpy metaSpy(engine.get(), &TorrentEngine::metaChanged);
        for (int k = 0; k < 2; ++k)
            engine->updateMeta("abc", [](TorrentMeta &m) { m.positions.insert(1, 42.5); });
        EXPECT_EQ(metaSpy.count(), 1);

        settings.activeSeeds = 77;
        engine->setSettings(settings);
        // Quitting right after a change still writes it.
        engine->shutdown();
    }
    EXPECT_EQ(saved(home, "settings.json").value("activeSeeds").toInt(), 77);
    ASSERT_TRUE(saved(home, "torrents.json").contains("abc"));

    auto again = makeEngine(home);
    EXPECT_EQ(again->settings().activeSeeds, 77);
    EXPECT_EQ(again->meta().value("abc").positions.value(1), 42.5);
}

TEST(TorrentEngineTest, ChangesThatKeepComingReachTheDiskWhileTheyCome)
{
    TempDir home;
    auto engine = makeEngine(home);
    AppSettings settings = engine->settings();
    // A slider held down: a change every 100 ms, far inside either quiet time. Each one must
    // be on disk soon after it was made, not only after the last.
    bool settingsSeen = false;
    bool metaSeen = false;
    for (int k = 1; k <= 300 && !(settingsSeen && metaSeen); ++k) {
        settings.activeDownloads = k;
        engine->setSettings(settings);
        engine->updateMeta("slider", [k](TorrentMeta &m) { m.positions.insert(0, k); });
        waitFor([] { return false; }, std::chrono::milliseconds(100));
        settingsSeen = settingsSeen || saved(home, "settings.json").value("activeDownloads").toInt() > 1;
        metaSeen = metaSeen
            || saved(home, "torrents.json").value("slider").toObject().value("positions").toObject().value("0").toInt() > 1;
    }
    EXPECT_TRUE(settingsSeen) << "settings were not saved while they kept changing";
    EXPECT_TRUE(metaSeen) << "the meta was not saved while it kept changing";
}

TEST(TorrentEngineTest, UnreadableFilesAreKeptAsideBeforeDefaultsTakeTheirPlace)
{
    struct Row
    {
        const char *name;
        const char *settings; // nullptr: no file
        const char *meta;
        QStringList setAside;  // in the order the toasts tell of them
    };
    const QString settingsFile = QStringLiteral("settings.json");
    const QString metaFile = QStringLiteral("torrents.json");
    const std::array<Row, 5> rows{{
        {"settings are not JSON", "[not an object", nullptr, {settingsFile}},
        {"settings are another kind of JSON", "[1, 2]", nullptr, {settingsFile}},
        // Settings decode key by key: one value of the wrong type is no reason to set the file aside.
        {"a settings value of the wrong type", R"({"ipv6": "no", "activeSeeds": 3})", nullptr, {}},
        {"an entry without a required field", nullptr, R"({"x": {"positions": {}}})", {metaFile}},
        {"both", "{\"ipv6\": fal", "\x01\x02", {settingsFile, metaFile}},
    }};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        TempDir home;
        std::filesystem::create_directories(home.path());
        if (row.settings)
            std::ofstream(home.file("settings.json")) << row.settings;
        if (row.meta)
            std::ofstream(home.file("torrents.json")) << row.meta;
        auto engine = makeEngine(home);

        QStringList told;
        for (const QString &file : row.setAside)
            told << QStringLiteral("Не удалось прочитать ") + file + QStringLiteral(": сохранена копия");
        // One toast at a time: the second file's comes when the first one's time is up.
        for (const QString &text : told)
            EXPECT_TRUE(waitFor([&] { return engine->toast() == text; })) << text.toStdString();
        if (told.isEmpty()) {
            EXPECT_EQ(engine->toast(), QString());
            EXPECT_EQ(engine->settings().activeSeeds, 3);
        }
        engine->shutdown();

        // The user's bytes are where the toast says, untouched by the defaults saved since.
        for (const auto &[file, content] : {std::pair{settingsFile, row.settings}, std::pair{metaFile, row.meta}}) {
            const QStringList copies =
                QDir(home.qpath()).entryList({file + QStringLiteral(".unreadable-*")}, QDir::Files);
            if (!row.setAside.contains(file)) {
                EXPECT_TRUE(copies.isEmpty()) << file.toStdString();
                continue;
            }
            ASSERT_EQ(copies.size(), 1) << file.toStdString();
            EXPECT_TRUE(QRegularExpression(QStringLiteral("^%1\\.unreadable-\\d{8}T\\d{6}Z$").arg(QRegularExpression::escape(file)))
                            .match(copies.first()).hasMatch())
                << copies.first().toStdString();
            EXPECT_EQ(testsupport::readWholeFile(home.file(copies.first().toStdString())), std::string(content));
            EXPECT_TRUE(Storage::load(home.qpath() + QLatin1Char('/') + file).has_value()) << "saved anew";
        }
    }
}

TEST(TorrentEngineTest, TheDownloadDirectoryCanBeOverriddenForARun)
{
    TempDir home;
    const QString downloads = home.qpath() + "/dl";
    qputenv("VELIX_DOWNLOAD_DIR", QFile::encodeName(downloads));
    auto engine = makeEngine(home);
    qunsetenv("VELIX_DOWNLOAD_DIR");
    EXPECT_EQ(engine->settings().downloadDirectory, downloads);
    // Saved at start, so the override and the fresh random port stay.
    EXPECT_EQ(saved(home, "settings.json").value("downloadDirectory").toString(), downloads);
}

// A burst of asks while the queue is busy, as after thousands of commands in a row, makes one
// status round once the queue is free, not one per ask; and a command sent meanwhile still
// shows in the state its awaited refresh brings.
TEST(TorrentEngineTest, StatusRoundsDoNotPileUpBehindABusyQueue)
{
    TempDir home;
    auto engine = makeEngine(home);
    TempDir content;
    testsupport::writePatternFile(content.file("Film/film.bin"), 256 * 1024, 3);
    const testsupport::MadeTorrent film = testsupport::makeTorrent(content.path(), "Film", content.file("torrents"));
    const auto added = resultOf(engine->addTorrent(QString::fromStdString(film.torrentPath), content.qpath(),
                                                   std::nullopt, false, false));
    ASSERT_TRUE(added && std::holds_alternative<AddResult>(*added));
    const QString id = std::get<AddResult>(*added).id;
    ASSERT_TRUE(waitFor([&] { return engine->torrent(id).has_value(); }));
    // Quiet: the one round under way from the add has been applied.
    ASSERT_TRUE(finished(engine->refreshForAutomation()));

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> holding{false};
    QCoro::Task<void> hold = engine->runOnQueue([released, &holding] {
        holding = true;
        released.wait();
    });
    ASSERT_TRUE(waitFor([&] { return holding.load(); }));
    const quint64 before = engine->statusRounds();
    for (int k = 0; k < 200; ++k)
        engine->poll();
    QCoro::Task<void> pausing = engine->pause({id});
    for (int k = 0; k < 200; ++k)
        engine->poll();
    // The queue is held: the one round asked first (or one a timer sent before) waits behind
    // it, the rest only mark that one more is wanted.
    EXPECT_LE(engine->statusRounds(), before + 1);
    release.set_value();
    ASSERT_TRUE(finished(std::move(hold)));
    ASSERT_TRUE(finished(std::move(pausing)));
    ASSERT_TRUE(finished(engine->refreshForAutomation()));
    EXPECT_TRUE(engine->torrent(id)->paused) << "the awaited refresh was taken after the pause";
    // The held round, the one wanted behind it, the refresh's, and a timer's at most.
    EXPECT_LE(engine->statusRounds(), before + 5);
}

TEST(TorrentEngineTest, AFullDiskKeepsTheSavedFilesSaysSoOnceAndSavesWhenThereIsRoom)
{
    const auto disk = testsupport::onSmallDisk(1024 * 1024);
    if (!disk)
        return;
    const QString home = QString::fromStdString(*disk) + QStringLiteral("/home");
    auto savedHere = [&home](const char *file) {
        return Storage::load(home + QLatin1Char('/') + QLatin1String(file)).value_or(QJsonObject());
    };
    const QString quiet = QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort()));
    auto engine = std::make_unique<TorrentEngine>(home, nullptr, quiet);
    ASSERT_FALSE(savedHere("settings.json").isEmpty());
    const QString before = engine->settings().audioLanguages;
    QStringList toasts;
    QObject::connect(engine.get(), &TorrentEngine::toastChanged, [&] {
        if (!engine->toast().isEmpty())
            toasts << engine->toast();
    });

    std::string filler = testsupport::fillDisk(*disk);
    AppSettings settings = engine->settings();
    settings.audioLanguages = QStringLiteral("eng");
    engine->setSettings(settings);
    engine->updateMeta("abc", [](TorrentMeta &m) { m.positions.insert(2, 7.5); });
    const QStringList once{QStringLiteral("Не удалось сохранить settings.json: нет места на диске")};
    ASSERT_TRUE(waitFor([&] { return !toasts.isEmpty(); }));
    EXPECT_EQ(toasts, once);
    EXPECT_EQ(savedHere("settings.json").value("audioLanguages").toString(), before) << "the old file stays whole";

    // With room again both files catch up without another change; the meta's failure, which
    // came while the settings' still stood, was not told again.
    std::filesystem::remove(filler);
    ASSERT_TRUE(waitFor([&] { return savedHere("settings.json").value("audioLanguages").toString() == "eng"; }));
    ASSERT_TRUE(waitFor([&] { return savedHere("torrents.json").contains("abc"); }));
    EXPECT_EQ(toasts, once);

    // A failure after everything was saved is news again; the stop on a full disk keeps the
    // last good files.
    filler = testsupport::fillDisk(*disk);
    engine->updateMeta("abc", [](TorrentMeta &m) { m.positions.insert(2, 9.0); });
    EXPECT_TRUE(waitFor([&] { return toasts.size() == 2; }));
    EXPECT_EQ(toasts.last(), QStringLiteral("Не удалось сохранить torrents.json: нет места на диске"));
    engine->shutdown();
    EXPECT_EQ(savedHere("torrents.json").value("abc").toObject().value("positions").toObject().value("2").toDouble(), 7.5);
}
