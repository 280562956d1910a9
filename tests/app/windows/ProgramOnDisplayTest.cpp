// The real program as a new user starts it on a desktop: with a display it opens its main
// window, answers media controls on the session bus, keeps running with its windows closed,
// and a second launch hands over and brings the main window forward.

#include "tests/app/PrivateBus.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>

#include <gtest/gtest.h>

#include <fstream>

using namespace testsupport;

namespace {

QByteArray httpGet(int port, const QString &path)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(port));
    if (!socket.waitForConnected(5000))
        return {};
    socket.write("GET " + path.toUtf8() + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (socket.waitForReadyRead(10000))
        answer += socket.readAll();
    const qsizetype body = answer.indexOf("\r\n\r\n");
    return body < 0 ? QByteArray() : answer.mid(body + 4);
}

QJsonObject get(int port, const QString &path)
{
    return QJsonDocument::fromJson(httpGet(port, path)).object();
}

QStringList visibleIds(int port)
{
    QStringList ids;
    for (const QJsonValue &w : get(port, QStringLiteral("/window")).value(QStringLiteral("windows")).toArray())
        ids << w.toObject().value(QStringLiteral("id")).toString();
    return ids;
}

} // namespace

TEST(ProgramOnDisplayTest, OpensItsMainWindowAnswersMediaControlsAndComesBackOnASecondLaunch)
{
    TempDir home;
    std::ofstream(home.file("settings.json")) << R"({"dht": false, "lsd": false, "upnp": false})";
    PrivateBus bus;
    ASSERT_FALSE(bus.address().isEmpty());
    const int port = freeTcpPort();
    QProcessEnvironment env = bus.environment();
    env.insert(QStringLiteral("VELIX_HOME"), home.qpath());
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.qpath());
    env.insert(QStringLiteral("VELIX_CONTROL_PORT"), QString::number(port));
    env.insert(QStringLiteral("VELIX_SILENT"), QStringLiteral("1"));
    env.remove(QStringLiteral("VELIX_BACKGROUND"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    QProcess velix;
    velix.setProcessEnvironment(env);
    velix.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    velix.start(QStringLiteral(VELIX_BINARY), {});
    ASSERT_TRUE(velix.waitForStarted());

    // A user starting Velix sees its main window.
    ASSERT_TRUE(waitFor([&] { return visibleIds(port) == QStringList{QStringLiteral("main")}; }, std::chrono::seconds(60)));
    const QJsonObject main = get(port, QStringLiteral("/window")).value(QStringLiteral("windows")).toArray().at(0).toObject();
    EXPECT_EQ(main.value(QStringLiteral("title")).toString(), QStringLiteral("Velix"));
    EXPECT_EQ(main.value(QStringLiteral("width")).toInt(), 1280);
    EXPECT_EQ(main.value(QStringLiteral("height")).toInt(), 860);
    const QString shot = QStringLiteral(VELIX_SCREENSHOT_DIR) + QStringLiteral("/program-main.png");
    QDir().mkpath(QStringLiteral(VELIX_SCREENSHOT_DIR));
    EXPECT_EQ(get(port, QStringLiteral("/snapshot?window=main&path=") + shot), (QJsonObject{{QStringLiteral("ok"), true}}));
    EXPECT_EQ(QImage(shot).size(), QSize(1280, 860));

    // The media controls find it on the session bus.
    QProcess playerctl;
    playerctl.setProcessEnvironment(bus.environment());
    playerctl.start(QStringLiteral("playerctl"), {QStringLiteral("--list-all")});
    ASSERT_TRUE(playerctl.waitForFinished(30000));
    EXPECT_TRUE(QString::fromUtf8(playerctl.readAllStandardOutput()).split('\n').contains(QStringLiteral("velix")));

    // The settings command's route opens the settings page in the main window.
    get(port, QStringLiteral("/window?open=settings"));
    EXPECT_TRUE(get(port, QStringLiteral("/state")).value(QStringLiteral("ui")).toObject().value(QStringLiteral("settings")).toBool());

    // A second launch hands its request to the running program and exits; the main window is
    // still the one shown (closing it and coming back runs in the frame's own test).
    QProcess second;
    second.setProcessEnvironment(env);
    second.start(QStringLiteral(VELIX_BINARY), {});
    ASSERT_TRUE(second.waitForFinished(60000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(velix.state(), QProcess::Running);
    EXPECT_EQ(visibleIds(port), QStringList{QStringLiteral("main")});

    get(port, QStringLiteral("/quit"));
    ASSERT_TRUE(velix.waitForFinished(60000));
    EXPECT_EQ(velix.exitCode(), 0);
}
