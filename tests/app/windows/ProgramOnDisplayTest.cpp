// The real program as a new user starts it on a desktop: with a display it opens its main
// window, answers media controls on the session bus, keeps running with its windows closed,
// and a second launch hands over and brings the main window forward.

#include "../PrivateBus.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
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

namespace {

// The desktop side of a tray: a StatusNotifierWatcher with a host, as KDE's and GNOME's
// panels run on the session bus. It writes down which items register.
class TrayWatcher : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)

public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList registeredItems() const { return items; }

    QStringList items;   // what each item registered as
    QStringList senders; // the bus name each registration came from

public slots:
    void RegisterStatusNotifierItem(const QString &service, const QDBusMessage &message)
    {
        items << service;
        senders << message.service();
    }
    void RegisterStatusNotifierHost(const QString &) {}

signals:
    void StatusNotifierItemRegistered(const QString &service);
    void StatusNotifierItemUnregistered(const QString &service);
    void StatusNotifierHostRegistered();
};

struct MenuRow
{
    int id = 0;
    QString label;
};

// The rows of a com.canonical.dbusmenu layout: (id, properties, children).
QList<MenuRow> menuRows(const QDBusArgument &layout)
{
    QList<MenuRow> rows;
    int id = 0;
    QVariantMap properties;
    QList<QDBusVariant> children;
    layout.beginStructure();
    layout >> id >> properties;
    layout.beginArray();
    while (!layout.atEnd()) {
        QDBusVariant child;
        layout >> child;
        children << child;
    }
    layout.endArray();
    layout.endStructure();
    if (properties.contains(QStringLiteral("label")))
        rows << MenuRow{id, properties.value(QStringLiteral("label")).toString()};
    for (const QDBusVariant &child : children)
        rows << menuRows(child.variant().value<QDBusArgument>());
    return rows;
}

} // namespace

TEST(ProgramOnDisplayTest, TheTrayIconAppearsOnADesktopWithATrayAndItsQuitEndsTheProgram)
{
    TempDir home;
    std::ofstream(home.file("settings.json")) << R"({"dht": false, "lsd": false, "upnp": false})";
    PrivateBus bus;
    ASSERT_FALSE(bus.address().isEmpty());
    QDBusConnection panel = bus.connect();
    TrayWatcher watcher;
    ASSERT_TRUE(panel.registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher, QDBusConnection::ExportAllContents));
    ASSERT_TRUE(panel.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")));

    QProcessEnvironment env = bus.environment();
    env.insert(QStringLiteral("VELIX_HOME"), home.qpath());
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.qpath());
    env.insert(QStringLiteral("VELIX_SILENT"), QStringLiteral("1"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));

    // In background mode there is no icon.
    const int quietPort = freeTcpPort();
    QProcessEnvironment quietEnv = env;
    quietEnv.insert(QStringLiteral("VELIX_BACKGROUND"), QStringLiteral("1"));
    quietEnv.insert(QStringLiteral("VELIX_CONTROL_PORT"), QString::number(quietPort));
    QProcess quiet;
    quiet.setProcessEnvironment(quietEnv);
    quiet.start(QStringLiteral(VELIX_BINARY), {});
    ASSERT_TRUE(waitFor([&] { return get(quietPort, QStringLiteral("/state")).contains(QStringLiteral("torrents")); },
                        std::chrono::seconds(60)));
    EXPECT_TRUE(visibleIds(quietPort).isEmpty());
    get(quietPort, QStringLiteral("/quit"));
    ASSERT_TRUE(quiet.waitForFinished(60000));
    EXPECT_TRUE(watcher.items.isEmpty());

    env.remove(QStringLiteral("VELIX_BACKGROUND"));
    QProcess velix;
    velix.setProcessEnvironment(env);
    velix.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    velix.start(QStringLiteral(VELIX_BINARY), {});
    ASSERT_TRUE(velix.waitForStarted());
    ASSERT_TRUE(waitFor([&] { return !watcher.senders.isEmpty(); }, std::chrono::seconds(60)));

    // Its menu, as the panel reads it.
    const QString item = watcher.senders.first();
    QDBusMessage getMenu = QDBusMessage::createMethodCall(item, QStringLiteral("/StatusNotifierItem"),
                                                          QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    getMenu << QStringLiteral("org.kde.StatusNotifierItem") << QStringLiteral("Menu");
    const QDBusMessage menuReply = panel.call(getMenu, QDBus::BlockWithGui);
    ASSERT_EQ(menuReply.type(), QDBusMessage::ReplyMessage) << menuReply.errorMessage().toStdString();
    const QString menuPath = menuReply.arguments().value(0).value<QDBusVariant>().variant().value<QDBusObjectPath>().path();
    ASSERT_FALSE(menuPath.isEmpty());
    QDBusMessage getLayout = QDBusMessage::createMethodCall(item, menuPath, QStringLiteral("com.canonical.dbusmenu"),
                                                            QStringLiteral("GetLayout"));
    getLayout << 0 << -1 << QStringList();
    const QDBusMessage layout = panel.call(getLayout, QDBus::BlockWithGui);
    ASSERT_EQ(layout.type(), QDBusMessage::ReplyMessage) << layout.errorMessage().toStdString();
    const QList<MenuRow> rows = menuRows(layout.arguments().value(1).value<QDBusArgument>());
    QStringList labels;
    for (const MenuRow &row : rows)
        labels << row.label;
    ASSERT_EQ(labels, (QStringList{QStringLiteral("Показать Velix"), QStringLiteral("Завершить Velix")}));

    // "Завершить Velix" runs the ordered stop: the program saves and ends.
    QDBusMessage click = QDBusMessage::createMethodCall(item, menuPath, QStringLiteral("com.canonical.dbusmenu"),
                                                        QStringLiteral("Event"));
    click << rows.at(1).id << QStringLiteral("clicked") << QVariant::fromValue(QDBusVariant(0)) << uint(0);
    panel.call(click, QDBus::BlockWithGui);
    ASSERT_TRUE(waitFor([&] { return velix.state() == QProcess::NotRunning; }, std::chrono::seconds(60)));
    EXPECT_EQ(velix.exitCode(), 0);
    EXPECT_TRUE(QFile::exists(home.qpath() + QStringLiteral("/torrents.json")));
}

#include "ProgramOnDisplayTest.moc"
