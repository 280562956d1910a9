#include "ControlServerHarness.h"
#include "support/TaskResult.h"

#include "remote/ControlWindows.h"

#include <QDir>
#include <QFile>
#include <QImage>

#include <algorithm>

using namespace controltest;
using testsupport::waitFor;

namespace {

// A script's whole round with one torrent from a seeder on 127.0.0.1.
class ControlServerTorrentTest : public ControlServerFixture
{
protected:
    void SetUp() override
    {
        testsupport::writePatternFile(content.file("Show/Show.S01E01.mkv"), 96 * 1024, 1);
        testsupport::writePatternFile(content.file("Show/Show.S01E02.mkv"), 80 * 1024, 2);
        testsupport::writePatternFile(content.file("Show/notes.txt"), 3000, 3);
        made = testsupport::makeTorrent(content.path(), "Show", content.path());
        ASSERT_TRUE(seeder.seed(made));
        startServer();
    }

    QJsonArray files(const QByteArray &id) { return QJsonDocument::fromJson(get("/files?id=" + id).body).array(); }
    int prio(const QByteArray &id, int i) { return files(id).at(i).toObject().value(QStringLiteral("prio")).toInt(); }
    QString status(const QByteArray &id) { return torrentState(QString::fromUtf8(id)).value(QStringLiteral("status")).toString(); }

    testsupport::TempDir content;
    testsupport::MadeTorrent made;
    testsupport::LocalSeeder seeder;
};

TEST_F(ControlServerTorrentTest, AddWatchPrioritiseLimitAndRemove)
{
    // The torrent's own order gives the indices; pad files may stand between.
    const TorrentPreview preview =
        resultOf(engine->preview(QString::fromStdString(made.torrentPath))).value_or(TorrentPreview{});
    ASSERT_TRUE(preview.files);
    auto indexOf = [&preview](const char *name) {
        const auto found = std::find_if(preview.files->begin(), preview.files->end(),
                                        [name](const TorrentPreviewFile &f) { return f.path.endsWith(QLatin1String(name)); });
        return found == preview.files->end() ? QByteArray() : QByteArray::number(found->i);
    };
    const QByteArray first = indexOf("S01E01.mkv"), second = indexOf("S01E02.mkv"), notes = indexOf("notes.txt");
    ASSERT_FALSE(first.isEmpty() || second.isEmpty() || notes.isEmpty());

    // Only the first episode and the notes at first; a second add finds the first.
    const QByteArray id = add(made, "&files=" + first + "," + notes);
    ASSERT_EQ(id, QByteArray::fromStdString(made.id));
    const QJsonObject again = getJson("/add?path=" + encoded(QString::fromStdString(made.torrentPath)));
    EXPECT_EQ(again.value(QStringLiteral("id")).toString().toUtf8(), id);
    EXPECT_EQ(again.value(QStringLiteral("duplicate")), QJsonValue(true));

    ASSERT_TRUE(seeder.connectTo(made, enginePort));
    // Offered again while waiting: a connection dropped while the machine is busy with other
    // tests is otherwise tried again only a minute later.
    ASSERT_TRUE(waitFor([&] {
        seeder.offer(made, enginePort);
        return status(id) == QStringLiteral("Готово");
    }, std::chrono::seconds(90)));
    const QJsonObject firstFile = files(id).at(first.toInt()).toObject();
    EXPECT_EQ(firstFile.value(QStringLiteral("path")).toString(), QStringLiteral("Show/Show.S01E01.mkv"));
    EXPECT_EQ(firstFile.value(QStringLiteral("done")).toInteger(), 96 * 1024);
    EXPECT_EQ(prio(id, second.toInt()), 0);
    EXPECT_EQ(torrentState(QString::fromUtf8(id)).value(QStringLiteral("displayProgress")).toDouble(), 1.0);

    // Pieces of the list that are no index are dropped and the rest applied.
    get("/prio?id=" + id + "&files=" + second + ",foo,-3");
    ASSERT_TRUE(waitFor([&] {
        // Once finished, the torrent dropped the seeder as a redundant peer; it is needed again.
        seeder.offer(made, enginePort);
        return status(id) == QStringLiteral("Раздача");
    }));
    EXPECT_EQ(getJson("/pieces?id=" + id).value(QStringLiteral("map")).toString(), QString(made.numPieces, QLatin1Char('1')));
    get("/prio?id=" + id + "&files=" + first + "&p=0");
    get("/prio?id=" + id + "&files=" + second + "&p=9");
    ASSERT_TRUE(waitFor([&] { return prio(id, first.toInt()) == 0; }));
    EXPECT_EQ(prio(id, second.toInt()), 7);

    // The status report carries no rate limits; the connection and slot limits show.
    get("/limits?id=" + id + "&down=100&up=50&conn=20&slots=4");
    ASSERT_TRUE(waitFor([&] { return engine->torrent(QString::fromUtf8(id))->connectionsLimit == 20; }));
    EXPECT_EQ(engine->torrent(QString::fromUtf8(id))->uploadsLimit, 4);
    get("/limits?id=" + id);
    EXPECT_TRUE(waitFor([&] { return engine->torrent(QString::fromUtf8(id))->uploadsLimit != 4; }));

    // The contents screen's pause button acts on the torrent it shows.
    get("/action?a=pause&id=" + id);
    ASSERT_TRUE(waitFor([&] { return torrentState(QString::fromUtf8(id)).value(QStringLiteral("paused")).toBool(); }));
    get("/select?contents=" + id);
    EXPECT_EQ(get("/contents-action?action=togglePause").body, QByteArray(R"({"ok":true})"));
    ASSERT_TRUE(waitFor([&] { return !torrentState(QString::fromUtf8(id)).value(QStringLiteral("paused")).toBool(); }));

    const QString onDisk = downloads.qpath() + QStringLiteral("/Show/notes.txt");
    ASSERT_TRUE(QFile::exists(onDisk));
    get("/remove?id=" + id + "&data=1");
    ASSERT_TRUE(waitFor([&] { return state().value(QStringLiteral("torrents")).toArray().isEmpty(); }));
    EXPECT_TRUE(waitFor([&] { return !QFile::exists(onDisk); }));
}

TEST_F(ControlServerTorrentTest, SettingsChangeOnlyWhatIsGiven)
{
    getJson("/settings?connections=50");
    const AppSettings before = engine->settings();
    const QJsonObject answer = getJson("/settings?down=300&up=abc&connections=-5&alt=1&profile=russia&subs=never"
                                       "&audioLang=eng,%20jpn&autoplay=0");
    const AppSettings after = engine->settings();
    EXPECT_EQ(answer.value(QStringLiteral("libtorrent")).toString(), after.libtorrentSettings());
    EXPECT_EQ(after.downloadLimitKiB, 300);
    EXPECT_EQ(after.uploadLimitKiB, before.uploadLimitKiB);
    EXPECT_EQ(after.maxConnections, 0);
    EXPECT_TRUE(after.altSpeedEnabled);
    EXPECT_EQ(after.profile, NetworkProfile::Russia);
    EXPECT_EQ(after.subtitleMode, SubtitleMode::Never);
    EXPECT_EQ(after.audioLanguages, QStringLiteral("eng, jpn"));
    EXPECT_FALSE(after.autoplayNext);
    getJson("/settings?profile=mars&subs=sometimes");
    EXPECT_EQ(engine->settings(), after);

    // Opened links and files wait for the add sheet; a magnet stays the link it was.
    const QString magnet = QString::fromStdString(seeder.magnet(made));
    get("/open?path=" + encoded(magnet));
    get("/open?path=" + encoded(QString::fromStdString(made.torrentPath)));
    EXPECT_EQ(engine->pendingOpen(),
              (QList<QUrl>{QUrl(magnet), QUrl::fromLocalFile(QString::fromStdString(made.torrentPath))}));
}

// Windows that exist for the snapshot route only: each snapshot is a real PNG at the path asked.
class SnapshotWindows : public ControlWindows
{
public:
    QJsonArray visibleWindows() const override { return {}; }
    bool exists(const QString &name) const override { return name == QLatin1String("main"); }
    void open(const QString &) override {}
    void close(const QString &) override {}
    void sendBack() override {}
    void setContentSize(const QString &, double, double) override {}
    bool snapshot(const QString &, const QString &path) override
    {
        QImage image(4, 4, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        return image.save(path, "PNG");
    }
};

TEST_F(ControlServerTorrentTest, PathsWithSpacesArriveHoweverTheClientEncodedThem)
{
    testsupport::TempDir spaced;
    const QString torrent = spaced.qpath() + QStringLiteral("/my films/a+b show.torrent");
    ASSERT_TRUE(QDir().mkpath(spaced.qpath() + QStringLiteral("/my films")));
    ASSERT_TRUE(QFile::copy(QString::fromStdString(made.torrentPath), torrent));
    // Python's urlencode writes a space as "+" and a plus as "%2B"; curl and QUrl write "%20".
    const auto asForm = [](const QString &text) { return encoded(text).replace("%20", "+"); };
    const QByteArray save = asForm(downloads.qpath());

    const QJsonObject first = getJson("/add?paused=1&save=" + save + "&path=" + asForm(torrent));
    EXPECT_EQ(first.value(QStringLiteral("id")).toString().toStdString(), made.id);
    const QJsonObject second = getJson("/add?path=" + encoded(torrent));
    EXPECT_EQ(second.value(QStringLiteral("duplicate")), QJsonValue(true)) << "both spellings name one file";

    get("/open?path=" + asForm(torrent));
    EXPECT_EQ(engine->pendingOpen(), QList<QUrl>{QUrl::fromLocalFile(torrent)});

    SnapshotWindows windows;
    server->setWindows(&windows);
    const QString picture = spaced.qpath() + QStringLiteral("/my films/main window+1.png");
    EXPECT_EQ(get("/snapshot?window=main&path=" + asForm(picture)).body, QByteArray(R"({"ok":true})"));
    EXPECT_FALSE(QImage(picture).isNull());
    server->setWindows(nullptr);
}

} // namespace
