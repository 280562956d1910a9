#include "engine/TorrentMeta.h"

#include <QJsonValue>

#include <climits>
#include <cmath>

namespace {

// A JSON number that is a whole int; fractions and numbers beyond int are wrong types here.
std::optional<int> wholeInt(const QJsonValue &value)
{
    if (!value.isDouble())
        return std::nullopt;
    const double number = value.toDouble();
    if (!std::isfinite(number) || std::trunc(number) != number || number < INT_MIN
        || number > INT_MAX)
        return std::nullopt;
    return static_cast<int>(number);
}

// A map key is a decimal int in text: an optional sign and digits, nothing around them.
std::optional<int> intKey(const QString &key)
{
    qsizetype start = (key.startsWith(QLatin1Char('-')) || key.startsWith(QLatin1Char('+'))) ? 1 : 0;
    if (key.size() == start)
        return std::nullopt;
    for (qsizetype i = start; i < key.size(); ++i) {
        if (key[i] < QLatin1Char('0') || key[i] > QLatin1Char('9'))
            return std::nullopt;
    }
    bool ok = false;
    const int value = key.toInt(&ok);
    if (!ok)
        return std::nullopt;
    return value;
}

// An optional field: missing or null is none (true); a value of the wrong type fails (false).
bool readOptionalString(const QJsonObject &json, const QString &key,
                        std::optional<QString> &field)
{
    const QJsonValue value = json.value(key);
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isString())
        return false;
    field = value.toString();
    return true;
}

bool readOptionalChoice(const QJsonObject &json, const QString &key,
                        std::optional<TrackChoice> &field)
{
    const QJsonValue value = json.value(key);
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isObject())
        return false;
    field = TrackChoice::fromJson(value.toObject());
    return field.has_value();
}

void writeOptional(QJsonObject &json, const QString &key, const std::optional<QString> &value)
{
    if (value)
        json.insert(key, *value);
}

} // namespace

std::optional<TrackChoice> TrackChoice::fromJson(const QJsonObject &json)
{
    TrackChoice choice;
    const QJsonValue off = json.value(QStringLiteral("off"));
    if (!off.isBool())
        return std::nullopt;
    choice.off = off.toBool();
    if (!readOptionalString(json, QStringLiteral("language"), choice.language)
        || !readOptionalString(json, QStringLiteral("title"), choice.title)
        || !readOptionalString(json, QStringLiteral("externalName"), choice.externalName))
        return std::nullopt;
    return choice;
}

QJsonObject TrackChoice::toJson() const
{
    QJsonObject json{{QStringLiteral("off"), off}};
    writeOptional(json, QStringLiteral("language"), language);
    writeOptional(json, QStringLiteral("title"), title);
    writeOptional(json, QStringLiteral("externalName"), externalName);
    return json;
}

std::optional<TorrentMeta> TorrentMeta::fromJson(const QJsonObject &json)
{
    TorrentMeta meta;

    const QJsonValue positions = json.value(QStringLiteral("positions"));
    if (!positions.isObject())
        return std::nullopt;
    const QJsonObject positionsObject = positions.toObject();
    for (auto it = positionsObject.begin(); it != positionsObject.end(); ++it) {
        const std::optional<int> index = intKey(it.key());
        if (!index || !it.value().isDouble())
            return std::nullopt;
        meta.positions.insert(*index, it.value().toDouble());
    }

    const QJsonValue ignore = json.value(QStringLiteral("ignoreSeedLimits"));
    if (!ignore.isBool())
        return std::nullopt;
    meta.ignoreSeedLimits = ignore.toBool();

    if (!readOptionalChoice(json, QStringLiteral("audio"), meta.audio)
        || !readOptionalChoice(json, QStringLiteral("subtitle"), meta.subtitle))
        return std::nullopt;

    const QJsonValue last = json.value(QStringLiteral("lastPlayedFile"));
    if (!last.isUndefined() && !last.isNull()) {
        meta.lastPlayedFile = wholeInt(last);
        if (!meta.lastPlayedFile)
            return std::nullopt;
    }
    return meta;
}

QJsonObject TorrentMeta::toJson() const
{
    QJsonObject positionsObject;
    for (auto it = positions.begin(); it != positions.end(); ++it)
        positionsObject.insert(QString::number(it.key()), it.value());

    QJsonObject json{
        {QStringLiteral("positions"), positionsObject},
        {QStringLiteral("ignoreSeedLimits"), ignoreSeedLimits},
    };
    if (audio)
        json.insert(QStringLiteral("audio"), audio->toJson());
    if (subtitle)
        json.insert(QStringLiteral("subtitle"), subtitle->toJson());
    if (lastPlayedFile)
        json.insert(QStringLiteral("lastPlayedFile"), *lastPlayedFile);
    return json;
}

std::optional<QMap<QString, TorrentMeta>> decodeMetaFile(const QJsonObject &json)
{
    QMap<QString, TorrentMeta> meta;
    for (auto it = json.begin(); it != json.end(); ++it) {
        if (!it.value().isObject())
            return std::nullopt;
        std::optional<TorrentMeta> entry = TorrentMeta::fromJson(it.value().toObject());
        if (!entry)
            return std::nullopt;
        meta.insert(it.key(), *entry);
    }
    return meta;
}

QJsonObject encodeMetaFile(const QMap<QString, TorrentMeta> &meta)
{
    QJsonObject json;
    for (auto it = meta.begin(); it != meta.end(); ++it)
        json.insert(it.key(), it.value().toJson());
    return json;
}
