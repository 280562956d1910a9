#include "support/LocalHttpServer.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

namespace testsupport {

namespace {

QByteArray reason(int status)
{
    switch (status) {
    case 200: return "OK";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    default: return "Status";
    }
}

} // namespace

LocalHttpServer::LocalHttpServer(QObject *parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    m_server->listen(QHostAddress::LocalHost, 0);
    connect(m_server, &QTcpServer::newConnection, this, &LocalHttpServer::accept);
}

LocalHttpServer::~LocalHttpServer() = default;

void LocalHttpServer::route(const QString &path, const Response &response)
{
    m_routes.insert(path, response);
}

void LocalHttpServer::serve(const QString &path, const QByteArray &body, int status)
{
    route(path, Response{status, body, {}, false});
}

void LocalHttpServer::redirect(const QString &path, const QString &target, int status)
{
    route(path, Response{status, QByteArray(), {{"Location", url(target).toEncoded()}}, false});
}

QUrl LocalHttpServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:") + QString::number(port()) + path);
}

quint16 LocalHttpServer::port() const
{
    return m_server->serverPort();
}

void LocalHttpServer::accept()
{
    while (QTcpSocket *socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        m_pending.insert(socket, QByteArray());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_pending.remove(socket);
            socket->deleteLater();
        });
    }
}

void LocalHttpServer::read(QTcpSocket *socket)
{
    auto pending = m_pending.find(socket);
    if (pending == m_pending.end())
        return;
    pending->append(socket->readAll());
    // Only GETs without a body come here, so the request ends with its header block.
    if (!pending->contains("\r\n\r\n"))
        return;
    const QList<QByteArray> requestLine = pending->left(pending->indexOf("\r\n")).split(' ');
    m_pending.erase(pending);
    const QString path = requestLine.size() >= 2 ? QString::fromLatin1(requestLine.at(1)) : QString();
    m_requests << path;

    const auto found = m_routes.constFind(path);
    const Response response = found != m_routes.constEnd() ? *found : Response{404, "not found", {}, false};
    if (response.hang)
        return;
    QByteArray out = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reason(response.status) + "\r\n";
    out += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n";
    for (const auto &[name, value] : response.headers)
        out += name + ": " + value + "\r\n";
    out += "\r\n" + response.body;
    socket->write(out);
    socket->disconnectFromHost();
}

} // namespace testsupport
