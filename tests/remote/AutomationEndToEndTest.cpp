// An agent's session over a real socket: the automation server in front of the real API, a real
// engine that seeds a torrent made here, and the real player over libmpv (no picture, no sound).

#include "AutomationHarness.h"

#include "playback/PlayerModel.h"
#include "remote/AutomationAPI.h"
#include "remote/AutomationServer.h"
#include "support/MediaMaker.h"

#include <QFileInfo>
#include <QJsonArray>

using namespace automationtest;

TEST(AutomationEndToEndTest, AgentAddsPlaysControlsAndRemovesATorrent)
{
    useShippedTools();
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::makeVideo(dir.file("content/Film/Film.mkv"),
                                       {.seconds = 30, .width = 160, .height = 90, .audioTracks = 2}));
    ASSERT_TRUE(testsupport::makeSubtitleFile(dir.file("content/Film/Film.srt")));
    const auto film = testsupport::makeTorrent(dir.file("content"), "Film", dir.file("torrents"));
    qputenv("VELIX_SILENT", "1");
    auto engine = makeEngine(dir.qpath() + QStringLiteral("/home"));
    PlayerModel player(engine.get());
    AutomationAPI api(engine.get(), &player, nullptr);
    const QString automation = dir.qpath() + QStringLiteral("/home/automation");
    AutomationServer server(automation, [&api](QString name, QJsonObject arguments) {
        return api.call(std::move(name), std::move(arguments));
    });
    server.start();

    // The tool's result, or its error as {"error": text}.
    auto tool = [&automation](const QString &name, const QJsonObject &arguments = {}) {
        const QJsonObject answer = callTool(automation, name, arguments);
        return answer.value(QLatin1String("ok")).toBool() ? answer.value(QLatin1String("result")).toObject()
                                                          : QJsonObject{{"error", answer.value(QLatin1String("error"))}};
    };
    auto control = [&tool](const QJsonObject &arguments) {
        return tool(QStringLiteral("control_player"), arguments).value(QLatin1String("error")).toString();
    };
    auto state = [&tool](const char *part) { return tool(QStringLiteral("get_state")).value(QLatin1String(part)); };
    auto playerShows = [&state](const char *key, const std::function<bool(const QJsonValue &)> &holds) {
        return testsupport::waitFor([&] { return holds(state("player")[QLatin1String(key)]); });
    };
    const QJsonObject accepted{{"accepted", true}};
    auto add = [&] {
        return tool(QStringLiteral("add_torrent"), {{"source", QString::fromStdString(film.torrentPath)},
                                                    {"save_path", QString::fromStdString(dir.file("content"))},
                                                    {"paused", false}});
    };

    // Settings change together or not at all: a bad directory keeps the limit from being stored.
    EXPECT_EQ(tool(QStringLiteral("update_settings"), {{"download_kib", 512}, {"download_directory", "Downloads"}}),
              (QJsonObject{{"error", "Use an absolute local path without control characters."}}));
    EXPECT_NE(engine->settings().downloadLimitKiB, 512);
    const QString downloads = dir.qpath() + QStringLiteral("/Downloads/new");
    const QJsonObject settings = tool(QStringLiteral("update_settings"),
                                      {{"download_kib", 512}, {"download_directory", downloads + "/."}, {"subtitle_mode", "never"}});
    EXPECT_EQ(settings, tool(QStringLiteral("get_settings")));
    EXPECT_EQ(settings.value(QLatin1String("download_directory")).toString(), downloads);
    EXPECT_TRUE(QFileInfo(downloads).isDir());
    EXPECT_EQ(engine->settings().downloadLimitKiB, 512);
    EXPECT_EQ(engine->settings().subtitleMode, SubtitleMode::Never);

    const QString id = add().value(QLatin1String("id")).toString();
    ASSERT_EQ(id, QString::fromStdString(film.id));
    // The data lies complete in the save path: once checked, the torrent seeds.
    ASSERT_TRUE(testsupport::waitFor([&] { return state("torrents")[0][QLatin1String("progress")].toDouble() == 1.0; }));

    int video = -1;
    int subtitles = -1;
    for (const QJsonValue &f : tool(QStringLiteral("get_torrent_details"), {{"id", id}}).value(QLatin1String("files")).toArray()) {
        const QString path = f[QLatin1String("path")].toString();
        if (path.endsWith(QLatin1String(".mkv")))
            video = f[QLatin1String("i")].toInt();
        else if (path.endsWith(QLatin1String(".srt")))
            subtitles = f[QLatin1String("i")].toInt();
    }
    EXPECT_EQ(tool(QStringLiteral("set_file_priority"), {{"id", id}, {"files", QJsonArray{subtitles, 99}}, {"priority", 7}}),
              (QJsonObject{{"error", "Unknown or padding file index."}}));
    // What the details say of a file can be written back as it stands.
    const QJsonValue readBack =
        tool(QStringLiteral("get_torrent_details"), {{"id", id}}).value(QLatin1String("files"))[video][QLatin1String("prio")];
    EXPECT_EQ(readBack.toInt(), 4);
    EXPECT_EQ(tool(QStringLiteral("set_file_priority"), {{"id", id}, {"files", QJsonArray{video}}, {"priority", readBack}}),
              accepted);
    EXPECT_EQ(tool(QStringLiteral("set_file_priority"), {{"id", id}, {"files", QJsonArray{subtitles}}, {"priority", 7}}),
              accepted);
    // A limit not given keeps its value.
    EXPECT_EQ(tool(QStringLiteral("set_torrent_limits"), {{"id", id}}),
              (QJsonObject{{"error", "Provide at least one limit."}}));
    auto limits = [&] { return tool(QStringLiteral("get_torrent_details"), {{"id", id}}).value(QLatin1String("torrent")); };
    EXPECT_EQ(tool(QStringLiteral("set_torrent_limits"),
                   {{"id", id}, {"download_kib", 300}, {"connections", 20}, {"upload_slots", 6}}),
              accepted);
    ASSERT_TRUE(testsupport::waitFor([&] { return limits()[QLatin1String("downloadRateLimit")].toInt() == 300 * 1024; }));
    // Only the upload changes: the download limit read back is kept, not lifted.
    EXPECT_EQ(tool(QStringLiteral("set_torrent_limits"), {{"id", id}, {"upload_kib", 100}, {"upload_slots", 4}}), accepted);
    ASSERT_TRUE(testsupport::waitFor([&] { return limits()[QLatin1String("uploadRateLimit")].toInt() == 100 * 1024; }));
    const QJsonObject details = tool(QStringLiteral("get_torrent_details"), {{"id", id}});
    EXPECT_EQ(details.value(QLatin1String("torrent"))[QLatin1String("downloadRateLimit")].toInt(), 300 * 1024);
    EXPECT_EQ(details.value(QLatin1String("torrent"))[QLatin1String("connectionsLimit")].toInt(), 20);
    EXPECT_EQ(details.value(QLatin1String("torrent"))[QLatin1String("uploadsLimit")].toInt(), 4);
    EXPECT_EQ(details.value(QLatin1String("files"))[subtitles][QLatin1String("prio")].toInt(), 7);
    EXPECT_EQ(details.value(QLatin1String("files"))[video][QLatin1String("prio")].toInt(), 4);

    // Each player action takes its own parameter, which is checked before anything else.
    EXPECT_EQ(control({{"action", "pause"}, {"seconds", 1}}), "Provide only the parameter required by this player action.");
    EXPECT_EQ(control({{"action", "seek"}}), "Provide only the parameter required by this player action.");
    EXPECT_EQ(control({{"action", "stop"}}), QString());
    EXPECT_EQ(control({{"action", "pause"}}), "No file is open in the player.");
    EXPECT_EQ(tool(QStringLiteral("play_file"), {{"id", id}, {"file", subtitles}}),
              (QJsonObject{{"error", "Playable audio/video file not found."}}));

    ASSERT_EQ(tool(QStringLiteral("play_file"), {{"id", id}, {"file", video}}), accepted);
    ASSERT_TRUE(playerShows("duration", [](const QJsonValue &v) { return v.toDouble() > 0; }));
    EXPECT_EQ(state("player")[QLatin1String("item")][QLatin1String("file")].toInt(), video);
    EXPECT_EQ(control({{"action", "pause"}}), QString());
    EXPECT_TRUE(playerShows("paused", [](const QJsonValue &v) { return v.toBool(); }));
    EXPECT_EQ(control({{"action", "volume"}, {"value", 40}}), QString());
    EXPECT_TRUE(playerShows("volume", [](const QJsonValue &v) { return v.toDouble() == 40; }));
    for (const double speed : {0.25, 4.0})
        EXPECT_EQ(control({{"action", "speed"}, {"value", speed}}), QString());
    for (const double speed : {0.24, 4.01})
        EXPECT_EQ(control({{"action", "speed"}, {"value", speed}}), "Playback speed must be between 0.25 and 4.");
    // The second sound track, by the id that the state lists.
    QJsonArray audio;
    ASSERT_TRUE(playerShows("audio", [&audio](const QJsonValue &v) { return (audio = v.toArray()).size() == 2; }));
    EXPECT_EQ(control({{"action", "audio"}, {"option", audio[1][QLatin1String("id")]}}), QString());
    EXPECT_TRUE(playerShows("audio", [](const QJsonValue &v) { return v[1][QLatin1String("selected")].toBool(); }));
    EXPECT_EQ(control({{"action", "subtitle"}, {"option", "s9"}}),
              "Track option not found; read get_state for current options.");
    // Played to its end, the file starts again on resume.
    EXPECT_EQ(control({{"action", "seek"}, {"seconds", 29.5}}), QString());
    EXPECT_EQ(control({{"action", "resume"}}), QString());
    ASSERT_TRUE(playerShows("ended", [](const QJsonValue &v) { return v.toBool(); }));
    EXPECT_EQ(control({{"action", "resume"}}), QString());
    EXPECT_TRUE(playerShows("position", [](const QJsonValue &v) { return v.toDouble() < 10; }));
    EXPECT_FALSE(state("player")[QLatin1String("ended")].toBool());

    // Deleting data takes the exact name; keeping it takes none, and a wrong one is no matter.
    // Either way the player lets go of the torrent first.
    const QString data = QString::fromStdString(dir.file("content/Film/Film.mkv"));
    EXPECT_EQ(tool(QStringLiteral("remove_torrent"), {{"id", id}, {"delete_files", true}, {"confirm_name", "film"}}),
              (QJsonObject{{"error", "Deleting data requires confirm_name matching the torrent name."}}));
    EXPECT_EQ(tool(QStringLiteral("remove_torrent"), {{"id", id}, {"confirm_name", "film"}}), accepted);
    EXPECT_FALSE(state("player")[QLatin1String("item")].isObject());
    EXPECT_TRUE(state("torrents").toArray().isEmpty());
    EXPECT_TRUE(QFileInfo::exists(data));
    ASSERT_EQ(add().value(QLatin1String("id")).toString(), id);
    EXPECT_EQ(tool(QStringLiteral("remove_torrent"), {{"id", id}, {"delete_files", true}, {"confirm_name", "Film"}}), accepted);
    EXPECT_TRUE(testsupport::waitFor([&data] { return !QFileInfo::exists(data); }));
    EXPECT_EQ(tool(QStringLiteral("get_torrent_details"), {{"id", id}}), (QJsonObject{{"error", "Torrent not found: " + id}}));

    server.stop();
    player.stop();
    player.destroyCore();
}
