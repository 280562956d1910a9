#pragma once

#include "remote/AutomationError.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>

#include <QCoroTask>

#include <chrono>
#include <functional>

class QTcpServer;
class QTcpSocket;

// Lets a local agent process drive Velix: one JSON line in, one JSON line out, on a random
// port of 127.0.0.1.
//
// How to reach it is published in "endpoint.json" of the "automation" directory under the data
// directory: the port, a token of 64 hexadecimal digits that changes with every start, this
// process's id and the protocol version. The directory is the user's own (0700) and the file
// can be read by the user alone (0600), so the token is what proves that a client is the user.
// "server.lock" in the same directory is held locked while a server runs: a second Velix on
// the same data directory gets no server and says nothing, and the first one's endpoint stays.
//
// A request is one JSON object ending in a newline: `token`, `name` (the tool) and `arguments`
// (an object). The answer is one JSON object with sorted keys and a newline, `ok` true with
// `result`, or `ok` false with `error`; then the connection closes. Requests are limited to
// 1 MiB and answers to 8 MiB, at most 16 connections are open, and each is closed 15 s after
// it was accepted, so an idle client can't hold a slot.
//
// Main thread only: connections are handled by the event loop of the thread that made the
// server, and tool calls run there. Nothing here blocks.
class AutomationServer : public QObject
{
    Q_OBJECT

public:
    // Runs one tool call; the process-wide server hands it to AutomationAPI.
    using Handler = std::function<QCoro::Task<AutomationOutcome>(QString name, QJsonObject arguments)>;

    static constexpr int MaxConnections = 16;
    static constexpr qsizetype MaxRequestBytes = 1048576;
    static constexpr qsizetype MaxResponseBytes = 8388608;
    static constexpr qint64 ReadChunkBytes = 65536;
    static constexpr std::chrono::milliseconds IdleLimit{15000};
    static constexpr int ProtocolVersion = 1;

    // The server over "automation" in Storage::home() and AutomationAPI::shared(), made at
    // first use; start() and stop() belong to the application's start and stop.
    static AutomationServer *shared();

    // A server over a directory of its own; tests use this with a scratch directory.
    AutomationServer(QString directory, Handler handler, QObject *parent = nullptr);
    ~AutomationServer() override;

    // Sets up the directory, the lock, the token and the listener, and publishes endpoint.json.
    // Does nothing when already listening or when VELIX_MCP_DISABLED is "1". A failure is told
    // on standard error and leaves the program without the server; a lock held by another
    // process leaves it without the server and says nothing.
    void start();
    // Closes the listener and every connection, removes endpoint.json when this server had
    // published it, and releases the lock.
    void stop();

    bool isListening() const;
    quint16 port() const;
    QString directory() const { return m_directory; }
    int connectionCount() const { return static_cast<int>(m_connections.size()); }
    // How long a connection may stay open; tests shorten or lengthen it.
    void setIdleLimit(std::chrono::milliseconds limit) { m_idleLimit = limit; }

    // Whether a presented token is the expected one. Every byte is looked at whatever the
    // first difference, so the time taken tells a guesser nothing; an empty token never passes.
    static bool authorized(QByteArrayView given, QByteArrayView expected);
    // The bytes of an answer: compact JSON with sorted keys and a newline, or the fixed
    // "Response too large" answer when the JSON would exceed MaxResponseBytes.
    static QByteArray responseBytes(const QJsonObject &answer);

signals:
    // endpoint.json is written and clients can connect.
    void listening(quint16 port);

private:
    struct Connection
    {
        QTcpSocket *socket = nullptr;
        QByteArray buffer;
        bool answered = false; // a request (or a refusal) is under way; later bytes are dropped
    };

    void fail(const QString &error);
    bool prepareDirectory();
    bool publishEndpoint();
    QString endpointPath() const;
    void accept();
    void receive(quint64 id);
    void serve(quint64 id, const QByteArray &line);
    void respond(quint64 id, const QJsonObject &answer);
    void drop(quint64 id);

    QString m_directory;
    Handler m_handler;
    QTcpServer *m_listener = nullptr;
    QHash<quint64, Connection> m_connections;
    quint64 m_nextConnection = 0;
    int m_lockFD = -1;
    QByteArray m_token;
    std::chrono::milliseconds m_idleLimit = IdleLimit;
};
