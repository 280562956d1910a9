#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QUrl>

class QTcpServer;
class QTcpSocket;

namespace testsupport {

// A tiny HTTP/1.1 server on 127.0.0.1 for lists, feeds and endpoints that the program fetches.
// Each path answers with a fixed response; an unknown path answers 404. Runs on the thread that
// made it (the main thread in tests), one response per connection, then the connection closes.
class LocalHttpServer : public QObject
{
    Q_OBJECT

public:
    struct Response
    {
        int status = 200;
        QByteArray body;
        QList<QPair<QByteArray, QByteArray>> headers;
        // Never answer and keep the connection open: the client's time-out must end it.
        bool hang = false;
    };

    // Listens on a free port of 127.0.0.1 at once.
    explicit LocalHttpServer(QObject *parent = nullptr);
    ~LocalHttpServer() override;

    void route(const QString &path, const Response &response);
    // Shorthands: a 200 with this body; a redirect to another path here.
    void serve(const QString &path, const QByteArray &body, int status = 200);
    void redirect(const QString &path, const QString &target, int status = 302);

    QUrl url(const QString &path) const;
    quint16 port() const;
    // The paths asked for, in the order the requests arrived.
    const QStringList &requests() const { return m_requests; }

private:
    void accept();
    void read(QTcpSocket *socket);

    QTcpServer *m_server = nullptr;
    QHash<QString, Response> m_routes;
    QHash<QTcpSocket *, QByteArray> m_pending;
    QStringList m_requests;
};

} // namespace testsupport
