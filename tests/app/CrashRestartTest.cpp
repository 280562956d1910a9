#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QUrl>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <vector>

using testsupport::TempDir;
using testsupport::waitFor;

namespace {

// One request to the control server; the body, or nothing when the program didn't answer.
std::optional<QByteArray> request(int port, const QByteArray &target)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(port));
    if (!socket.waitForConnected(2000))
        return std::nullopt;
    socket.write("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (socket.waitForReadyRead(10000))
        answer += socket.readAll();
    const qsizetype body = answer.indexOf("\r\n\r\n");
    if (body < 0)
        return std::nullopt;
    return answer.mid(body + 4);
}

QByteArray encoded(const std::string &text)
{
    return QUrl::toPercentEncoding(QString::fromStdString(text));
}

// A file as JSON; none when it is missing, and a test failure when it is there but not whole.
std::optional<QJsonObject> wholeJson(const std::string &path)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << path << " is not whole: " << error.errorString().toStdString();
    EXPECT_TRUE(document.isObject()) << path;
    return document.object();
}

// A value the test set, and when its answer came (ms on the test's clock).
struct Change
{
    qint64 at = 0;
    QString value;
};

// What a kill may cost of one run's changes: only those made less than `grace` before it. So the
// saved value is the last change of the run older than that or one after it; when the run has
// no such change, it is what the run started from or any of its changes.
bool keptAllButTheLast(const std::vector<Change> &run, qint64 killedAt, qint64 grace, const QString &saved,
                       const QString &before)
{
    std::size_t settled = run.size();
    for (std::size_t k = 0; k < run.size(); ++k) {
        if (run[k].at <= killedAt - grace)
            settled = k;
    }
    const std::size_t from = settled == run.size() ? 0 : settled;
    if (settled == run.size() && saved == before)
        return true;
    return std::any_of(run.begin() + static_cast<std::ptrdiff_t>(from), run.end(),
                       [&saved](const Change &c) { return c.value == saved; });
}

class Velix
{
public:
    Velix(const QString &home, int controlPort)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("VELIX_HOME"), home);
        env.insert(QStringLiteral("VELIX_BACKGROUND"), QStringLiteral("1"));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home);
        env.insert(QStringLiteral("VELIX_CONTROL_PORT"), QString::number(controlPort));
        env.insert(QStringLiteral("VELIX_SILENT"), QStringLiteral("1"));
        env.insert(QStringLiteral("VELIX_MCP_DISABLED"), QStringLiteral("1"));
        m_process.setProcessEnvironment(env);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.setStandardOutputFile(QProcess::nullDevice());
    }
    ~Velix() { kill(); }

    bool start()
    {
        m_process.start(QStringLiteral(VELIX_BINARY), {});
        return m_process.waitForStarted(30000);
    }
    // SIGKILL: nothing of the program runs after it.
    void kill()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.kill();
        m_process.waitForFinished(30000);
    }
    bool running() const { return m_process.state() == QProcess::Running; }

private:
    QProcess m_process;
};

} // namespace

TEST(ProcessTest, KilledAtRandomMomentsItKeepsSettingsLibraryAndDataAndFinishesTheFile)
{
    TempDir dir;
    const std::string content = dir.file("content");
    testsupport::writePatternFile(content + "/Film/part1.bin", 3 * 1024 * 1024 + 12345, 31);
    testsupport::writePatternFile(content + "/Film/part2.bin", 2 * 1024 * 1024, 32);
    testsupport::TorrentOptions options;
    options.pieceLength = 64 * 1024;
    const auto film = testsupport::makeTorrent(content, "Film", dir.file("torrents"), options);
    // Slow enough that the kills fall in the middle of the download.
    testsupport::LocalSeeder seeder(512 * 1024);
    ASSERT_TRUE(seeder.seed(film));

    const std::string home = dir.file("home");
    const std::string down = dir.file("down");
    const int listenPort = testsupport::freeTcpPort();
    std::filesystem::create_directories(home);
    // Nothing in this run may reach beyond the machine; the seeder finds the program at its port.
    std::ofstream(home + "/settings.json") << R"({"dht": false, "lsd": false, "upnp": false, "ipv6": false, "listenPort": )"
                                           << listenPort << "}";
    const int port = testsupport::freeTcpPort();

    const std::uint32_t seed = std::random_device{}();
    SCOPED_TRACE("random seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto between = [&random](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    QElapsedTimer clock;
    clock.start();

    std::vector<Change> layouts;
    // A file without the key holds the default.
    QString savedLanguage = QStringLiteral("rus, ru");
    bool added = false;
    const std::array<const char *, 3> layoutWords{"grid", "list", "table"};
    qint64 bytesBefore = 0;
    constexpr int Rounds = 10;
    constexpr qint64 Piece = 64 * 1024;

    for (int round = 0; round <= Rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Velix velix(QString::fromStdString(home), port);
        ASSERT_TRUE(velix.start());
        const bool last = round == Rounds;
        // Some kills come while the program is still starting, most while it works.
        // Some kills come while the program is still starting, most while it works; the first
        // run lives until the torrent is added and a while after.
        const qint64 runFor = between(0, 3) == 0 ? between(50, 600) : between(800, 3000);
        qint64 startedAt = clock.elapsed();
        std::vector<Change> languages;

        bool answered = false;
        bool checkedAfterRestart = false;
        while (last || !added || clock.elapsed() - startedAt < runFor) {
            ASSERT_LT(clock.elapsed() - startedAt, 5 * 60 * 1000) << "the program did not come up or finish";
            const auto stateText = request(port, "/state");
            if (!stateText) {
                waitFor([] { return false; }, std::chrono::milliseconds(20));
                continue;
            }
            const QJsonObject state = QJsonDocument::fromJson(*stateText).object();
            if (!answered) {
                answered = true;
                if (!added) {
                    const auto answer = request(port, "/add?path=" + encoded(film.torrentPath) + "&save=" + encoded(down));
                    ASSERT_TRUE(answer.has_value());
                    ASSERT_EQ(QJsonDocument::fromJson(*answer).object().value("id").toString().toStdString(), film.id);
                    added = true;
                    startedAt = clock.elapsed();
                }
            }
            const QJsonArray torrents = state.value("torrents").toArray();
            // The library comes back on its own thread; until then the list is empty.
            if (!torrents.isEmpty()) {
                // Every restart brings the torrent back, in its own save path.
                ASSERT_EQ(torrents.size(), 1) << stateText->toStdString();
                const QJsonObject torrent = torrents.first().toObject();
                EXPECT_EQ(torrent.value("id").toString().toStdString(), film.id);
                EXPECT_EQ(torrent.value("savePath").toString().toStdString(), down);
                const qint64 done = torrent.value("wantedDone").toInteger();
                if (torrent.value("state").toString() != "checking") {
                    // After the check the data written before the kill is still counted; only
                    // blocks the library had not yet handed to the system may be gone.
                    if (!checkedAfterRestart && round > 0)
                        EXPECT_GE(done, bytesBefore - 16 * Piece) << "downloaded data was lost to the kill";
                    checkedAfterRestart = true;
                    bytesBefore = std::max(bytesBefore, done);
                }
                if (last && torrent.value("progress").toDouble() >= 1.0 && torrent.value("state").toString() == "seeding")
                    break;
            }
            seeder.offer(film, listenPort);

            // While it runs: a preference, a setting, a file priority, in a random order.
            switch (between(0, 3)) {
            case 0: {
                const QString word = QLatin1String(layoutWords[static_cast<std::size_t>(between(0, 2))]);
                if (request(port, "/select?layout=" + word.toUtf8()))
                    layouts.push_back({clock.elapsed(), word});
                break;
            }
            case 1: {
                const QString language = QStringLiteral("lang%1").arg(between(0, 99999));
                if (request(port, "/settings?audioLang=" + language.toUtf8()))
                    languages.push_back({clock.elapsed(), language});
                break;
            }
            case 2:
                if (!last)
                    request(port, "/prio?id=" + QByteArray::fromStdString(film.id) + "&files=" + QByteArray::number(between(0, 1))
                                      + "&p=" + QByteArray::number(std::array{1, 4, 7}[static_cast<std::size_t>(between(0, 2))]));
                break;
            default:
                break;
            }
            if (last) {
                // The end: every file wanted again so that the download completes.
                request(port, "/prio?id=" + QByteArray::fromStdString(film.id) + "&files=0,1&p=4");
                waitFor([] { return false; }, std::chrono::milliseconds(200));
            } else {
                waitFor([] { return false; }, std::chrono::milliseconds(between(0, 150)));
            }
        }
        if (last)
            break;

        velix.kill();
        const qint64 killedAt = clock.elapsed();

        // Whatever the moment, every saved file is whole.
        const auto settings = wholeJson(home + "/settings.json");
        const auto library = wholeJson(home + "/library.json");
        wholeJson(home + "/torrents.json");
        if (added) {
            EXPECT_TRUE(std::filesystem::exists(home + "/state/resume/" + film.id + ".resume")) << "the torrent is on record";
        }
        // A setting changed more than the save's limit (1.5 s) before the kill is there, with a
        // margin for a loaded machine; the layout is saved at the moment it is chosen.
        ASSERT_TRUE(settings.has_value());
        const QString language = settings->value("audioLanguages").toString(savedLanguage);
        EXPECT_TRUE(keptAllButTheLast(languages, killedAt, 3000, language, savedLanguage))
            << "saved " << language.toStdString();
        savedLanguage = language;
        if (!layouts.empty()) {
            ASSERT_TRUE(library.has_value());
            EXPECT_EQ(library->value("layout").toString(), layouts.back().value);
        }
    }

    for (const char *name : {"Film/part1.bin", "Film/part2.bin"}) {
        EXPECT_TRUE(testsupport::readWholeFile(down + "/" + name) == testsupport::readWholeFile(content + "/" + name))
            << name << " differs from the seeder's";
    }
}
