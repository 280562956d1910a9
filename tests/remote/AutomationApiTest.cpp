#include "AutomationHarness.h"

#include "remote/AutomationAPI.h"

#include <QJsonArray>

#include <array>

using namespace automationtest;

namespace {

const QString BadPath = QStringLiteral("Use an absolute local path without control characters.");

} // namespace

TEST(AutomationApiTest, PathsFromOutsideAreAbsoluteAndClean)
{
    const std::array<std::pair<const char *, const char *>, 8> rows{{
        {"/a/./b/../c", "/a/c"},
        {"//srv//media/", "/srv/media"},
        {"/../etc/./passwd", "/etc/passwd"},
        {"/Фильмы/Сезон 1", "/Фильмы/Сезон 1"},
        {"downloads", nullptr},
        {"", nullptr},
        {"/tmp/a\tb", nullptr},
        {"/tmp/a\nb", nullptr},
    }};
    for (const auto &[input, expected] : rows) {
        SCOPED_TRACE(input);
        const auto result = AutomationAPI::absolutePath(QString::fromUtf8(input));
        if (expected)
            EXPECT_EQ(std::get<QString>(result), QString::fromUtf8(expected));
        else
            EXPECT_EQ(std::get<AutomationError>(result).message, BadPath);
    }

    // A file in the way of a download directory: the system's own words, not the writable text.
    testsupport::TempDir dir;
    testsupport::writePatternFile(dir.file("file"), 10);
    const auto blocked = AutomationAPI::prepareDirectory(dir.qpath() + QStringLiteral("/file/sub"));
    ASSERT_TRUE(blocked);
    EXPECT_FALSE(blocked->message.isEmpty());
    EXPECT_NE(blocked->message, QStringLiteral("Download directory is not writable."));
}

TEST(AutomationApiTest, CallsAreCheckedBeforeTheyActAndRunOneAtATime)
{
    useShippedTools();
    testsupport::TempDir dir;
    for (const char *name : {"Show.S01E01.mkv", "Show.S01E01.srt"})
        testsupport::writePatternFile(dir.file("content/Show/") + name, 40 * 1024);
    const auto show = testsupport::makeTorrent(dir.file("content"), "Show", dir.file("torrents"));
    const QString torrent = QString::fromStdString(show.torrentPath);
    const QString id = QString::fromStdString(show.id);
    auto engine = makeEngine(dir.qpath() + QStringLiteral("/home"));
    AutomationAPI api(engine.get(), nullptr, nullptr);
    auto error = [&api](const QString &name, const QJsonObject &arguments = {}) {
        return errorOf(finish(api.call(name, arguments)));
    };

    int video = -1;
    QJsonArray padding;
    const auto preview = resultOf(finish(api.call(QStringLiteral("preview_torrent"), {{"path", torrent}})));
    for (const QJsonValue &f : preview.value(QLatin1String("files")).toArray()) {
        if (f[QLatin1String("pad")].toBool())
            padding.append(f[QLatin1String("i")]);
        else if (f[QLatin1String("path")].toString().endsWith(QLatin1String(".mkv")))
            video = f[QLatin1String("i")].toInt();
    }
    const QString unknownIndex = QStringLiteral("Unknown or padding file index.");
    const std::array<std::pair<QJsonObject, QString>, 7> rows{{
        {{{"source", "torrents/Show.torrent"}}, BadPath},
        {{{"source", torrent}, {"save_path", "downloads"}}, BadPath},
        {{{"source", "magnet:?xt=urn:btih:" + QString::fromStdString(show.v1Hex)}, {"files", QJsonArray{0}}},
         QStringLiteral("Magnet metadata is not available yet. Add it first, then select files.")},
        {{{"source", QString::fromStdString(dir.file("content/Show/Show.S01E01.mkv"))}},
         QStringLiteral("Readable local .torrent file required.")},
        {{{"source", torrent + ".missing.torrent"}}, QStringLiteral("Readable local .torrent file required.")},
        {{{"source", torrent}, {"files", QJsonArray{video, 999}}}, unknownIndex},
        {{{"source", torrent}, {"files", padding}}, unknownIndex},
    }};
    for (const auto &[arguments, expected] : rows) {
        SCOPED_TRACE(QJsonDocument(arguments).toJson(QJsonDocument::Compact).toStdString());
        EXPECT_EQ(error(QStringLiteral("add_torrent"), arguments), expected);
    }
    EXPECT_TRUE(engine->torrents().isEmpty());

    // The video alone, into a directory made for it; what an agent adds waits paused.
    const QString target = dir.qpath() + QStringLiteral("/downloads/new");
    EXPECT_EQ(resultOf(finish(api.call(QStringLiteral("add_torrent"), {{"source", torrent},
                                                                        {"save_path", target + "/../new/."},
                                                                        {"files", QJsonArray{video}}}))),
              (QJsonObject{{"id", id}, {"duplicate", false}}));
    EXPECT_EQ(resultOf(finish(api.call(QStringLiteral("add_torrent"), {{"source", torrent}}))),
              (QJsonObject{{"id", id}, {"duplicate", true}}));

    // A call is caught while it waits for the engine, and the calls below arrive meanwhile. On a
    // loaded machine the engine's queue may answer before a call gets to wait; that call has
    // simply finished, and another is made.
    std::optional<QCoro::Task<AutomationOutcome>> first;
    for (int attempt = 0; attempt < 100 && !api.busy(); ++attempt)
        first.emplace(api.call(QStringLiteral("get_torrent_details"), QJsonObject{{"id", id}}));
    ASSERT_TRUE(api.busy());
    EXPECT_EQ(error(QStringLiteral("get_state")), QStringLiteral("Another command is in progress; read state and retry."));
    EXPECT_EQ(error(QStringLiteral("get_settings"), {{"x", 1}}), QStringLiteral("Invalid arguments"));
    EXPECT_EQ(error(QStringLiteral("launch")), QStringLiteral("Unknown tool: launch"));
    const QJsonObject details = resultOf(finish(std::move(*first)));
    EXPECT_TRUE(details.value(QLatin1String("torrent"))[QLatin1String("paused")].toBool());
    EXPECT_EQ(details.value(QLatin1String("torrent"))[QLatin1String("savePath")].toString(), target);
    for (const QJsonValue &f : details.value(QLatin1String("files")).toArray())
        EXPECT_EQ(f[QLatin1String("prio")].toInt(), f[QLatin1String("i")].toInt() == video ? 4 : 0);

    const QString unknown(40, QLatin1Char('f'));
    EXPECT_EQ(error(QStringLiteral("torrent_action"), {{"id", unknown}, {"action", "pause"}}),
              QStringLiteral("Torrent not found: ") + unknown);
    engine->shutdown();
    EXPECT_EQ(error(QStringLiteral("get_settings")), QStringLiteral("Velix is shutting down."));
    // The refusal gave the command slot back.
    EXPECT_EQ(error(QStringLiteral("get_settings")), QStringLiteral("Velix is shutting down."));
}
