#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <functional>
#include <optional>
#include <variant>

// The Model Context Protocol as velix-mcp speaks it: JSON-RPC 2.0, one message a line, with
// initialize, ping, tools/list and tools/call. Tool calls go to `forward`, which reaches the
// running Velix; everything else is answered here.
//
// A tool that fails reports it inside its result (isError), where the agent reads it; protocol
// faults (bad JSON, unknown methods, an unknown tool) are JSON-RPC errors.
class McpSession
{
public:
    // The automation server's answer object for one call, or a text saying why there is none.
    using Forward = std::function<std::variant<QJsonObject, QString>(const QString &name, const QJsonObject &arguments)>;

    // `tools` are the entries of tools.json.
    McpSession(QJsonArray tools, Forward forward);

    // One line from the client; the line to write back, none for a notification.
    std::optional<QByteArray> handle(const QByteArray &line);

    // Protocol versions this server speaks, newest first.
    static const QStringList &protocolVersions();

private:
    QJsonObject initialize(const QJsonObject &params) const;
    QJsonObject listTools() const;
    std::variant<QJsonObject, QJsonObject> callTool(const QJsonObject &params) const;
    bool knowsTool(const QString &name) const;

    QJsonArray m_tools;
    Forward m_forward;
};
