#include "remote/AutomationAPI.h"

#include "remote/AutomationCatalog.h"

#include <QStringList>

// The checks on an agent's arguments that need neither the engine nor the player, apart from
// the rest of the class, so that they build and run alone: the fuzz targets take them with
// the schema checks and nothing else of the program.

std::variant<QString, AutomationError> AutomationAPI::absolutePath(const QString &path)
{
    if (!path.startsWith(QLatin1Char('/')) || AutomationCatalog::hasControlCharacter(path))
        return AutomationError{QStringLiteral("Use an absolute local path without control characters.")};
    // Resolved by hand: QDir::cleanPath keeps a ".." that climbs above the root ("/.."),
    // and such a path must mean the root itself, not a directory named "..".
    QStringList parts;
    for (const QString &part : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (part == QLatin1String("..")) {
            if (!parts.isEmpty())
                parts.removeLast();
        } else if (part != QLatin1String("."))
            parts << part;
    }
    return QLatin1Char('/') + parts.join(QLatin1Char('/'));
}

std::optional<AutomationError> AutomationAPI::checkPlayerParameters(const QJsonObject &arguments)
{
    const QString action = arguments.value(QLatin1String("action")).toString();
    QString parameter;
    if (action == QLatin1String("seek"))
        parameter = QStringLiteral("seconds");
    else if (action == QLatin1String("volume") || action == QLatin1String("speed"))
        parameter = QStringLiteral("value");
    else if (action == QLatin1String("audio") || action == QLatin1String("subtitle"))
        parameter = QStringLiteral("option");
    QStringList expected{QStringLiteral("action")};
    if (!parameter.isEmpty())
        expected << parameter;
    QStringList keys = arguments.keys();
    expected.sort();
    keys.sort();
    if (keys != expected)
        return AutomationError{QStringLiteral("Provide only the parameter required by this player action.")};
    return std::nullopt;
}
