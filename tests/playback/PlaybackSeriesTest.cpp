// A series played the way a user plays it: real libmpv (no picture, no sound) reading a torrent
// that downloads from a seeder on 127.0.0.1, through the player model and a real engine.

#include "RecordingCore.h"

#include "engine/TorrentEngine.h"
#include "playback/PlayerModel.h"
#include "playback/StreamAddress.h"
#include "playback/TrackSelection.h"
#include "support/LocalSwarm.h"
#include "support/MediaMaker.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <variant>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// Long enough for a position at 40 s to be worth remembering (past the first 30 s and before
// the last 90 s), small enough to make in a few seconds.
constexpr double FirstEpisodeSeconds = 150.0;
constexpr double ShortEpisodeSeconds = 4.0;
// Slow enough that most of the series is still missing when the seeder goes away.
constexpr int SlowUpload = 96 * 1024;

class PlaybackSeriesTest : public ::testing::Test
{
protected:
    // Three episodes with Russian and English sound and Russian subtitles inside, a studio's
    // Russian dub of each in "Rus Sound", English subtitles of each in "Subs". Made once.
    static void SetUpTestSuite()
    {
        media = std::make_unique<TempDir>();
        const std::string root = media->file("content");
        bool made = true;
        for (int episode = 1; episode <= 3; ++episode) {
            const double length = episode == 1 ? FirstEpisodeSeconds : ShortEpisodeSeconds;
            const std::string name = "Show.S01E0" + std::to_string(episode);
            MediaOptions options;
            options.seconds = length;
            options.width = 160;
            options.height = 90;
            options.audioTracks = 2;
            options.subtitles = true;
            made = made && makeVideo(root + "/Show/" + name + ".mkv", options);
            made = made && makeAudio(root + "/Show/Rus Sound/" + name + ".Studio.mka", length);
            made = made && makeSubtitleFile(root + "/Show/Subs/" + name + ".eng.srt");
        }
        if (made)
            series = std::make_unique<MadeTorrent>(makeTorrent(root, "Show", media->file("torrents")));
    }

    static void TearDownTestSuite()
    {
        series.reset();
        media.reset();
    }

    void SetUp() override { ASSERT_NE(series, nullptr) << "ffmpeg could not make the series"; }

    QString id() const { return QString::fromStdString(series->id); }

    void startEngine()
    {
        enginePort = freeTcpPort();
        engine = std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(quietSettingsText(enginePort)));
    }

    void startModel()
    {
        PlayerModel::Hooks hooks;
        hooks.makeCore = [this]() -> std::unique_ptr<PlayerCore> {
            std::unique_ptr<PlayerCore> real = makeMPVPlayerCore(engine->session(), false, true);
            if (!real)
                return nullptr;
            return std::make_unique<RecordingCore>(log, std::move(real));
        };
        model = std::make_unique<PlayerModel>(engine.get(), hooks);
    }

    // What a quit does: the player stops and its core goes before the session.
    void quit()
    {
        model->stop();
        model.reset();
        engine.reset();
    }

    void changeSettings(const std::function<void(AppSettings &)> &change)
    {
        AppSettings settings = engine->settings();
        change(settings);
        engine->setSettings(settings);
    }

    void addSeries()
    {
        const auto added = resultOf(engine->addTorrent(QString::fromStdString(series->torrentPath),
                                                       home.qpath() + "/down", std::nullopt, false, false))
                               .value_or(AddOutcome{EngineError{}});
        ASSERT_TRUE(std::holds_alternative<AddResult>(added));
        ASSERT_EQ(std::get<AddResult>(added).id, id());
    }

    TorrentFile file(const char *name)
    {
        for (const TorrentFile &f : resultOf(engine->files(id())).value_or(QList<TorrentFile>())) {
            if (f.path.endsWith(QLatin1Char('/') + QString::fromUtf8(name)))
                return f;
        }
        ADD_FAILURE() << "no file " << name;
        return {};
    }

    std::optional<MediaTrack> selected(MediaTrack::Kind kind) const
    {
        return TrackSelection::current(model->tracks(), kind);
    }

    // Whether the selected track of a kind is loaded from this file of the torrent.
    bool playingFrom(const TorrentFile &trackFile, MediaTrack::Kind kind) const
    {
        const auto track = selected(kind);
        return track && track->externalFile == streamAddress(id(), trackFile.i);
    }

    bool playingPast(double seconds) const
    {
        return model->loaded() && !model->waitingAfterSeek() && model->position() > seconds;
    }

    static inline std::unique_ptr<TempDir> media;
    static inline std::unique_ptr<MadeTorrent> series;

    TempDir home;
    int enginePort = 0;
    std::unique_ptr<TorrentEngine> engine;
    std::shared_ptr<CoreLog> log = std::make_shared<CoreLog>();
    std::unique_ptr<PlayerModel> model;
};

} // namespace

TEST_F(PlaybackSeriesTest, PicksTracksByTheListsAndByTheUsersChoiceIntoTheNextEpisode)
{
    LocalSeeder seeder;
    ASSERT_TRUE(seeder.seed(*series));
    startEngine();
    changeSettings([](AppSettings &s) {
        s.audioLanguages = QStringLiteral("eng");
        s.subtitleLanguages = QStringLiteral("eng");
        s.subtitleMode = SubtitleMode::Always;
    });
    addSeries();
    ASSERT_TRUE(seeder.connectTo(*series, enginePort));
    startModel();

    const TorrentFile first = file("Show.S01E01.mkv");
    const TorrentFile second = file("Show.S01E02.mkv");
    const TorrentFile firstSubtitles = file("Show.S01E01.eng.srt");
    const TorrentFile secondSubtitles = file("Show.S01E02.eng.srt");
    const TorrentFile dub = file("Show.S01E01.Studio.mka");
    const TorrentFile secondDub = file("Show.S01E02.Studio.mka");
    model->open(id(), first);

    // English sound from inside the file, English subtitles from the file beside it.
    ASSERT_TRUE(waitFor([&] {
        const auto audio = selected(MediaTrack::Kind::Audio);
        return model->loaded() && audio && audio->language == QStringLiteral("eng") && !audio->external
            && playingFrom(firstSubtitles, MediaTrack::Kind::Sub);
    }));
    EXPECT_TRUE(model->hasVideo());

    // The user picks the studio's dub from the menu.
    model->select(QStringLiteral("x%1").arg(dub.i), true);
    ASSERT_TRUE(waitFor([&] { return playingFrom(dub, MediaTrack::Kind::Audio); }));

    // Near the end, and on to the next episode, which keeps the dub the user chose.
    ASSERT_TRUE(waitFor([&] { return model->duration() > FirstEpisodeSeconds - 2; }));
    model->seek(model->duration() - 3.0);
    ASSERT_TRUE(waitFor([&] { return model->item() && model->item()->file.i == second.i; }, 60s));
    // The second episode is short; it must not run on into the third before it is looked at.
    changeSettings([](AppSettings &s) { s.autoplayNext = false; });
    ASSERT_TRUE(waitFor([&] {
        return model->loaded() && playingFrom(secondDub, MediaTrack::Kind::Audio)
            && playingFrom(secondSubtitles, MediaTrack::Kind::Sub);
    }));
    quit();
}

TEST_F(PlaybackSeriesTest, ResumesAfterARestartAndSurvivesASeekIntoAStalledStream)
{
    auto seeder = std::make_unique<LocalSeeder>(SlowUpload);
    ASSERT_TRUE(seeder->seed(*series));
    startEngine();
    addSeries();
    ASSERT_TRUE(seeder->connectTo(*series, enginePort));
    startModel();

    const TorrentFile first = file("Show.S01E01.mkv");
    model->open(id(), first);
    ASSERT_TRUE(waitFor([&] { return playingPast(0.5); }, 60s));
    model->seek(40.0);
    ASSERT_TRUE(waitFor([&] { return playingPast(40.5); }, 60s));
    quit();

    // The next run starts where the last one stopped.
    startEngine();
    const double stored = engine->meta().value(id()).positions.value(first.i);
    ASSERT_GT(stored, 40.0) << "quitting keeps the position";
    ASSERT_TRUE(waitFor([&] { return engine->torrent(id()).has_value(); }));
    ASSERT_TRUE(seeder->connectTo(*series, enginePort));
    startModel();
    log->clear();
    model->open(id(), first);
    ASSERT_TRUE(waitFor([&] { return log->loads() == 1; }));
    EXPECT_TRUE(log->commandsNamed(QStringLiteral("loadfile")).first().last().endsWith(
        QStringLiteral(",start=") + QString::number(static_cast<int>(stored))));
    ASSERT_TRUE(waitFor([&] { return playingPast(40.0) && model->firstFrameAfter().has_value(); }, 60s));
    // Russian sound is listed, so subtitles stay off.
    EXPECT_EQ(selected(MediaTrack::Kind::Audio).value_or(MediaTrack()).language, QStringLiteral("rus"));
    EXPECT_FALSE(selected(MediaTrack::Kind::Sub).has_value());

    // The seeder goes away; a seek into a stretch that never came blocks the stream.
    seeder.reset();
    const QString map = resultOf(engine->pieces(id(), first.i)).value_or(QString());
    ASSERT_FALSE(map.isEmpty());
    const qsizetype n = map.size();
    qsizetype hole = -1;
    for (qsizetype i = n / 2; i + 12 < n * 9 / 10; ++i) {
        if (map.mid(i, 12).count(QLatin1Char('1')) == 0) {
            hole = i;
            break;
        }
    }
    ASSERT_GE(hole, 0) << "the slow seeder delivered too much: " << map.toStdString();
    const double duration = model->duration();
    const double into = duration * static_cast<double>(hole + 2) / static_cast<double>(n);
    const double further = duration * static_cast<double>(hole + 8) / static_cast<double>(n);
    model->seek(into);
    ASSERT_TRUE(waitFor([&] { return model->streamBlocked(); }));

    // libmpv cannot act on a seek while its read waits: the player loads again at the target.
    const int loadsBefore = log->loads();
    model->seek(further);
    EXPECT_TRUE(model->waitingAfterSeek());
    ASSERT_TRUE(waitFor([&] { return log->loads() == loadsBefore + 1; }));
    EXPECT_TRUE(log->commandsNamed(QStringLiteral("loadfile")).last().last().contains(
        QStringLiteral("start=") + QString::number(further, 'f', 3)));

    // Once a seeder is back, playback goes on from there, after that one reload.
    LocalSeeder again(SlowUpload);
    ASSERT_TRUE(again.seed(*series));
    ASSERT_TRUE(again.connectTo(*series, enginePort));
    ASSERT_TRUE(waitFor([&] { return playingPast(further + 0.5); }, 120s));
    EXPECT_EQ(log->loads(), loadsBefore + 1);
    EXPECT_FALSE(model->error().has_value());

    quit();
}
