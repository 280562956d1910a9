#include "McpSession.h"

#include <QJsonDocument>
#include <QJsonParseError>

namespace {

// JSON-RPC's own error codes.
constexpr int ParseError = -32700;
constexpr int InvalidRequest = -32600;
constexpr int MethodNotFound = -32601;
constexpr int InvalidParams = -32602;

QByteArray line(const QJsonObject &message)
{
    return QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n';
}

QJsonObject errorObject(int code, const QString &message)
{
    return QJsonObject{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}};
}

QByteArray errorLine(const QJsonValue &id, int code, const QString &message)
{
    return line(QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                            {QStringLiteral("id"), id.isUndefined() ? QJsonValue() : id},
                            {QStringLiteral("error"), errorObject(code, message)}});
}

QByteArray resultLine(const QJsonValue &id, const QJsonObject &result)
{
    return line(QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                            {QStringLiteral("id"), id},
                            {QStringLiteral("result"), result}});
}

QJsonObject toolResult(const QString &text, bool isError)
{
    return QJsonObject{
        {QStringLiteral("content"), QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                           {QStringLiteral("text"), text}}}},
        {QStringLiteral("isError"), isError}};
}

} // namespace

McpSession::McpSession(QJsonArray tools, Forward forward)
    : m_tools(std::move(tools))
    , m_forward(std::move(forward))
{
}

const QStringList &McpSession::protocolVersions()
{
    static const QStringList versions{QStringLiteral("2025-11-25"), QStringLiteral("2025-06-18"),
                                      QStringLiteral("2025-03-26"), QStringLiteral("2024-11-05")};
    return versions;
}

std::optional<QByteArray> McpSession::handle(const QByteArray &text)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return errorLine(QJsonValue(), ParseError, QStringLiteral("Parse error"));
    if (!document.isObject())
        return errorLine(QJsonValue(), InvalidRequest, QStringLiteral("Expected one JSON-RPC message object"));

    const QJsonObject message = document.object();
    const QJsonValue id = message.value(QLatin1String("id"));
    const QJsonValue method = message.value(QLatin1String("method"));
    const bool isRequest = id.isString() || id.isDouble();
    if (!method.isString()) {
        // A reply to a request of ours: this server sends none, so there is nothing to match.
        if (message.contains(QLatin1String("result")) || message.contains(QLatin1String("error")))
            return std::nullopt;
        return errorLine(isRequest ? id : QJsonValue(), InvalidRequest, QStringLiteral("Missing method"));
    }
    if (!isRequest) {
        // Notifications (initialized, cancelled, ...) need no answer, and this server keeps
        // no state that they change; an id of another type is no request either.
        if (!id.isUndefined() && !id.isNull())
            return errorLine(QJsonValue(), InvalidRequest, QStringLiteral("The id must be a string or a number"));
        return std::nullopt;
    }

    const QString name = method.toString();
    const QJsonValue paramsValue = message.value(QLatin1String("params"));
    if (!paramsValue.isUndefined() && !paramsValue.isObject())
        return errorLine(id, InvalidParams, QStringLiteral("The params must be an object"));
    const QJsonObject params = paramsValue.toObject();

    if (name == QLatin1String("initialize"))
        return resultLine(id, initialize(params));
    if (name == QLatin1String("ping"))
        return resultLine(id, QJsonObject());
    if (name == QLatin1String("tools/list"))
        return resultLine(id, listTools());
    if (name == QLatin1String("tools/call")) {
        const auto outcome = callTool(params);
        if (outcome.index() == 0)
            return resultLine(id, std::get<0>(outcome));
        return line(QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                                {QStringLiteral("id"), id},
                                {QStringLiteral("error"), std::get<1>(outcome)}});
    }
    return errorLine(id, MethodNotFound, QStringLiteral("Method not found: ") + name);
}

QJsonObject McpSession::initialize(const QJsonObject &params) const
{
    // The client's version when this server speaks it, else the newest of ours: the client
    // then decides whether it can go on.
    const QString asked = params.value(QLatin1String("protocolVersion")).toString();
    const QString version = protocolVersions().contains(asked) ? asked : protocolVersions().first();
    return QJsonObject{
        {QStringLiteral("protocolVersion"), version},
        {QStringLiteral("capabilities"),
         QJsonObject{{QStringLiteral("tools"), QJsonObject{{QStringLiteral("listChanged"), false}}}}},
        {QStringLiteral("serverInfo"),
         QJsonObject{{QStringLiteral("name"), QStringLiteral("velix")},
                     {QStringLiteral("title"), QStringLiteral("Velix")},
                     {QStringLiteral("version"), QStringLiteral(VELIX_VERSION)}}},
        {QStringLiteral("instructions"),
         QStringLiteral("Velix is a BitTorrent client with a built-in player that plays files while they download. "
                        "Read get_state first: it lists every torrent with its id. Torrents are named by id in "
                        "every other tool. One command runs at a time; when a call fails because another is in "
                        "progress, read the state again and retry.")},
    };
}

QJsonObject McpSession::listTools() const
{
    QJsonArray tools;
    for (const QJsonValue &entry : m_tools) {
        const QJsonObject tool = entry.toObject();
        QJsonObject listed;
        for (const char *key : {"name", "title", "description", "inputSchema", "annotations"}) {
            const QJsonValue v = tool.value(QLatin1String(key));
            if (!v.isUndefined())
                listed.insert(QLatin1String(key), v);
        }
        tools.append(listed);
    }
    return QJsonObject{{QStringLiteral("tools"), tools}};
}

bool McpSession::knowsTool(const QString &name) const
{
    for (const QJsonValue &entry : m_tools) {
        if (entry.toObject().value(QLatin1String("name")).toString() == name)
            return true;
    }
    return false;
}

std::variant<QJsonObject, QJsonObject> McpSession::callTool(const QJsonObject &params) const
{
    using Outcome = std::variant<QJsonObject, QJsonObject>;
    const QJsonValue name = params.value(QLatin1String("name"));
    const QJsonValue arguments = params.value(QLatin1String("arguments"));
    if (!name.isString())
        return Outcome(std::in_place_index<1>, errorObject(InvalidParams, QStringLiteral("The tool name must be a string")));
    if (!knowsTool(name.toString()))
        return Outcome(std::in_place_index<1>, errorObject(InvalidParams, QStringLiteral("Unknown tool: ") + name.toString()));
    if (!arguments.isUndefined() && !arguments.isNull() && !arguments.isObject())
        return Outcome(std::in_place_index<1>, errorObject(InvalidParams, QStringLiteral("The arguments must be an object")));

    const auto answer = m_forward(name.toString(), arguments.toObject());
    if (const auto *unreachable = std::get_if<QString>(&answer))
        return Outcome(std::in_place_index<0>, toolResult(*unreachable, true));
    const QJsonObject &reply = std::get<QJsonObject>(answer);
    if (!reply.value(QLatin1String("ok")).toBool())
        return Outcome(std::in_place_index<0>, toolResult(reply.value(QLatin1String("error")).toString(), true));

    const QJsonValue result = reply.value(QLatin1String("result"));
    QJsonDocument document;
    if (result.isObject())
        document.setObject(result.toObject());
    else if (result.isArray())
        document.setArray(result.toArray());
    const QString text = document.isNull() ? QString() : QString::fromUtf8(document.toJson(QJsonDocument::Compact));
    QJsonObject outcome = toolResult(text, false);
    // Every tool answers with an object; the same object in structured form saves the agent
    // from parsing the text.
    if (result.isObject())
        outcome.insert(QStringLiteral("structuredContent"), result);
    return Outcome(std::in_place_index<0>, outcome);
}
