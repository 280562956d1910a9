#include "AutomationClient.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QStandardPaths>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace AutomationClient {

namespace {

// The answer line may be as long as the server's largest answer and its newline.
constexpr qsizetype MaxAnswerBytes = 8388608 + 1;

QString systemError(const char *what)
{
    return QStringLiteral("%1: %2").arg(QLatin1String(what), QString::fromLocal8Bit(std::strerror(errno)));
}

class Socket
{
public:
    Socket()
        : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
    }
    ~Socket()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

using Clock = std::chrono::steady_clock;

// Waits for `events` until the deadline; false on time-out or error.
bool waitFor(int fd, short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd p{fd, events, 0};
        const int n = ::poll(&p, 1, static_cast<int>(left.count()));
        if (n > 0)
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
}

} // namespace

QString velixHome()
{
    const QString fromEnvironment = qEnvironmentVariable("VELIX_HOME");
    if (!fromEnvironment.isEmpty())
        return QDir::cleanPath(fromEnvironment);
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)).filePath(QStringLiteral("Velix"));
}

std::variant<Endpoint, QString> readEndpoint(const QString &home)
{
    const QString path = QDir(home).filePath(QStringLiteral("automation/endpoint.json"));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("Velix is not running: no automation endpoint at %1. Start Velix, then call again.").arg(path);
    const QJsonObject o = QJsonDocument::fromJson(file.read(65536)).object();
    const QJsonValue port = o.value(QLatin1String("port"));
    const QJsonValue token = o.value(QLatin1String("token"));
    const int portNumber = port.toInt(-1);
    if (portNumber < 1 || portNumber > 65535 || !token.isString() || o.value(QLatin1String("version")).toInt() != 1)
        return QStringLiteral("The automation endpoint at %1 is not one this velix-mcp understands.").arg(path);
    Endpoint endpoint{static_cast<quint16>(portNumber), token.toString().toUtf8(),
                      o.value(QLatin1String("pid")).toInteger()};
    // A crash leaves the file behind; its process id tells that nobody is listening.
    if (endpoint.pid > 0 && ::kill(static_cast<pid_t>(endpoint.pid), 0) != 0 && errno == ESRCH)
        return QStringLiteral("Velix is not running: its last automation endpoint is stale. Start Velix, then call again.");
    return endpoint;
}

std::variant<QJsonObject, QString> call(const Endpoint &endpoint, const QString &name, const QJsonObject &arguments,
                                        std::chrono::milliseconds timeout)
{
    const Clock::time_point deadline = Clock::now() + timeout;
    Socket socket;
    if (socket.fd() < 0)
        return systemError("Cannot create a socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int connected;
    do {
        connected = ::connect(socket.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    } while (connected != 0 && errno == EINTR);
    if (connected != 0)
        return systemError("Cannot reach Velix's automation server");

    const QJsonObject request{{QStringLiteral("token"), QString::fromUtf8(endpoint.token)},
                              {QStringLiteral("name"), name},
                              {QStringLiteral("arguments"), arguments}};
    const QByteArray line = QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n';
    qsizetype sent = 0;
    while (sent < line.size()) {
        if (!waitFor(socket.fd(), POLLOUT, deadline))
            return QStringLiteral("Velix did not take the request in time.");
        const ssize_t n = ::send(socket.fd(), line.constData() + sent, static_cast<size_t>(line.size() - sent), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return systemError("Sending to Velix failed");
        }
        sent += n;
    }

    // The server answers one line and closes; the write side stays open until then, since
    // the server takes a closed stream for a client that went away.
    QByteArray answer;
    char buffer[65536];
    while (!answer.contains('\n')) {
        if (!waitFor(socket.fd(), POLLIN, deadline))
            return QStringLiteral("Velix did not answer in time.");
        const ssize_t n = ::recv(socket.fd(), buffer, sizeof buffer, 0);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return systemError("Reading Velix's answer failed");
        }
        if (n == 0)
            break;
        answer.append(buffer, n);
        if (answer.size() > MaxAnswerBytes)
            return QStringLiteral("Velix's answer is too large.");
    }
    const qsizetype newline = answer.indexOf('\n');
    if (newline < 0)
        return QStringLiteral("Velix closed the connection without an answer.");
    const QJsonDocument document = QJsonDocument::fromJson(answer.left(newline));
    if (!document.isObject() || !document.object().value(QLatin1String("ok")).isBool())
        return QStringLiteral("Velix's answer could not be read.");
    return document.object();
}

} // namespace AutomationClient
