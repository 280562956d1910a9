// An agent's tool calls, checked as the automation server checks them before anything runs:
// the schema of the tool in Velix's own tools.json, then the player's one-parameter rule, then
// every path made absolute and clean. An input is a JSON object shaped like a tools/call's
// params ({"name": ..., "arguments": {...}}); with an "inputSchema" beside them the arguments
// are checked against that schema too, which must hold up whatever it says.

#include "FuzzSupport.h"

#include "remote/AutomationAPI.h"
#include "remote/AutomationCatalog.h"

#include <QFile>
#include <QJsonArray>

namespace {

QJsonArray tools;

bool isClean(const QString &path)
{
    if (!path.startsWith(QLatin1Char('/')))
        return false;
    if (path == QLatin1String("/"))
        return true;
    const QStringList parts = path.mid(1).split(QLatin1Char('/'));
    return std::none_of(parts.begin(), parts.end(), [](const QString &part) {
        return part.isEmpty() || part == QLatin1String(".") || part == QLatin1String("..");
    });
}

void checkPaths(const QJsonValue &value)
{
    if (value.isString()) {
        const auto path = AutomationAPI::absolutePath(value.toString());
        if (const auto *clean = std::get_if<QString>(&path)) {
            Fuzz::require(isClean(*clean), "a path is absolute without empty, . or .. parts");
            Fuzz::require(!AutomationCatalog::hasControlCharacter(*clean), "a path holds no control character");
            const auto again = AutomationAPI::absolutePath(*clean);
            Fuzz::require(std::get_if<QString>(&again) && std::get<QString>(again) == *clean, "a clean path stays as it is");
        }
    } else if (value.isArray()) {
        for (const QJsonValue &item : value.toArray())
            checkPaths(item);
    } else if (value.isObject()) {
        for (const QJsonValue &item : value.toObject())
            checkPaths(item);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QFile file(QStringLiteral(VELIX_SOURCE_DIR "/resources/tools.json"));
    if (file.open(QIODevice::ReadOnly))
        tools = AutomationCatalog::parseTools(file.readAll());
    Fuzz::require(!tools.isEmpty(), "tools.json is read");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QJsonDocument document = QJsonDocument::fromJson(Fuzz::bytes(data, size));
    if (!document.isObject())
        return 0;
    const QJsonObject call = document.object();
    const QString name = call.value(QLatin1String("name")).toString();
    const QJsonObject arguments = call.value(QLatin1String("arguments")).toObject();

    const std::optional<AutomationError> error = AutomationCatalog::validate(tools, name, arguments);
    Fuzz::require(!error || !error->message.isEmpty(), "a refusal says what was refused");
    if (!error && name == QLatin1String("control_player"))
        AutomationAPI::checkPlayerParameters(arguments);
    checkPaths(arguments);

    const QJsonValue schema = call.value(QLatin1String("inputSchema"));
    if (schema.isObject())
        AutomationCatalog::validate(call.value(QLatin1String("arguments")), schema.toObject(), QStringLiteral("arguments"));
    return 0;
}
