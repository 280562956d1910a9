// The player model over a real engine, with a recording core in libmpv's place: the test plays
// libmpv's part by handing the model events, and reads what the model asked libmpv to do.

#include "RecordingCore.h"

#include "engine/TorrentEngine.h"
#include "playback/PlayerModel.h"
#include "playback/StreamAddress.h"
#include "support/LocalSwarm.h"

#include <QSet>

#include <gtest/gtest.h>

#include <variant>

using namespace testsupport;

namespace {

const QString SomeTorrent = QStringLiteral("aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa");

TorrentFile fileAt(int index, const char *path)
{
    TorrentFile file;
    file.i = index;
    file.path = QString::fromUtf8(path);
    return file;
}

MediaTrack track(int id, MediaTrack::Kind kind, const char *language, bool selected = false)
{
    MediaTrack t;
    t.id = id;
    t.kind = kind;
    t.language = QString::fromUtf8(language);
    t.selected = selected;
    return t;
}

MPVEvent seconds(const char *name, double value)
{
    return MPVEvent::property(QString::fromUtf8(name), MPVValue::ofDouble(value));
}
MPVEvent flag(const char *name, bool value)
{
    return MPVEvent::property(QString::fromUtf8(name), MPVValue::ofFlag(value));
}

class PlayerModelTest : public ::testing::Test
{
protected:
    PlayerModelTest()
        : engine(std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(quietSettingsText(freeTcpPort()))))
    {
    }

    std::unique_ptr<PlayerModel> makeModel(bool coreStarts = true)
    {
        PlayerModel::Hooks hooks;
        hooks.makeCore = [this, coreStarts]() -> std::unique_ptr<PlayerCore> {
            return coreStarts ? std::make_unique<RecordingCore>(log) : nullptr;
        };
        hooks.streamProgress = [this](QString, int) -> QCoro::Task<double> { co_return blockedShare; };
        hooks.streamWaiting = [this](const QString &, int) { return blockedShare >= 0.0; };
        hooks.prefetch = [this](const QString &, int file, qint64, double) { prefetched.append(file); };
        return std::make_unique<PlayerModel>(engine.get(), hooks);
    }

    // Opens a file and waits until its load has gone out to libmpv.
    void openAndLoad(PlayerModel &model, const QString &id, const TorrentFile &file)
    {
        const int before = log->loads();
        model.open(id, file);
        ASSERT_TRUE(waitFor([&] { return log->loads() > before; }));
    }

    // libmpv's part once a file has loaded.
    static void fileLoads(PlayerModel &model, const QList<MediaTrack> &tracks, double duration)
    {
        model.handle(MPVEvent::trackList(tracks));
        model.handle(MPVEvent::of(MPVEvent::Kind::FileLoaded));
        model.handle(seconds("duration", duration));
    }

    QString lastLoadOptions() const { return log->commandsNamed(QStringLiteral("loadfile")).last().last(); }
    QMap<int, double> positions(const QString &id) const { return engine->meta().value(id).positions; }

    // A small series whose content lies complete where the engine saves it: two episodes, a dub
    // of the first in "Rus Sound" and a commentary beside it, English subtitles in "Subs". The
    // second episode starts unwanted.
    QString addSeries()
    {
        const std::string root = home.file("series");
        for (const char *path : {"Show/Show.S01E01.mkv", "Show/Show.S01E02.mkv", "Show/Rus Sound/Show.S01E01.Studio.mka",
                                 "Show/Show.S01E01.Commentary.mka", "Show/Subs/Show.S01E01.eng.srt"})
            writePatternFile(root + "/" + path, 40 * 1024);
        const MadeTorrent made = makeTorrent(root, "Show", home.file("torrents"));
        const auto added = resultOf(engine->addTorrent(QString::fromStdString(made.torrentPath),
                                                       QString::fromStdString(root), std::nullopt, false, false))
                               .value_or(AddOutcome{EngineError{}});
        if (!std::holds_alternative<AddResult>(added))
            return {};
        const QString id = std::get<AddResult>(added).id;
        seriesFiles = resultOf(engine->files(id)).value_or(QList<TorrentFile>());
        finished(engine->setPriority(id, {file("Show.S01E02.mkv").i}, FilePriority::skip));
        return id;
    }

    TorrentFile file(const char *name) const
    {
        for (const TorrentFile &f : seriesFiles) {
            if (f.path.endsWith(QLatin1Char('/') + QString::fromUtf8(name)))
                return f;
        }
        ADD_FAILURE() << "no file " << name;
        return {};
    }

    int priorityOf(const QString &id, int fileIndex)
    {
        for (const TorrentFile &f : resultOf(engine->files(id)).value_or(QList<TorrentFile>())) {
            if (f.i == fileIndex)
                return f.prio;
        }
        return -1;
    }

    TempDir home;
    std::unique_ptr<TorrentEngine> engine;
    std::shared_ptr<CoreLog> log = std::make_shared<CoreLog>();
    double blockedShare = -1.0; // what the bridge says of the playing stream: -1, no read waits
    QList<int> prefetched;
    QList<TorrentFile> seriesFiles;
};

} // namespace

TEST_F(PlayerModelTest, OnlyTheLatestOpenLoadsAndAStopCancelsAPendingOne)
{
    auto model = makeModel();
    const TorrentFile first = fileAt(0, "Show/one.mkv");
    const TorrentFile second = fileAt(1, "Show/two.mkv");
    const QString firstAddress = streamAddress(SomeTorrent, 0);
    // The addresses loaded after the last command named `since` (all of them for none).
    const auto loadsSince = [this](const char *since) {
        QStringList addresses;
        for (const QStringList &sent : std::as_const(log->commands)) {
            if (since && sent.first() == QLatin1String(since))
                addresses.clear();
            else if (sent.first() == QLatin1String("loadfile"))
                addresses << sent.at(1);
        }
        return addresses;
    };

    // The first open may find its answer at once and load; if it has to wait, it comes back to
    // a newer open and drops out. Either way nothing of it follows the second's load. A third
    // open answers after both, so once it has loaded no late answer is pending.
    model->open(SomeTorrent, first);
    model->open(SomeTorrent, second);
    openAndLoad(*model, SomeTorrent, second);
    const QStringList loads = loadsSince(nullptr);
    EXPECT_FALSE(loads.mid(loads.indexOf(streamAddress(SomeTorrent, 1))).contains(firstAddress));
    EXPECT_EQ(model->item()->file, second);

    model->open(SomeTorrent, first);
    model->stop();
    EXPECT_FALSE(model->item().has_value());
    openAndLoad(*model, SomeTorrent, second);
    EXPECT_EQ(loadsSince("stop"), QStringList{streamAddress(SomeTorrent, 1)});
    EXPECT_EQ(engine->meta().value(SomeTorrent).lastPlayedFile, 1);
}

TEST_F(PlayerModelTest, AFailedOpenOnlySetsTheErrorAndBetweenFilesOnlySoundIsKept)
{
    auto model = makeModel();
    model->handle(seconds("volume", 55.0));
    model->handle(seconds("time-pos", 40.0));
    model->handle(flag("eof-reached", true));
    EXPECT_EQ(model->volume(), 55.0);
    EXPECT_EQ(model->position(), 0.0);
    EXPECT_FALSE(model->ended());

    openAndLoad(*model, SomeTorrent, fileAt(0, "Show/one.mkv"));
    const auto playing = model->item();
    TorrentStatus missing;
    missing.id = QStringLiteral("bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb");
    missing.state = QStringLiteral("missing");
    missing.error = QStringLiteral("Файлы торрента не найдены");
    StatusSnapshot snapshot;
    snapshot.torrents = {missing};
    engine->apply(snapshot, {});
    model->open(missing.id, fileAt(0, "Film/film.mkv"));
    EXPECT_EQ(model->error(), missing.error);
    EXPECT_EQ(model->item(), playing);
    EXPECT_EQ(log->loads(), 1);

    model->handle(MPVEvent::endFile(4, -13));
    EXPECT_EQ(model->error(), QStringLiteral("Не удалось открыть файл (error -13)"));

    auto withoutPlayer = makeModel(false);
    withoutPlayer->open(SomeTorrent, fileAt(0, "Show/one.mkv"));
    EXPECT_EQ(withoutPlayer->error(), QStringLiteral("Плеер недоступен"));
}

TEST_F(PlayerModelTest, FalseEndsAreRepairedFiveTimesThenTheFileEnds)
{
    engine->updateMeta(SomeTorrent, [](TorrentMeta &meta) { meta.positions[0] = 600.0; });
    auto model = makeModel();
    openAndLoad(*model, SomeTorrent, fileAt(0, "Film/film.mkv"));
    fileLoads(*model, {track(1, MediaTrack::Kind::Audio, "rus", true)}, 7200.0);
    model->handle(seconds("time-pos", 5.0));
    log->clear();

    for (int attempt = 1; attempt <= 5; ++attempt) {
        model->handle(flag("eof-reached", true));
        ASSERT_FALSE(model->ended()) << "attempt " << attempt;
    }
    const QList<QStringList> seeks = log->commandsNamed(QStringLiteral("seek"));
    ASSERT_EQ(seeks.size(), 5);
    EXPECT_EQ(seeks.first(), (QStringList{QStringLiteral("seek"), QStringLiteral("5.000"), QStringLiteral("absolute+exact")}));
    model->handle(flag("eof-reached", true));
    EXPECT_TRUE(model->ended());
    EXPECT_FALSE(positions(SomeTorrent).contains(0)) << "a file played to its end is forgotten";

    // Play at the end starts again from the beginning.
    log->clear();
    model->togglePause();
    EXPECT_FALSE(model->ended());
    EXPECT_EQ(log->commandsNamed(QStringLiteral("seek")).value(0).value(1), QStringLiteral("0.000"));
    EXPECT_EQ(log->valuesOf(QStringLiteral("pause")), QStringList{QStringLiteral("no")});
}

TEST_F(PlayerModelTest, PositionsAreSavedInTurnAndResumedPastFiveSeconds)
{
    auto model = makeModel();
    const TorrentFile film = fileAt(3, "Film/Name, with=signs.mkv");
    openAndLoad(*model, SomeTorrent, film);
    model->handle(seconds("time-pos", 100.0));
    EXPECT_FALSE(positions(SomeTorrent).contains(3)) << "nothing is saved before the file has loaded";

    // The first report saves; later ones wait their turn, the start never overwrites, and stop
    // saves the last.
    fileLoads(*model, {}, 7200.0);
    model->handle(seconds("time-pos", 100.0));
    EXPECT_EQ(positions(SomeTorrent).value(3), 100.0);
    model->handle(seconds("time-pos", 20.0));
    model->savePosition();
    model->handle(seconds("time-pos", 160.0));
    EXPECT_EQ(positions(SomeTorrent).value(3), 100.0);
    model->stop();
    EXPECT_EQ(positions(SomeTorrent).value(3), 160.0);

    // The title passes the option list whole; the seek bar is right before the first frame.
    engine->updateMeta(SomeTorrent, [](TorrentMeta &meta) { meta.positions[3] = 5.1; meta.positions[4] = 5.0; });
    openAndLoad(*model, SomeTorrent, film);
    EXPECT_EQ(lastLoadOptions(), QStringLiteral("force-media-title=%20%Name, with=signs.mkv,start=5"));
    EXPECT_EQ(model->position(), 5.1);
    openAndLoad(*model, SomeTorrent, fileAt(4, "Film/two.mkv"));
    EXPECT_EQ(lastLoadOptions(), QStringLiteral("force-media-title=%7%two.mkv"));
    AppSettings settings = engine->settings();
    settings.resumePlayback = false;
    engine->setSettings(settings);
    openAndLoad(*model, SomeTorrent, film);
    EXPECT_FALSE(lastLoadOptions().contains(QStringLiteral("start=")));
}

TEST_F(PlayerModelTest, SeeksAndSwitchesWhileTheStreamIsBlockedMakeOneReload)
{
    auto model = makeModel();
    openAndLoad(*model, SomeTorrent, fileAt(2, "Film/film.mkv"));
    MediaTrack subtitleFile = track(3, MediaTrack::Kind::Sub, "eng", true);
    subtitleFile.external = true;
    subtitleFile.externalFile = streamAddress(SomeTorrent, 9);
    subtitleFile.title = QStringLiteral("eng · SRT");
    fileLoads(*model,
              {track(1, MediaTrack::Kind::Audio, "rus", true), track(2, MediaTrack::Kind::Audio, "eng"),
               track(1, MediaTrack::Kind::Sub, "rus"), subtitleFile},
              3600.0);
    log->clear();
    model->seek(60.0);
    EXPECT_EQ(log->commandsNamed(QStringLiteral("seek")).size(), 1) << "a free stream seeks in libmpv";

    // A read waits for a piece: three seeks and an audio switch before the debounce ends.
    blockedShare = 0.25;
    log->clear();
    model->seek(100.0);
    model->seek(5000.0);
    model->select(QStringLiteral("a2"), true);
    model->seek(200.0);
    EXPECT_TRUE(model->waitingAfterSeek());
    EXPECT_TRUE(log->commandsNamed(QStringLiteral("seek")).isEmpty());
    EXPECT_TRUE(log->valuesOf(QStringLiteral("aid")).isEmpty()) << "a switch behind a blocked read would wait for it";
    ASSERT_TRUE(waitFor([&] { return log->loads() == 1; }));
    EXPECT_EQ(lastLoadOptions(), QStringLiteral("force-media-title=%8%film.mkv,start=200.000,aid=2,sid=3"));
    EXPECT_EQ(log->valuesOf(QStringLiteral("cache-pause-wait")), QStringList{QStringLiteral("0.3")});
    EXPECT_TRUE(waitFor([&] { return model->bufferProgress() == std::optional<double>(0.25); }))
        << "the share of the awaited piece comes back from the engine's queue";

    // The reload's load brings the subtitle file back and chooses nothing anew; for the user it
    // is the same playback.
    log->clear();
    blockedShare = -1.0;
    fileLoads(*model, {track(1, MediaTrack::Kind::Audio, "rus"), track(2, MediaTrack::Kind::Audio, "eng", true)},
              3600.0);
    EXPECT_EQ(log->commandsNamed(QStringLiteral("sub-add")),
              (QList<QStringList>{{QStringLiteral("sub-add"), streamAddress(SomeTorrent, 9), QStringLiteral("select"),
                                   QStringLiteral("eng · SRT"), QStringLiteral("eng")}}));
    EXPECT_TRUE(log->valuesOf(QStringLiteral("aid")).isEmpty());
    EXPECT_TRUE(log->valuesOf(QStringLiteral("sid")).isEmpty());
    EXPECT_EQ(model->position(), 200.0);
    model->handle(MPVEvent::of(MPVEvent::Kind::PlaybackRestart));
    EXPECT_FALSE(model->waitingAfterSeek());

    // The short cache wait of the switch ends with the first stall that is over.
    model->handle(flag("paused-for-cache", true));
    model->handle(flag("paused-for-cache", false));
    EXPECT_EQ(log->valuesOf(QStringLiteral("cache-pause-wait")), QStringList{QStringLiteral("6")});
}

TEST_F(PlayerModelTest, ATrackChosenWhileTheStreamWaitsIsNotUndoneByTheReload)
{
    auto model = makeModel();
    openAndLoad(*model, SomeTorrent, fileAt(2, "Film/film.mkv"));
    const auto loaded = [](int id, MediaTrack::Kind kind, int file, const char *title) {
        MediaTrack t = track(id, kind, "eng", true);
        t.external = true;
        t.externalFile = streamAddress(SomeTorrent, file);
        t.title = QString::fromUtf8(title);
        return t;
    };
    const MediaTrack dub = loaded(3, MediaTrack::Kind::Audio, 8, "Studio");
    const MediaTrack subtitles = loaded(4, MediaTrack::Kind::Sub, 9, "eng · SRT");
    const QList<MediaTrack> playing{track(1, MediaTrack::Kind::Audio, "rus"), dub, track(1, MediaTrack::Kind::Sub, "rus"),
                                    subtitles};
    fileLoads(*model, playing, 3600.0);
    blockedShare = 0.25;

    // How each loaded file comes back after a reload that carried these wishes.
    struct Row
    {
        const char *audio;    // option chosen while blocked, or none
        const char *subtitle; // likewise
        const char *dubFlag;
        const char *subtitleFlag;
    };
    const Row rows[] = {
        {"a1", nullptr, "auto", "select"},    // the film's own sound over the dub
        {nullptr, "off", "select", "auto"},   // subtitles turned off, the dub kept
        {"a3", "s1", "select", "auto"},       // the dub chosen again: it stays
        {nullptr, nullptr, "select", "select"}, // a seek alone changes no track
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.audio ? row.audio : "-") + " " + (row.subtitle ? row.subtitle : "-"));
        log->clear();
        blockedShare = 0.25;
        model->seek(100.0);
        if (row.audio)
            model->select(QString::fromUtf8(row.audio), true);
        if (row.subtitle)
            model->select(QString::fromUtf8(row.subtitle), false);
        ASSERT_TRUE(waitFor([&] { return log->loads() == 1; }));
        blockedShare = -1.0;
        fileLoads(*model, playing, 3600.0);
        const QList<QStringList> audioAdds = log->commandsNamed(QStringLiteral("audio-add"));
        const QList<QStringList> subAdds = log->commandsNamed(QStringLiteral("sub-add"));
        ASSERT_EQ(audioAdds.size(), 1);
        ASSERT_EQ(subAdds.size(), 1);
        EXPECT_EQ(audioAdds.first().mid(1, 2), (QStringList{streamAddress(SomeTorrent, 8), QString::fromUtf8(row.dubFlag)}));
        EXPECT_EQ(subAdds.first().mid(1, 2),
                  (QStringList{streamAddress(SomeTorrent, 9), QString::fromUtf8(row.subtitleFlag)}));
    }
}

TEST_F(PlayerModelTest, ProgressFollowsTheDownloadAndFetchesTheNextEpisodeEarly)
{
    const QString id = addSeries();
    ASSERT_FALSE(id.isEmpty());
    const TorrentFile first = file("Show.S01E01.mkv");
    const TorrentFile second = file("Show.S01E02.mkv");
    auto model = makeModel();
    openAndLoad(*model, id, first);
    ASSERT_EQ(model->externalAudio().size(), 2);
    ASSERT_EQ(model->externalSubtitles().size(), 1);
    EXPECT_TRUE(waitFor([&] { return priorityOf(id, file("Show.S01E01.eng.srt").i) == 7; }))
        << "subtitle files are wanted at once";

    // The dub plays from its own reader; only the commentary is warmed.
    MediaTrack dub = track(5, MediaTrack::Kind::Audio, "rus", true);
    dub.external = true;
    dub.externalFile = streamAddress(id, file("Show.S01E01.Studio.mka").i);
    fileLoads(*model, {track(1, MediaTrack::Kind::Audio, "eng"), dub}, 1500.0);
    ASSERT_TRUE(waitFor([&] { return !prefetched.isEmpty(); }));
    EXPECT_EQ(QSet<int>(prefetched.begin(), prefetched.end()), QSet<int>{file("Show.S01E01.Commentary.mka").i});

    // The content lies complete on disk: once checked, the whole file is there and the demuxer
    // may read far ahead.
    ASSERT_TRUE(waitFor([&] { return model->downloadedRanges() == QList<PlaybackRange>{{0.0, 1.0}}; }));
    ASSERT_TRUE(waitFor([&] { return model->appliedReadahead() == 120.0; }));
    EXPECT_EQ(log->valuesOf(QStringLiteral("demuxer-readahead-secs")).last(), QStringLiteral("120"));

    // Five minutes before the end the unwanted next episode is asked for. Without autoplay the
    // end stays the end.
    model->handle(seconds("time-pos", 1250.0));
    EXPECT_TRUE(waitFor([&] { return priorityOf(id, second.i) == 4; }));
    AppSettings settings = engine->settings();
    settings.autoplayNext = false;
    engine->setSettings(settings);
    log->clear();
    model->handle(seconds("time-pos", 1499.0));
    model->handle(flag("eof-reached", true));
    EXPECT_TRUE(model->ended());
    EXPECT_EQ(log->loads(), 0);
}

namespace {

TEST_F(PlayerModelTest, KeysAndScrollsDriveThePlayerByTheirTables)
{
    auto model = makeModel();
    // Without an item the episode keys are still the player's; they just find nothing.
    EXPECT_TRUE(model->handleKey(PlayerModel::KeyN));
    EXPECT_TRUE(model->handleKey(PlayerModel::KeyP));

    openAndLoad(*model, SomeTorrent, fileAt(0, "Film/Film.mkv"));
    fileLoads(*model, {}, 600.0);
    struct Row
    {
        int code;
        bool shift;
        double position;
        double volume;
        bool consumed;
        QStringList command; // the last command, or empty
        QString volumeSet;   // the last "volume" set, or empty
    };
    const QList<Row> rows = {
        {PlayerModel::KeySpace, false, 100, 100, true, {"cycle", "pause"}, {}},
        {PlayerModel::KeyM, false, 100, 100, true, {"cycle", "mute"}, {}},
        {PlayerModel::KeyLeft, false, 100, 100, true, {"seek", "90.000", "absolute+keyframes"}, {}},
        {PlayerModel::KeyLeft, true, 100, 100, true, {"seek", "40.000", "absolute+keyframes"}, {}},
        {PlayerModel::KeyLeft, false, 5, 100, true, {"seek", "0.000", "absolute+keyframes"}, {}},
        {PlayerModel::KeyRight, false, 100, 100, true, {"seek", "110.000", "absolute+keyframes"}, {}},
        {PlayerModel::KeyRight, true, 100, 100, true, {"seek", "160.000", "absolute+keyframes"}, {}},
        {PlayerModel::KeyRight, true, 580, 100, true, {"seek", "599.000", "absolute+keyframes"}, {}},
        {PlayerModel::KeyUp, false, 100, 100, true, {}, "105"},
        {PlayerModel::KeyUp, false, 100, 200, true, {}, "200"},
        {PlayerModel::KeyDown, false, 100, 3, true, {}, "0"},
        {PlayerModel::KeyEscape, false, 100, 100, false, {}, {}},
        {7, false, 100, 100, false, {}, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << "key " << row.code << (row.shift ? " with shift" : "") << " at "
                                          << row.position);
        model->handle(seconds("time-pos", row.position));
        model->handle(seconds("volume", row.volume));
        log->clear();
        EXPECT_EQ(model->handleKey(row.code, row.shift), row.consumed);
        EXPECT_TRUE(model->controlsVisible());
        EXPECT_EQ(log->commands.isEmpty() ? QStringList() : log->commands.last(), row.command);
        const QStringList volumes = log->valuesOf(QStringLiteral("volume"));
        EXPECT_EQ(volumes.isEmpty() ? QString() : volumes.last(), row.volumeSet);
    }

    // F takes the screen and Escape gives it back; only then is Escape the player's.
    EXPECT_TRUE(model->handleKey(PlayerModel::KeyF));
    EXPECT_TRUE(model->fullScreen());
    EXPECT_TRUE(model->handleKey(PlayerModel::KeyEscape));
    EXPECT_FALSE(model->fullScreen());
    EXPECT_FALSE(model->handleKey(PlayerModel::KeyEscape));

    log->clear();
    PlayerInput::Scroll up;
    up.dy = 120;
    EXPECT_TRUE(model->handleScroll(up));
    PlayerInput::Scroll momentum = up;
    momentum.momentum = true;
    EXPECT_FALSE(model->handleScroll(momentum));
    ASSERT_EQ(log->commands.size(), 1);
    EXPECT_EQ(log->commands.first(), QStringList({"add", "volume", "5.00"}));
}

} // namespace
