#include "app/SingleInstance.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QFile>

#include <unistd.h>

namespace {

constexpr int ConnectTimeoutMs = 1000;
constexpr qint64 MaxRequestBytes = 1 << 20;

QString runtimeDirectory()
{
    QString dir = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (dir.isEmpty()) {
        // Without a session manager (a script, a server) a private folder of our own under the
        // temp dir stands in, readable by this user only.
        dir = QDir::tempPath() + QStringLiteral("/velix-runtime-") + QString::number(::getuid());
        QDir().mkpath(dir);
        QFile::setPermissions(dir, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }
    return dir;
}

} // namespace

QList<QUrl> urlsFromArguments(const QStringList &arguments)
{
    QList<QUrl> urls;
    for (const QString &argument : arguments) {
        if (argument.isEmpty() || argument.startsWith(QLatin1String("--")))
            continue;
        if (argument.startsWith(QLatin1String("magnet:"), Qt::CaseInsensitive)) {
            urls << QUrl(argument);
            continue;
        }
        const QUrl url(argument);
        if (url.isValid() && url.scheme() == QLatin1String("file"))
            urls << url;
        else
            urls << QUrl::fromLocalFile(QFileInfo(argument).absoluteFilePath());
    }
    return urls;
}

SingleInstance::SingleInstance(const QString &home, QObject *parent)
    : QObject(parent)
{
    const QByteArray key = QCryptographicHash::hash(QFileInfo(home).absoluteFilePath().toUtf8(),
                                                    QCryptographicHash::Sha1)
                               .toHex()
                               .left(16);
    m_socketPath = runtimeDirectory() + QStringLiteral("/velix-") + QString::fromLatin1(key) + QStringLiteral(".socket");
}

SingleInstance::~SingleInstance()
{
    if (m_server)
        m_server->close();
}

bool SingleInstance::forwardToRunning(const QList<QUrl> &urls)
{
    QJsonArray list;
    for (const QUrl &url : urls)
        list << url.toString();
    const QByteArray request = QJsonDocument(QJsonObject{{QStringLiteral("open"), list}, {QStringLiteral("show"), true}})
                                   .toJson(QJsonDocument::Compact)
        + '\n';

    auto tryForward = [&] {
        QLocalSocket socket;
        socket.connectToServer(m_socketPath);
        if (!socket.waitForConnected(ConnectTimeoutMs))
            return false;
        socket.write(request);
        socket.waitForBytesWritten(ConnectTimeoutMs);
        // The answer tells that the running instance read the request, not just the kernel.
        const bool answered = socket.waitForReadyRead(ConnectTimeoutMs * 3);
        socket.disconnectFromServer();
        return answered;
    };

    if (tryForward())
        return true;

    // listen() would silently take over the socket of a live instance, so the lock decides who
    // may listen, and a second look is taken while holding it.
    m_lock = std::make_unique<QLockFile>(m_socketPath + QStringLiteral(".lock"));
    m_lock->setStaleLockTime(0);
    while (!m_lock->tryLock(200)) {
        if (tryForward())
            return true;
        m_lock->removeStaleLockFile();
    }
    if (tryForward())
        return true;
    QLocalServer::removeServer(m_socketPath);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(m_socketPath))
        return false;
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readClient(socket); });
        }
    });
    return false;
}

void SingleInstance::readClient(QLocalSocket *socket)
{
    if (socket->bytesAvailable() > MaxRequestBytes) {
        socket->abort();
        return;
    }
    if (!socket->canReadLine())
        return;
    const QJsonDocument doc = QJsonDocument::fromJson(socket->readLine());
    socket->write("ok\n");
    socket->flush();
    if (!doc.isObject())
        return;
    QList<QUrl> urls;
    for (const QJsonValue &v : doc.object().value(QStringLiteral("open")).toArray()) {
        const QUrl url(v.toString());
        if (url.isValid() && (url.scheme() == QLatin1String("magnet") || url.isLocalFile()))
            urls << url;
    }
    if (!urls.isEmpty())
        emit openRequested(urls);
    if (doc.object().value(QStringLiteral("show")).toBool())
        emit showRequested();
}
