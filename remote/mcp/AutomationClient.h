#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <chrono>
#include <variant>

// The client side of Velix's automation server, for velix-mcp: where the running program
// published its endpoint, and one call over it. Blocking; velix-mcp serves one request at a time.
namespace AutomationClient {

struct Endpoint
{
    quint16 port = 0;
    QByteArray token;
    qint64 pid = 0;
};

// Velix's data directory: VELIX_HOME when set and not empty, else "Velix" in the user's data
// directory, as the program itself works it out.
QString velixHome();

// The endpoint the running program published under `home`, or why there is none, in words an
// agent can pass on to its user.
std::variant<Endpoint, QString> readEndpoint(const QString &home);

// Sends one tool call and waits for the answer line. The answer object (`ok` with `result` or
// `error`) as the server gave it, or a text saying why there is no answer.
std::variant<QJsonObject, QString> call(const Endpoint &endpoint, const QString &name, const QJsonObject &arguments,
                                        std::chrono::milliseconds timeout);

} // namespace AutomationClient
