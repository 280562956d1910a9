#include "ControlServerHarness.h"
#include "support/MediaMaker.h"

using namespace controltest;
using testsupport::waitFor;

namespace {

// The player driven over HTTP: real libmpv (no picture, no sound) playing a torrent that comes
// from a seeder on 127.0.0.1.
class ControlServerPlayerTest : public ControlServerFixture
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(testsupport::makeVideo(content.file("Clip/Clip.mkv"),
                                           {.seconds = 8, .width = 160, .height = 90, .audioTracks = 2, .subtitles = true}))
            << "ffmpeg could not make the clip";
        made = testsupport::makeTorrent(content.path(), "Clip", content.path());
        ASSERT_TRUE(seeder.seed(made));
        startServer(true);
    }

    QJsonObject playerState() { return state().value(QStringLiteral("player")).toObject(); }
    QString selected(const QString &menu)
    {
        for (const QJsonValue &option : playerState().value(menu).toArray()) {
            if (option.toObject().value(QStringLiteral("selected")).toBool())
                return option.toObject().value(QStringLiteral("id")).toString();
        }
        return {};
    }

    testsupport::TempDir content;
    testsupport::MadeTorrent made;
    testsupport::LocalSeeder seeder;
};

TEST_F(ControlServerPlayerTest, PlayChooseTracksSeekPauseAndStop)
{
    const QByteArray id = add(made);
    ASSERT_FALSE(id.isEmpty());
    seeder.connectTo(made, enginePort);

    EXPECT_EQ(get("/play?id=" + id + "&file=0").body, QByteArray(R"({"ok":true})"));
    const QJsonObject item = playerState().value(QStringLiteral("item")).toObject();
    EXPECT_EQ(item.value(QStringLiteral("id")).toString().toUtf8(), id);
    EXPECT_EQ(item.value(QStringLiteral("name")).toString(), QStringLiteral("Clip.mkv"));

    // The two diagnostics of an open: the first track list and the first frame.
    ASSERT_TRUE(waitFor([&] { return playerState().value(QStringLiteral("firstFrameAfter")).isDouble(); }));
    ASSERT_TRUE(waitFor([&] { return playerState().value(QStringLiteral("tracksReadyAfter")).isDouble(); }));
    const QJsonArray audio = playerState().value(QStringLiteral("audio")).toArray();
    ASSERT_EQ(audio.size(), 2);

    const QString second = audio.at(1).toObject().value(QStringLiteral("id")).toString();
    EXPECT_EQ(get("/track?kind=audio&option=" + second.toUtf8()).body, QByteArray(R"({"ok":true})"));
    EXPECT_TRUE(waitFor([&] { return selected(QStringLiteral("audio")) == second; }));
    get("/track?kind=sub&option=off");
    EXPECT_TRUE(waitFor([&] { return selected(QStringLiteral("subtitles")) == QStringLiteral("off"); }));

    get("/pause?on=1");
    ASSERT_TRUE(waitFor([&] { return playerState().value(QStringLiteral("paused")).toBool(); }));
    get("/seek?t=5");
    EXPECT_TRUE(waitFor([&] { return playerState().value(QStringLiteral("position")).toDouble() >= 4.0; }));
    // Keys go to the player by their codes: space resumes, up raises the volume, F takes the
    // screen and Escape gives it back; a key the player has no use for is left alone.
    EXPECT_TRUE(getJson("/key?code=49").value(QStringLiteral("handled")).toBool());
    EXPECT_TRUE(waitFor([&] { return !playerState().value(QStringLiteral("paused")).toBool(); }));
    const double volume = playerState().value(QStringLiteral("volume")).toDouble();
    EXPECT_TRUE(getJson("/key?code=126").value(QStringLiteral("handled")).toBool());
    EXPECT_TRUE(waitFor([&] { return playerState().value(QStringLiteral("volume")).toDouble() == std::min(volume + 5, 200.0); }));
    EXPECT_FALSE(getJson("/key?code=53").value(QStringLiteral("handled")).toBool(true));
    EXPECT_TRUE(getJson("/key?code=3").value(QStringLiteral("handled")).toBool());
    EXPECT_TRUE(getJson("/key?code=53").value(QStringLiteral("handled")).toBool());
    EXPECT_FALSE(getJson("/key?code=7").value(QStringLiteral("handled")).toBool(true));
    EXPECT_FALSE(getJson("/player-diagnostics").isEmpty());

    EXPECT_EQ(get("/stop").body, QByteArray(R"({"ok":true})"));
    EXPECT_TRUE(playerState().value(QStringLiteral("item")).isNull());
    EXPECT_FALSE(playerState().value(QStringLiteral("loaded")).toBool());
}

} // namespace
