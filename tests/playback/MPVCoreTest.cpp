// The MPV core with real libmpv (no picture, no sound) playing files of a real torrent through
// its stream addresses, while the torrent downloads from a seeder on 127.0.0.1.

#include "bridgetest/LiveBridge.h"

#include "playback/MPVCore.h"
#include "playback/StreamAddress.h"
#include "support/LocalSwarm.h"
#include "support/MediaMaker.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace testsupport;
using livebridge::LiveBridge;

namespace {

// libmpv's mpv_end_file_reason for a file that failed.
constexpr int32_t EndedByError = 4;

// Everything the core delivered, in order, as the player model would see it.
struct Recorder
{
    std::vector<MPVEvent> events;

    void attach(MPVCore &core)
    {
        core.setOnEvent([this](const MPVEvent &event) { events.push_back(event); });
    }
    int count(MPVEvent::Kind kind) const
    {
        return static_cast<int>(std::count_if(events.begin(), events.end(),
                                              [kind](const MPVEvent &e) { return e.kind == kind; }));
    }
    int count(const QString &property) const
    {
        return static_cast<int>(std::count_if(events.begin(), events.end(), [&](const MPVEvent &e) {
            return e.kind == MPVEvent::Kind::Property && e.name == property;
        }));
    }
    // The last value of a property that carried one.
    std::optional<MPVValue> last(const QString &property) const
    {
        for (auto it = events.rbegin(); it != events.rend(); ++it) {
            if (it->kind == MPVEvent::Kind::Property && it->name == property && it->value.kind != MPVValue::Kind::None)
                return it->value;
        }
        return std::nullopt;
    }
    bool flagged(const QString &property) const
    {
        const auto value = last(property);
        return value && value->flag;
    }
};

// Lets queued work reach the main thread for a while; no condition is waited for.
void pumpEvents(std::chrono::milliseconds span)
{
    waitFor([] { return false; }, span);
}

// A short film with two dubbed audio tracks and subtitles, as a one-file torrent in a bridge
// with no peer, and a core over that bridge.
class MPVCoreTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        MediaOptions options;
        options.audioTracks = 2;
        options.subtitles = true;
        ASSERT_TRUE(makeVideo(dir.file("seed/film.mkv"), options));
        film = makeTorrent(dir.file("seed"), "film.mkv", dir.file("torrents"));
        id = bridge.add(film.torrentPath, dir.file("down"));
        ASSERT_FALSE(id.empty());
        core = MPVCore::create(bridge.get(), false, true);
        ASSERT_NE(core, nullptr);
        recorder.attach(*core);
    }

    void load(const QString &address) { core->commandAsync({QStringLiteral("loadfile"), address}); }
    QString filmAddress() const { return streamAddress(QString::fromStdString(id), 0); }

    TempDir dir;
    LiveBridge bridge{dir.file("state")};
    MadeTorrent film;
    std::string id;
    Recorder recorder;
    std::unique_ptr<MPVCore> core;
};

TEST_F(MPVCoreTest, PlaysATorrentFileFromItsStreamAddress)
{
    LocalSeeder seeder;
    ASSERT_TRUE(seeder.seed(film));
    seeder.connectTo(film, bridge.port());
    load(filmAddress());
    ASSERT_TRUE(waitFor([&] { return recorder.count(MPVEvent::Kind::PlaybackRestart) > 0; }));

    // The track list comes right before the load event, so the model can choose tracks at once.
    const auto loaded = std::find_if(recorder.events.begin(), recorder.events.end(),
                                     [](const MPVEvent &e) { return e.kind == MPVEvent::Kind::FileLoaded; });
    ASSERT_NE(loaded, recorder.events.end());
    ASSERT_NE(loaded, recorder.events.begin());
    const MPVEvent &tracks = *(loaded - 1);
    ASSERT_EQ(tracks.kind, MPVEvent::Kind::Tracks);
    QMap<MediaTrack::Kind, QStringList> seen; // video by codec, audio by language and channels, subtitles by language
    int selectedAudio = 0;
    for (const MediaTrack &track : tracks.tracks) {
        EXPECT_FALSE(track.external);
        const QString language = track.language.value_or(QString());
        if (track.kind == MediaTrack::Kind::Video)
            seen[track.kind] << track.codec.value_or(QString());
        else if (track.kind == MediaTrack::Kind::Audio)
            seen[track.kind] << language + QStringLiteral(" %1ch").arg(track.channels.value_or(0));
        else
            seen[track.kind] << language;
        selectedAudio += track.kind == MediaTrack::Kind::Audio && track.selected ? 1 : 0;
    }
    EXPECT_EQ(seen.value(MediaTrack::Kind::Video), QStringList{QStringLiteral("h264")});
    EXPECT_EQ(seen.value(MediaTrack::Kind::Audio), (QStringList{QStringLiteral("rus 1ch"), QStringLiteral("eng 1ch")}));
    EXPECT_EQ(seen.value(MediaTrack::Kind::Sub), QStringList{QStringLiteral("rus")});
    EXPECT_EQ(selectedAudio, 1);

    // The position is polled while playing. Paused, it cannot move: only the cache time is read
    // on schedule. Pausing forces one read of both, and one more may follow one in flight.
    ASSERT_TRUE(waitFor([&] {
        const auto position = recorder.last(QStringLiteral("time-pos"));
        return position && position->number > 1.0;
    }));
    core->set(QStringLiteral("pause"), QStringLiteral("yes"));
    ASSERT_TRUE(waitFor([&] { return recorder.flagged(QStringLiteral("pause")); }));
    const int positionsAtPause = recorder.count(QStringLiteral("time-pos"));
    const int cacheTimesAtPause = recorder.count(QStringLiteral("demuxer-cache-time"));
    ASSERT_TRUE(waitFor([&] { return recorder.count(QStringLiteral("demuxer-cache-time")) >= cacheTimesAtPause + 4; }));
    EXPECT_LE(recorder.count(QStringLiteral("time-pos")), positionsAtPause + 2);

    const QMap<QString, QString> diagnostics = core->diagnostics().result();
    EXPECT_TRUE(diagnostics.contains(QStringLiteral("mpv-version")));
    EXPECT_EQ(diagnostics.value(QStringLiteral("current-vo")), QStringLiteral("null"));
    EXPECT_EQ(diagnostics.value(QStringLiteral("pause")), QStringLiteral("yes"));
    EXPECT_GT(diagnostics.value(QStringLiteral("position-requests")).toInt(), 0);
    EXPECT_GE(diagnostics.value(QStringLiteral("telemetry-requests")).toInt(),
              diagnostics.value(QStringLiteral("position-requests")).toInt());
    EXPECT_GT(diagnostics.value(QStringLiteral("event-batches")).toInt(), 0);

    // With "keep-open" the end of the film raises "eof-reached" and does not end the file.
    core->set(QStringLiteral("pause"), QStringLiteral("no"));
    ASSERT_TRUE(waitFor([&] { return recorder.flagged(QStringLiteral("eof-reached")); }));
    EXPECT_EQ(recorder.count(MPVEvent::Kind::EndFile), 0);

    // Once destroy() has begun nothing more is delivered, whatever was queued, and the core
    // answers no more questions.
    core->set(QStringLiteral("pause"), QStringLiteral("yes"));
    core->destroy();
    const size_t delivered = recorder.events.size();
    pumpEvents(std::chrono::milliseconds(500));
    EXPECT_EQ(recorder.events.size(), delivered);
    EXPECT_TRUE(core->isClosing());
    core->destroy();
    load(filmAddress());
    EXPECT_TRUE(core->diagnostics().result().isEmpty());
}

TEST_F(MPVCoreTest, AddressesThatNameNoStreamFailToLoad)
{
    // Malformed, a file the torrent does not have, and a torrent the session does not have.
    const QString torrent = QStringLiteral("velix://") + QString::fromStdString(id);
    for (const QString &address : {torrent + QStringLiteral("/x"), torrent + QStringLiteral("/1"),
                                   torrent + QStringLiteral("/-1"),
                                   QStringLiteral("velix://0123456789abcdef0123456789abcdef01234567/0")}) {
        SCOPED_TRACE(address.toStdString());
        const int ended = recorder.count(MPVEvent::Kind::EndFile);
        load(address);
        ASSERT_TRUE(waitFor([&] { return recorder.count(MPVEvent::Kind::EndFile) > ended; }));
        EXPECT_EQ(recorder.events.back().kind, MPVEvent::Kind::EndFile);
        EXPECT_EQ(recorder.events.back().reason, EndedByError);
    }
    EXPECT_EQ(recorder.count(MPVEvent::Kind::FileLoaded), 0);
}

TEST_F(MPVCoreTest, DestroyCancelsAStreamWaitingForData)
{
    // No seeder: the open stream waits for a piece that never comes, and destroying the core
    // must cancel that read rather than wait for it.
    load(filmAddress());
    ASSERT_TRUE(waitFor([&] { return tb_stream_progress(bridge.get(), id.c_str(), 0) >= 0.0; }));
    core->destroy();
    EXPECT_EQ(tb_stream_progress(bridge.get(), id.c_str(), 0), -1.0);
    const size_t delivered = recorder.events.size();
    pumpEvents(std::chrono::milliseconds(300));
    EXPECT_EQ(recorder.events.size(), delivered);
    EXPECT_EQ(recorder.count(MPVEvent::Kind::FileLoaded), 0);
}

TEST(StreamAddressTest, ParsesOnlyWellFormedAddresses)
{
    struct Row { const char *uri; std::optional<StreamAddress> expected; };
    const Row rows[] = {
        {"velix://abc/3", StreamAddress{"abc", 3}},
        {"velix://abc/+3", StreamAddress{"abc", 3}},
        {"velix://abc/-1", StreamAddress{"abc", -1}},
        {"velix://abc/2147483647", StreamAddress{"abc", 2147483647}},
        // Empty parts are dropped before the split, so extra slashes in front are harmless.
        {"velix:////abc/3", StreamAddress{"abc", 3}},
        {"velix://abc", std::nullopt},
        {"velix:///3", std::nullopt},
        {"velix://abc/", std::nullopt},
        {"velix://abc/x", std::nullopt},
        {"velix://abc/3x", std::nullopt},
        {"velix://abc/2147483648", std::nullopt},
        {"velix://abc/+", std::nullopt},
        {"velix://abc/+-3", std::nullopt},
        {"file:///abc/3", std::nullopt},
        {"VELIX://abc/3", std::nullopt},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.uri);
        EXPECT_EQ(parseStreamAddress(row.uri), row.expected);
    }
    EXPECT_EQ(streamAddress(QStringLiteral("abc"), 12), QStringLiteral("velix://abc/12"));
}

} // namespace
