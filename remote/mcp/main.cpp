// velix-mcp: lets an agent's MCP client drive the Velix that runs for this user.
//
// The client starts velix-mcp and talks to it on standard input and output. Tool descriptions
// come from the program's tools.json; each tool call goes to the automation server whose
// endpoint the running Velix published in its data directory, with the token found there. The
// endpoint is read again for every call, so a Velix that restarted meanwhile is found anew.
// Messages to a person go to standard error; standard output carries protocol only.

#include "AutomationClient.h"
#include "McpSession.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

namespace {

// Longer than the server keeps a connection open, so its own limit ends a call first.
constexpr std::chrono::seconds CallTimeout{60};

QJsonArray readTools(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "velix-mcp: cannot read %s\n", qPrintable(path));
        return {};
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isArray())
        std::fprintf(stderr, "velix-mcp: %s is not a list of tools\n", qPrintable(path));
    return document.array();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString toolsPath =
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("../share/velix/tools.json"));
    const QString home = AutomationClient::velixHome();

    McpSession session(readTools(toolsPath), [&home](const QString &name, const QJsonObject &arguments)
                           -> std::variant<QJsonObject, QString> {
        const auto endpoint = AutomationClient::readEndpoint(home);
        if (const auto *why = std::get_if<QString>(&endpoint))
            return *why;
        return AutomationClient::call(std::get<AutomationClient::Endpoint>(endpoint), name, arguments, CallTimeout);
    });

    std::string text;
    while (std::getline(std::cin, text)) {
        const QByteArray line = QByteArray::fromStdString(text).trimmed();
        if (line.isEmpty())
            continue;
        if (const auto reply = session.handle(line)) {
            std::fwrite(reply->constData(), 1, static_cast<size_t>(reply->size()), stdout);
            std::fflush(stdout);
        }
    }
    return 0;
}
