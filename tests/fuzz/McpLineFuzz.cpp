// Lines from an agent's MCP client, as velix-mcp reads them from standard input. Whatever comes
// in, what goes out is at most one line of one JSON-RPC object, or the client loses its place
// in the stream. The tool's answer is made from the call itself, so that its result, its
// error and its absence are all tried.

#include "FuzzSupport.h"

#include "remote/mcp/McpSession.h"

#include <QFile>

namespace {

McpSession *session = nullptr;

std::variant<QJsonObject, QString> answer(const QString &, const QJsonObject &arguments)
{
    const QJsonValue unreachable = arguments.value(QLatin1String("unreachable"));
    if (unreachable.isString())
        return unreachable.toString();
    return arguments.value(QLatin1String("reply")).toObject();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QFile file(QStringLiteral(VELIX_SOURCE_DIR "/resources/tools.json"));
    Fuzz::require(file.open(QIODevice::ReadOnly), "tools.json is read");
    session = new McpSession(QJsonDocument::fromJson(file.readAll()).array(), answer);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray line = Fuzz::bytes(data, size);
    const std::optional<QByteArray> reply = session->handle(line);
    if (!reply)
        return 0;
    Fuzz::require(reply->endsWith('\n') && reply->count('\n') == 1, "a reply is one line");
    const QJsonDocument document = QJsonDocument::fromJson(*reply);
    Fuzz::require(document.isObject(), "a reply is one JSON object");
    const QJsonObject message = document.object();
    Fuzz::require(message.value(QLatin1String("jsonrpc")) == QLatin1String("2.0"), "a reply is JSON-RPC 2.0");
    Fuzz::require(message.contains(QLatin1String("result")) != message.contains(QLatin1String("error")),
                  "a reply has a result or an error");
    const QJsonValue id = QJsonDocument::fromJson(line).object().value(QLatin1String("id"));
    if (id.isString() || id.isDouble())
        Fuzz::require(message.value(QLatin1String("id")) == id || message.contains(QLatin1String("error")),
                      "a result answers the request's own id");
    return 0;
}
