#pragma once

// A session bus of the test's own (dbus-daemon on a private socket), so nothing a test
// registers reaches the user's desktop and tests don't see each other's names.

#include <QDBusConnection>
#include <QProcess>
#include <QString>

#include <atomic>

class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
        if (!m_daemon.waitForStarted(10000))
            return;
        while (!m_daemon.canReadLine() && m_daemon.waitForReadyRead(10000)) {
        }
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    }
    ~PrivateBus()
    {
        for (const QString &name : m_connections)
            QDBusConnection::disconnectFromBus(name);
        m_daemon.terminate();
        m_daemon.waitForFinished(5000);
    }
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    QString address() const { return m_address; }
    // A new connection of its own to the bus, as a separate program would have.
    QDBusConnection connect()
    {
        static std::atomic<int> counter{0};
        const QString name = QStringLiteral("velix-test-bus-%1").arg(counter++);
        m_connections << name;
        return QDBusConnection::connectToBus(m_address, name);
    }
    // The environment for a program that should talk on this bus.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_address);
        return env;
    }

private:
    QProcess m_daemon;
    QString m_address;
    QStringList m_connections;
};
