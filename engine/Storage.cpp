#include "engine/Storage.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QStandardPaths>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

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

namespace {

SaveError errorOf(int code)
{
    return SaveError{code, QString::fromLocal8Bit(std::strerror(code))};
}

// The bytes go to a temporary file that is flushed to disk before it is renamed over the old
// one: without the flush, a crash soon after the rename could leave an empty file in place.
std::optional<SaveError> replaceWhole(const QString &filePath, const QByteArray &bytes)
{
    const QByteArray target = QFile::encodeName(filePath);
    const QByteArray temporary = target + ".tmp";
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return errorOf(errno);
    int failure = 0;
    qsizetype written = 0;
    while (!failure && written < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + written, static_cast<size_t>(bytes.size() - written));
        if (n < 0 && errno != EINTR)
            failure = errno;
        else if (n > 0)
            written += n;
    }
    if (!failure && ::fsync(fd) != 0)
        failure = errno;
    if (::close(fd) != 0 && !failure)
        failure = errno;
    if (!failure && std::rename(temporary.constData(), target.constData()) != 0)
        failure = errno;
    if (failure) {
        ::unlink(temporary.constData());
        return errorOf(failure);
    }
    return std::nullopt;
}

} // namespace

std::optional<SaveError> save(const QJsonValue &value, const QString &filePath)
{
    QJsonDocument document;
    if (value.isObject())
        document.setObject(value.toObject());
    else if (value.isArray())
        document.setArray(value.toArray());
    else
        return SaveError{EINVAL, QStringLiteral("not a JSON object or array")};

    QDir().mkpath(QFileInfo(filePath).absolutePath());
    // QJsonObject keeps its keys sorted, so the text comes out with sorted keys by itself.
    return replaceWhole(filePath, document.toJson(QJsonDocument::Indented));
}

std::optional<SaveError> save(const QJsonObject &object, const QString &filePath)
{
    return save(QJsonValue(object), filePath);
}

std::optional<QJsonObject> load(const QString &filePath)
{
    return read(filePath).object;
}

ReadFile read(const QString &filePath)
{
    QFile file(filePath);
    if (!file.exists())
        return {};
    if (!file.open(QIODevice::ReadOnly))
        return ReadFile{std::nullopt, true};
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return ReadFile{std::nullopt, true};
    // An empty file holds nothing the user could lose.
    if (bytes.trimmed().isEmpty())
        return {};
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return ReadFile{std::nullopt, true};
    return ReadFile{document.object(), false};
}

QString setAside(const QString &filePath)
{
    const QString stamp = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    const QString base = filePath + QStringLiteral(".unreadable-") + stamp;
    QString target = base;
    // Two bad files in one second (a test, or a start that fails twice) keep both copies.
    for (int n = 2; QFileInfo::exists(target); ++n)
        target = base + QLatin1Char('-') + QString::number(n);
    if (std::rename(QFile::encodeName(filePath).constData(), QFile::encodeName(target).constData()) != 0) {
        std::fprintf(stderr, "velix: could not set aside %s: %s\n", qPrintable(filePath), std::strerror(errno));
        return QString();
    }
    std::fprintf(stderr, "velix: %s could not be read and was kept as %s\n", qPrintable(filePath), qPrintable(target));
    return target;
}

QString setAsideNotice(const QString &filePath)
{
    return QStringLiteral("Не удалось прочитать ") + QFileInfo(filePath).fileName() + QStringLiteral(": сохранена копия");
}

QString saveFailureNotice(const QString &filePath, const SaveError &error)
{
    QString reason;
    switch (error.code) {
    case ENOSPC: reason = QStringLiteral("нет места на диске"); break;
    case EDQUOT: reason = QStringLiteral("превышена дисковая квота"); break;
    case EROFS: reason = QStringLiteral("диск доступен только для чтения"); break;
    case EACCES:
    case EPERM: reason = QStringLiteral("нет прав на запись"); break;
    case EIO: reason = QStringLiteral("ошибка ввода-вывода"); break;
    default: reason = QStringLiteral("ошибка записи"); break;
    }
    return QStringLiteral("Не удалось сохранить ") + QFileInfo(filePath).fileName() + QStringLiteral(": ") + reason;
}

} // namespace Storage
