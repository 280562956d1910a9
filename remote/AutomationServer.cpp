#include "remote/AutomationServer.h"

#include "engine/Storage.h"
#include "remote/AutomationAPI.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUuid>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString LockName = QStringLiteral("server.lock");
const QString EndpointName = QStringLiteral("endpoint.json");

QJsonObject failure(const QString &error)
{
    return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), error}};
}

// 32 bytes of the kernel's secure generator as 64 lower-case hexadecimal digits.
std::optional<QByteArray> makeToken()
{
    unsigned char bytes[32];
    size_t filled = 0;
    while (filled < sizeof bytes) {
        const ssize_t n = ::getrandom(bytes + filled, sizeof bytes - filled, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        filled += static_cast<size_t>(n);
    }
    QByteArray token;
    token.reserve(64);
    for (unsigned char b : bytes)
        token += QByteArray::number(b, 16).rightJustified(2, '0');
    return token;
}

bool writeAll(int fd, const QByteArray &data)
{
    qsizetype written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + written, static_cast<size_t>(data.size() - written));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        written += n;
    }
    return true;
}

} // namespace

AutomationServer *AutomationServer::shared()
{
    static AutomationServer *instance = new AutomationServer(
        QDir(Storage::home()).filePath(QStringLiteral("automation")),
        [](QString name, QJsonObject arguments) { return AutomationAPI::shared()->call(std::move(name), std::move(arguments)); });
    return instance;
}

AutomationServer::AutomationServer(QString directory, Handler handler, QObject *parent)
    : QObject(parent)
    , m_directory(std::move(directory))
    , m_handler(std::move(handler))
{
}

AutomationServer::~AutomationServer()
{
    stop();
}

bool AutomationServer::isListening() const
{
    return m_listener && m_listener->isListening();
}

quint16 AutomationServer::port() const
{
    return isListening() ? m_listener->serverPort() : 0;
}

void AutomationServer::start()
{
    if (m_listener)
        return;
    if (qEnvironmentVariable("VELIX_MCP_DISABLED") == QLatin1String("1"))
        return;
    if (!prepareDirectory()) {
        fail(QStringLiteral("Unsafe automation directory"));
        return;
    }

    const QByteArray lockPath = QFile::encodeName(QDir(m_directory).filePath(LockName));
    const int fd = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        fail(QStringLiteral("Cannot open automation lock"));
        return;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd);
        m_lockFD = -1;
        // Another Velix on this data directory serves automation: it is the server, quietly.
        if (error == EWOULDBLOCK)
            return;
        fail(QStringLiteral("Cannot open automation lock"));
        return;
    }
    m_lockFD = fd;

    const auto token = makeToken();
    if (!token) {
        fail(QStringLiteral("Cannot create automation credentials"));
        return;
    }
    m_token = *token;

    m_listener = new QTcpServer(this);
    connect(m_listener, &QTcpServer::newConnection, this, &AutomationServer::accept);
    if (!m_listener->listen(QHostAddress::LocalHost, 0)) {
        fail(m_listener->errorString());
        return;
    }
    if (!publishEndpoint()) {
        fail(QStringLiteral("Cannot publish automation endpoint"));
        return;
    }
    emit listening(m_listener->serverPort());
}

void AutomationServer::stop()
{
    if (m_listener) {
        m_listener->close();
        m_listener->deleteLater();
        m_listener = nullptr;
    }
    const QList<quint64> ids = m_connections.keys();
    for (quint64 id : ids)
        drop(id);
    m_token.clear();
    if (m_lockFD >= 0) {
        // Only the holder of the lock may have written endpoint.json; a refused second
        // instance leaves the first one's file alone.
        QFile::remove(endpointPath());
        ::flock(m_lockFD, LOCK_UN);
        ::close(m_lockFD);
        m_lockFD = -1;
    }
}

void AutomationServer::fail(const QString &error)
{
    std::fprintf(stderr, "Velix automation unavailable: %s\n", error.toLocal8Bit().constData());
    std::fflush(stderr);
    stop();
}

bool AutomationServer::prepareDirectory()
{
    const QByteArray path = QFile::encodeName(m_directory);
    QDir().mkpath(QFileInfo(m_directory).absolutePath());
    if (::mkdir(path.constData(), 0700) != 0 && errno != EEXIST)
        return false;
    // lstat, so that a link put in the directory's place is refused rather than followed.
    struct stat info{};
    if (::lstat(path.constData(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
        return false;
    // Whatever the mode was, only the user may look inside from now on.
    return ::chmod(path.constData(), 0700) == 0;
}

QString AutomationServer::endpointPath() const
{
    return QDir(m_directory).filePath(EndpointName);
}

bool AutomationServer::publishEndpoint()
{
    const QJsonObject endpoint{{QStringLiteral("port"), m_listener->serverPort()},
                               {QStringLiteral("token"), QString::fromLatin1(m_token)},
                               {QStringLiteral("pid"), static_cast<qint64>(::getpid())},
                               {QStringLiteral("version"), ProtocolVersion}};
    const QByteArray data = QJsonDocument(endpoint).toJson(QJsonDocument::Indented);
    // Written whole under a fresh name, then renamed: a reader sees the old file or the new
    // one, never a part.
    const QByteArray temporary =
        QFile::encodeName(QDir(m_directory).filePath(QUuid::createUuid().toString(QUuid::WithoutBraces)));
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool written = writeAll(fd, data);
    const bool closed = ::close(fd) == 0;
    if (written && closed && ::rename(temporary.constData(), QFile::encodeName(endpointPath()).constData()) == 0)
        return true;
    ::unlink(temporary.constData());
    return false;
}

void AutomationServer::accept()
{
    while (m_listener && m_listener->hasPendingConnections()) {
        QTcpSocket *socket = m_listener->nextPendingConnection();
        if (m_connections.size() >= MaxConnections) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        const quint64 id = ++m_nextConnection;
        m_connections.insert(id, Connection{socket, {}, false});
        connect(socket, &QTcpSocket::readyRead, this, [this, id] { receive(id); });
        connect(socket, &QTcpSocket::disconnected, this, [this, id] { drop(id); });
        QTimer::singleShot(m_idleLimit, this, [this, id] { drop(id); });
        if (socket->bytesAvailable() > 0)
            receive(id);
    }
}

void AutomationServer::receive(quint64 id)
{
    auto it = m_connections.find(id);
    if (it == m_connections.end())
        return;
    QTcpSocket *socket = it->socket;
    if (it->answered) {
        // Only the first line is served; what follows is read and dropped so that closing
        // the connection doesn't reset it under the answer.
        socket->readAll();
        return;
    }
    while (socket->bytesAvailable() > 0) {
        it->buffer += socket->read(ReadChunkBytes);
        if (it->buffer.size() > MaxRequestBytes) {
            it->answered = true;
            it->buffer.clear();
            respond(id, failure(QStringLiteral("Request too large")));
            return;
        }
        const qsizetype newline = it->buffer.indexOf('\n');
        if (newline >= 0) {
            it->answered = true;
            const QByteArray line = it->buffer.left(newline);
            it->buffer.clear();
            serve(id, line);
            return;
        }
    }
    if (socket->state() == QAbstractSocket::UnconnectedState)
        drop(id);
}

void AutomationServer::serve(quint64 id, const QByteArray &line)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    const QJsonObject request = document.object();
    const QJsonValue token = request.value(QLatin1String("token"));
    if (parseError.error != QJsonParseError::NoError || !document.isObject() || !token.isString()
        || !authorized(token.toString().toUtf8(), m_token)) {
        respond(id, failure(QStringLiteral("Unauthorized or malformed request")));
        return;
    }
    const QJsonValue name = request.value(QLatin1String("name"));
    const QJsonValue arguments = request.value(QLatin1String("arguments"));
    if (!name.isString() || !arguments.isObject()) {
        respond(id, failure(QStringLiteral("Invalid command")));
        return;
    }
    QCoro::connect(m_handler(name.toString(), arguments.toObject()), this, [this, id](const AutomationOutcome &outcome) {
        if (const auto *error = std::get_if<AutomationError>(&outcome))
            respond(id, failure(error->message));
        else
            respond(id, QJsonObject{{QStringLiteral("ok"), true}, {QStringLiteral("result"), std::get<QJsonValue>(outcome)}});
    });
}

void AutomationServer::respond(quint64 id, const QJsonObject &answer)
{
    const auto it = m_connections.constFind(id);
    if (it == m_connections.constEnd())
        return;
    QTcpSocket *socket = it->socket;
    socket->write(responseBytes(answer));
    // Closes once everything is sent; `disconnected` then takes the connection out of the map.
    socket->disconnectFromHost();
}

void AutomationServer::drop(quint64 id)
{
    const auto it = m_connections.find(id);
    if (it == m_connections.end())
        return;
    QTcpSocket *socket = it->socket;
    m_connections.erase(it);
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
}

bool AutomationServer::authorized(QByteArrayView given, QByteArrayView expected)
{
    if (given.isEmpty() || given.size() != expected.size())
        return false;
    unsigned char difference = 0;
    for (qsizetype i = 0; i < given.size(); ++i)
        difference |= static_cast<unsigned char>(given[i] ^ expected[i]);
    return difference == 0;
}

QByteArray AutomationServer::responseBytes(const QJsonObject &answer)
{
    // QJsonObject keeps its keys in order, so the text comes out with sorted keys.
    QByteArray bytes = QJsonDocument(answer).toJson(QJsonDocument::Compact);
    if (bytes.isEmpty())
        bytes = QByteArrayLiteral(R"({"ok":false,"error":"Response encoding failed"})");
    else if (bytes.size() > MaxResponseBytes)
        bytes = QByteArrayLiteral(R"({"ok":false,"error":"Response too large"})");
    bytes += '\n';
    return bytes;
}
