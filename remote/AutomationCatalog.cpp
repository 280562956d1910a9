#include "remote/AutomationCatalog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSet>

#include <cmath>
#include <limits>

namespace AutomationCatalog {

namespace {

struct Catalog
{
    QString file;
    std::optional<QJsonArray> tools;
};

Catalog &catalog()
{
    static Catalog instance;
    return instance;
}

AutomationError invalid(const QString &path)
{
    return AutomationError{QStringLiteral("Invalid ") + path};
}

// A keyword that must be a count: absent gives the fallback, anything but a whole number
// from 0 up gives none, which breaks the schema.
std::optional<qint64> countKeyword(const QJsonObject &schema, const char *key, qint64 fallback)
{
    const QJsonValue v = schema.value(QLatin1String(key));
    if (v.isUndefined())
        return fallback;
    if (!v.isDouble())
        return std::nullopt;
    const double d = v.toDouble();
    if (!std::isfinite(d) || d < 0 || std::trunc(d) != d || d > 9.0e15)
        return std::nullopt;
    return static_cast<qint64>(d);
}

std::optional<double> boundKeyword(const QJsonObject &schema, const char *key, double fallback)
{
    const QJsonValue v = schema.value(QLatin1String(key));
    if (v.isUndefined())
        return fallback;
    if (!v.isDouble() || !std::isfinite(v.toDouble()))
        return std::nullopt;
    return v.toDouble();
}

// Numbers compare by value, so that 2 and 2.0 are one member; everything else as JSON.
bool sameJson(const QJsonValue &a, const QJsonValue &b)
{
    if (a.isDouble() && b.isDouble())
        return a.toDouble() == b.toDouble();
    return a == b;
}

// Absent `enum` lets everything through; present, it must be an array that holds the value.
bool passesEnum(const QJsonValue &value, const QJsonObject &schema)
{
    const QJsonValue members = schema.value(QLatin1String("enum"));
    if (members.isUndefined())
        return true;
    if (!members.isArray())
        return false;
    for (const QJsonValue &member : members.toArray()) {
        if (sameJson(value, member))
            return true;
    }
    return false;
}

// The element's text as JSON, for telling array elements apart.
QByteArray textualForm(const QJsonValue &value)
{
    return QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
}

qsizetype codePointCount(const QString &text)
{
    qsizetype count = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate())
            ++i;
        ++count;
    }
    return count;
}

std::optional<AutomationError> validateObject(const QJsonValue &value, const QJsonObject &schema, const QString &path)
{
    if (!value.isObject())
        return invalid(path);
    const QJsonValue propertiesValue = schema.value(QLatin1String("properties"));
    if (!propertiesValue.isObject())
        return invalid(path);
    const QJsonObject properties = propertiesValue.toObject();
    for (auto it = properties.begin(); it != properties.end(); ++it) {
        if (!it.value().isObject())
            return invalid(path);
    }

    QStringList required;
    const QJsonValue requiredValue = schema.value(QLatin1String("required"));
    if (!requiredValue.isUndefined()) {
        if (!requiredValue.isArray())
            return invalid(path);
        for (const QJsonValue &name : requiredValue.toArray()) {
            if (!name.isString())
                return invalid(path);
            required << name.toString();
        }
    }

    const QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (!properties.contains(it.key()))
            return invalid(path);
    }
    for (const QString &name : required) {
        if (!object.contains(name))
            return invalid(path);
    }
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (auto error = validate(it.value(), properties.value(it.key()).toObject(), path + QLatin1Char('.') + it.key()))
            return error;
    }
    return std::nullopt;
}

std::optional<AutomationError> validateString(const QJsonValue &value, const QJsonObject &schema, const QString &path)
{
    if (!value.isString())
        return invalid(path);
    const auto minLength = countKeyword(schema, "minLength", 0);
    const auto maxLength = countKeyword(schema, "maxLength", DefaultMaxLength);
    if (!minLength || !maxLength)
        return invalid(path);
    const QString text = value.toString();
    const qsizetype length = codePointCount(text);
    if (length < *minLength || length > *maxLength || hasControlCharacter(text))
        return invalid(path);
    if (!passesEnum(value, schema))
        return invalid(path);
    return std::nullopt;
}

std::optional<AutomationError> validateNumber(const QJsonValue &value, const QJsonObject &schema, const QString &path,
                                              bool wholeOnly)
{
    // A boolean is its own JSON type here, so `true` never passes for 1.
    if (!value.isDouble())
        return invalid(path);
    const double d = value.toDouble();
    if (!std::isfinite(d))
        return invalid(path);
    const auto minimum = boundKeyword(schema, "minimum", std::numeric_limits<double>::lowest());
    const auto maximum = boundKeyword(schema, "maximum", std::numeric_limits<double>::max());
    if (!minimum || !maximum || d < *minimum || d > *maximum)
        return invalid(path);
    if (wholeOnly) {
        // Whole, and within what a 64-bit integer holds: 2^63 itself is one past the end.
        constexpr double Limit = 9223372036854775808.0;
        if (std::trunc(d) != d || d < -Limit || d >= Limit)
            return invalid(path);
    }
    if (!passesEnum(value, schema))
        return invalid(path);
    return std::nullopt;
}

std::optional<AutomationError> validateArray(const QJsonValue &value, const QJsonObject &schema, const QString &path)
{
    if (!value.isArray())
        return invalid(path);
    const QJsonValue items = schema.value(QLatin1String("items"));
    if (!items.isObject())
        return invalid(path);
    const auto minItems = countKeyword(schema, "minItems", 0);
    const auto maxItems = countKeyword(schema, "maxItems", DefaultMaxItems);
    if (!minItems || !maxItems)
        return invalid(path);
    const QJsonArray array = value.toArray();
    if (array.size() < *minItems || array.size() > *maxItems)
        return invalid(path);
    const QJsonObject itemSchema = items.toObject();
    const QString itemPath = path + QStringLiteral("[]");
    for (const QJsonValue &element : array) {
        if (auto error = validate(element, itemSchema, itemPath))
            return error;
    }
    const QJsonValue unique = schema.value(QLatin1String("uniqueItems"));
    if (!unique.isUndefined() && !unique.isBool())
        return invalid(path);
    if (unique.toBool()) {
        QSet<QByteArray> seen;
        for (const QJsonValue &element : array) {
            const QByteArray text = textualForm(element);
            if (seen.contains(text))
                return invalid(path);
            seen.insert(text);
        }
    }
    return std::nullopt;
}

} // namespace

QString toolsFile()
{
    const Catalog &c = catalog();
    if (!c.file.isEmpty())
        return c.file;
    return QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("../share/velix/tools.json"));
}

void useToolsFile(const QString &path)
{
    Catalog &c = catalog();
    c.file = path;
    c.tools.reset();
}

QJsonArray parseTools(const QByteArray &json)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        return {};
    const QJsonArray array = document.array();
    for (const QJsonValue &entry : array) {
        if (!entry.isObject())
            return {};
    }
    return array;
}

const QJsonArray &tools()
{
    Catalog &c = catalog();
    if (!c.tools) {
        QFile file(toolsFile());
        c.tools = file.open(QIODevice::ReadOnly) ? parseTools(file.readAll()) : QJsonArray();
    }
    return *c.tools;
}

std::optional<AutomationError> validate(const QString &name, const QJsonObject &arguments)
{
    return validate(tools(), name, arguments);
}

std::optional<AutomationError> validate(const QJsonArray &toolList, const QString &name, const QJsonObject &arguments)
{
    for (const QJsonValue &entry : toolList) {
        const QJsonObject tool = entry.toObject();
        const QJsonValue toolName = tool.value(QLatin1String("name"));
        if (!toolName.isString() || toolName.toString() != name)
            continue;
        // The first entry of that name decides: one without a schema doesn't let a later
        // entry of the same name stand in for it.
        const QJsonValue schema = tool.value(QLatin1String("inputSchema"));
        if (!schema.isObject())
            break;
        return validate(arguments, schema.toObject(), QStringLiteral("arguments"));
    }
    return AutomationError{QStringLiteral("Unknown tool: ") + name};
}

std::optional<AutomationError> validate(const QJsonValue &value, const QJsonObject &schema, const QString &path)
{
    const QJsonValue type = schema.value(QLatin1String("type"));
    if (!type.isString())
        return invalid(path);
    const QString kind = type.toString();
    if (kind == QLatin1String("object"))
        return validateObject(value, schema, path);
    if (kind == QLatin1String("string"))
        return validateString(value, schema, path);
    if (kind == QLatin1String("boolean")) {
        if (!value.isBool() || !passesEnum(value, schema))
            return invalid(path);
        return std::nullopt;
    }
    if (kind == QLatin1String("integer"))
        return validateNumber(value, schema, path, true);
    if (kind == QLatin1String("number"))
        return validateNumber(value, schema, path, false);
    if (kind == QLatin1String("array"))
        return validateArray(value, schema, path);
    return invalid(path);
}

bool hasControlCharacter(const QString &text)
{
    for (const QChar c : text) {
        // Control characters all lie in the Basic Multilingual Plane, so UTF-16 units will do.
        if (c.category() == QChar::Other_Control)
            return true;
    }
    return false;
}

} // namespace AutomationCatalog
