#include "app/AppDelegate.h"
#include "app/BundledRuntime.h"
#include "app/LaunchEnvironment.h"
#include "app/SingleInstance.h"
#include "engine/TorrentEngine.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QThread>

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>

using testsupport::TempDir;
using testsupport::waitFor;

TEST(LaunchEnvironmentTest, ControlPortAcceptsOnlySixteenBitDecimals)
{
    struct Row
    {
        const char *text;
        std::optional<uint16_t> port;
    };
    const std::array<Row, 11> rows{{
        {"8080", 8080},
        {"+8080", 8080},
        {"0", 0},
        {"65535", 65535},
        {"65536", std::nullopt},
        {"70000", std::nullopt},
        {"abc", std::nullopt},
        {"", std::nullopt},
        {"+", std::nullopt},
        {"-1", std::nullopt},
        {"80 ", std::nullopt},
    }};
    for (const Row &row : rows)
        EXPECT_EQ(LaunchEnvironment::parseControlPort(QString::fromLatin1(row.text)), row.port) << '"' << row.text << '"';

    EXPECT_TRUE(LaunchEnvironment::isBackground("1"));
    for (const char *other : {"true", "0", "", " 1", "yes"})
        EXPECT_FALSE(LaunchEnvironment::isBackground(other)) << other;
}

TEST(BundledRuntimeTest, SetsLibraryPathsOnlyWhenTheCertificatesShipAndKeepsCallersValues)
{
    const char *names[] = {"SSL_CERT_FILE", "OPENSSL_CONF", "FONTCONFIG_PATH", "FONTCONFIG_FILE"};
    for (const char *name : names)
        qunsetenv(name);

    TempDir bare;
    BundledRuntime::configure(bare.qpath());
    for (const char *name : names)
        EXPECT_FALSE(qEnvironmentVariableIsSet(name)) << name;

    TempDir shipped;
    std::ofstream(shipped.file("cacert.pem")) << "-----BEGIN CERTIFICATE-----\n";
    qputenv("SSL_CERT_FILE", "/callers/own.pem");
    BundledRuntime::configure(shipped.qpath());
    EXPECT_EQ(qEnvironmentVariable("SSL_CERT_FILE"), QStringLiteral("/callers/own.pem"));
    EXPECT_EQ(qEnvironmentVariable("OPENSSL_CONF"), QStringLiteral("/dev/null"));
    EXPECT_EQ(qEnvironmentVariable("FONTCONFIG_PATH"), shipped.qpath() + QStringLiteral("/fontconfig"));
    EXPECT_EQ(qEnvironmentVariable("FONTCONFIG_FILE"), shipped.qpath() + QStringLiteral("/fontconfig/fonts.conf"));
    for (const char *name : names)
        qunsetenv(name);
}

TEST(AppDelegateTest, StopsServicesInOrderWithTheEngineLastAndOnlyOnce)
{
    TempDir home;
    std::unique_ptr<TorrentEngine> engine;
    AppDelegate delegate;
    delegate.setProcessServices(false);
    delegate.setEngineFactory([&] {
        engine = std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(testsupport::quietSettingsText()));
        return engine.get();
    });

    // Links that arrive before the engine exists wait for it, in their order.
    const QList<QUrl> early{QUrl::fromLocalFile(QStringLiteral("/a.torrent")), QUrl(QStringLiteral("magnet:?xt=urn:btih:1"))};
    delegate.openUrls(early);
    delegate.applicationWillFinishLaunching();
    delegate.applicationDidFinishLaunching();
    ASSERT_NE(delegate.engine(), nullptr);
    const QList<QUrl> late{QUrl::fromLocalFile(QStringLiteral("/b.torrent")), QUrl::fromLocalFile(QStringLiteral("/c.torrent"))};
    delegate.openUrls(late);
    EXPECT_EQ(engine->pendingOpen(), early + late);
    EXPECT_FALSE(delegate.applicationShouldTerminateAfterLastWindowClosed());

    QStringList order;
    auto &steps = delegate.stopSteps();
    steps.stopAutomation = [&] { order << QStringLiteral("automation") + (engine->isShutDown() ? "!" : ""); };
    steps.hideWindows = [&] { order << QStringLiteral("windows"); };
    steps.killCoverHelper = [&] { order << QStringLiteral("covers"); };
    steps.stopPlayer = [&] { order << QStringLiteral("player") + (engine->isShutDown() ? "!" : ""); };
    delegate.applicationWillTerminate();
    delegate.applicationWillTerminate();
    EXPECT_EQ(order, (QStringList{QStringLiteral("automation"), QStringLiteral("windows"), QStringLiteral("covers"),
                                  QStringLiteral("player")}));
    EXPECT_TRUE(engine->isShutDown());
}

TEST(SingleInstanceTest, ASecondLaunchHandsItsLinksToTheRunningOne)
{
    TempDir home;
    SingleInstance first(home.qpath());
    ASSERT_FALSE(first.forwardToRunning({}));
    QSignalSpy opened(&first, &SingleInstance::openRequested);
    QSignalSpy shown(&first, &SingleInstance::showRequested);

    const QList<QUrl> urls = urlsFromArguments({QStringLiteral("magnet:?xt=urn:btih:abc"), home.qpath() + QStringLiteral("/x.torrent"),
                                                QStringLiteral("--ignored")});
    ASSERT_EQ(urls.size(), 2);
    bool forwarded = false;
    // The second launch blocks while it talks, so it runs where the first can still answer.
    QThread *second = QThread::create([&] {
        SingleInstance other(home.qpath());
        forwarded = other.forwardToRunning(urls);
    });
    second->start();
    ASSERT_TRUE(waitFor([&] { return second->isFinished(); }));
    delete second;
    EXPECT_TRUE(forwarded);
    ASSERT_TRUE(waitFor([&] { return opened.count() == 1 && shown.count() == 1; }));
    EXPECT_EQ(opened.first().first().value<QList<QUrl>>(), urls);

    // Another data directory is another instance.
    TempDir elsewhere;
    SingleInstance separate(elsewhere.qpath());
    EXPECT_FALSE(separate.forwardToRunning({}));
}

TEST(ProcessTest, HeadlessRunPollsAndStopsOnSigtermLeavingItsState)
{
    TempDir home;
    // Nothing in this run may reach beyond the machine.
    std::ofstream(home.file("settings.json")) << R"({"dht": false, "lsd": false, "upnp": false})";
    QProcess velix;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VELIX_HOME"), home.qpath());
    env.insert(QStringLiteral("VELIX_BACKGROUND"), QStringLiteral("1"));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.qpath());
    velix.setProcessEnvironment(env);
    velix.start(QStringLiteral(VELIX_BINARY), {});
    ASSERT_TRUE(velix.waitForStarted());
    ASSERT_TRUE(waitFor([&] { return velix.readAllStandardOutput().contains("runs in the background")
                                     || QFile::exists(home.qpath() + QStringLiteral("/state/resume")); }));
    ASSERT_TRUE(waitFor([&] { return QFile::exists(home.qpath() + QStringLiteral("/settings.json")); }));

    // A second launch on the same data directory leaves at once and hands over.
    QProcess second;
    second.setProcessEnvironment(env);
    second.start(QStringLiteral(VELIX_BINARY), {QStringLiteral("magnet:?xt=urn:btih:0123456789abcdef0123456789abcdef01234567")});
    ASSERT_TRUE(second.waitForFinished(30000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(velix.state(), QProcess::Running);

    ::kill(static_cast<pid_t>(velix.processId()), SIGTERM);
    ASSERT_TRUE(velix.waitForFinished(30000));
    EXPECT_EQ(velix.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(velix.exitCode(), 0);
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/state/session.state")));
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/torrents.json")));
    QFile settings(home.qpath() + QStringLiteral("/settings.json"));
    ASSERT_TRUE(settings.open(QIODevice::ReadOnly));
    const QJsonObject saved = QJsonDocument::fromJson(settings.readAll()).object();
    EXPECT_FALSE(saved.value(QStringLiteral("dht")).toBool(true));
    EXPECT_TRUE(saved.contains(QStringLiteral("listenPort")));
}

namespace {

QByteArray httpGet(int port, const QByteArray &path)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(port));
    if (!socket.waitForConnected(5000))
        return {};
    socket.write("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (socket.waitForReadyRead(10000))
        answer += socket.readAll();
    const qsizetype body = answer.indexOf("\r\n\r\n");
    return body < 0 ? QByteArray() : answer.mid(body + 4);
}

} // namespace

TEST(ProcessTest, AScriptDrivesTheHeadlessProgramOverItsControlPortAndQuitsIt)
{
    TempDir home;
    std::ofstream(home.file("settings.json")) << R"({"dht": false, "lsd": false, "upnp": false})";
    const int port = testsupport::freeTcpPort();
    QProcess velix;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VELIX_HOME"), home.qpath());
    env.insert(QStringLiteral("VELIX_BACKGROUND"), QStringLiteral("1"));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.qpath());
    env.insert(QStringLiteral("VELIX_CONTROL_PORT"), QStringLiteral("+%1").arg(port));
    env.insert(QStringLiteral("VELIX_SILENT"), QStringLiteral("1"));
    velix.setProcessEnvironment(env);
    velix.start(QStringLiteral(VELIX_BINARY), {});
    ASSERT_TRUE(velix.waitForStarted());

    QJsonObject state;
    ASSERT_TRUE(waitFor([&] {
        state = QJsonDocument::fromJson(httpGet(port, "/state")).object();
        return !state.isEmpty();
    }));
    EXPECT_TRUE(state.contains(QStringLiteral("torrents")));
    // The automation server publishes where agents find it.
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/automation/endpoint.json")));

    httpGet(port, "/quit");
    ASSERT_TRUE(velix.waitForFinished(30000));
    EXPECT_EQ(velix.exitCode(), 0);
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/settings.json")));
    EXPECT_FALSE(QFile::exists(home.qpath() + QStringLiteral("/automation/endpoint.json")));
}
