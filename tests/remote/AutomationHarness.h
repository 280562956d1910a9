#pragma once

// Shared pieces of the automation tests: the staged tools.json, a task runner for the main
// thread, a line client over a real socket and an engine on a scratch directory.

#include "engine/TorrentEngine.h"
#include "remote/AutomationCatalog.h"
#include "remote/AutomationError.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>

#include <QCoroTask>

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace automationtest {

// The build tree's mirror of the installed layout, beside the test executable's directory.
inline QString stagedPath(const QString &relative)
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../stage/") + relative);
}

inline void useShippedTools()
{
    const QString path = stagedPath(QStringLiteral("share/velix/tools.json"));
    if (AutomationCatalog::toolsFile() != path)
        AutomationCatalog::useToolsFile(path);
}

// Runs a task on the main thread's event loop until it has finished.
template <typename T>
T finish(QCoro::Task<T> task)
{
    std::optional<T> result;
    QObject context;
    QCoro::connect(std::move(task), &context, [&result](T value) { result = std::move(value); });
    EXPECT_TRUE(testsupport::waitFor([&result] { return result.has_value(); }));
    return result.value_or(T{});
}

inline QString errorOf(const AutomationOutcome &outcome)
{
    const auto *error = std::get_if<AutomationError>(&outcome);
    return error ? error->message : QString();
}

inline QJsonObject resultOf(const AutomationOutcome &outcome)
{
    const auto *value = std::get_if<QJsonValue>(&outcome);
    return value ? value->toObject() : QJsonObject();
}

// One connection that sends bytes and keeps everything the server sends until it closes.
class LineClient
{
public:
    explicit LineClient(quint16 port)
    {
        QObject::connect(&m_socket, &QTcpSocket::readyRead, [this] { m_received += m_socket.readAll(); });
        QObject::connect(&m_socket, &QTcpSocket::errorOccurred, [this] { m_failed = true; });
        m_socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    }
    // False as soon as the connection is refused.
    bool connected()
    {
        testsupport::waitFor([this] { return m_failed || isOpen(); });
        return isOpen();
    }
    void send(const QByteArray &bytes) { m_socket.write(bytes); }
    bool waitClosed(std::chrono::milliseconds deadline = std::chrono::seconds(60))
    {
        return testsupport::waitFor([this] { return m_socket.state() == QAbstractSocket::UnconnectedState; }, deadline);
    }
    bool isOpen() const { return m_socket.state() == QAbstractSocket::ConnectedState; }
    const QByteArray &received() const { return m_received; }
    void close() { m_socket.abort(); }

private:
    QTcpSocket m_socket;
    QByteArray m_received;
    bool m_failed = false;
};

inline QByteArray exchange(quint16 port, const QByteArray &bytes)
{
    LineClient client(port);
    if (!client.connected())
        return {};
    client.send(bytes);
    client.waitClosed();
    return client.received();
}

inline QJsonObject readJsonFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object() : QJsonObject();
}

// A tool call the way a client makes it, with the port and token of the published endpoint.
inline QJsonObject callTool(const QString &automationDirectory, const QString &name, const QJsonObject &arguments = {})
{
    const QJsonObject endpoint = readJsonFile(automationDirectory + QStringLiteral("/endpoint.json"));
    const QJsonObject request{{"token", endpoint.value(QLatin1String("token"))}, {"name", name}, {"arguments", arguments}};
    const QByteArray answer = exchange(static_cast<quint16>(endpoint.value(QLatin1String("port")).toInt()),
                                       QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    return QJsonDocument::fromJson(answer).object();
}

inline std::unique_ptr<TorrentEngine> makeEngine(const QString &home)
{
    return std::make_unique<TorrentEngine>(
        home, nullptr, QString::fromStdString(testsupport::quietSettingsText(testsupport::freeTcpPort())));
}

} // namespace automationtest
