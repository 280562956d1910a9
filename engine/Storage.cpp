#include "engine/Storage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSaveFile>
#include <QStandardPaths>

namespace Storage {

QString resolveHome()
{
    const QString fromEnvironment = qEnvironmentVariable("VELIX_HOME");
    if (!fromEnvironment.isEmpty())
        return QDir::cleanPath(fromEnvironment);
    // The generic location plus our own name, rather than AppDataLocation, which would follow
    // whatever organisation and application names the process (or a test binary) happens to set.
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (data.isEmpty())
        qFatal("Velix: no data directory for this user (is HOME set?)");
    return QDir(data).filePath(QStringLiteral("Velix"));
}

QString home()
{
    static const QString cached = resolveHome();
    return cached;
}

QString path(const QString &relative)
{
    return QDir(home()).filePath(relative);
}

void save(const QJsonValue &value, const QString &filePath)
{
    QJsonDocument document;
    if (value.isObject())
        document.setObject(value.toObject());
    else if (value.isArray())
        document.setArray(value.toArray());
    else
        return;

    QDir().mkpath(QFileInfo(filePath).absolutePath());
    // QJsonObject keeps its keys sorted, so the text comes out with sorted keys by itself.
    const QByteArray bytes = document.toJson(QJsonDocument::Indented);
    QSaveFile file(filePath);
    if (!file.open(QIODevice::WriteOnly))
        return;
    if (file.write(bytes) != bytes.size()) {
        file.cancelWriting();
        return;
    }
    file.commit();
}

void save(const QJsonObject &object, const QString &filePath)
{
    save(QJsonValue(object), filePath);
}

std::optional<QJsonObject> load(const QString &filePath)
{
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = file.readAll();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

} // namespace Storage
