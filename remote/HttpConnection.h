#pragma once

#include "remote/HttpRequest.h"

#include <QByteArray>
#include <QObject>

#include <functional>

class QSocketNotifier;
class QTimer;

// One connection of the control server, from its accept to its close, on the main thread.
//
// It gathers the request head over as many segments as the client sends, within MaxHeadBytes
// and the idle limit, and hands over a parsed head once its blank line has come. A head that
// ends before its blank line, grows too big or isn't UTF-8 gets {"error":"bad request"} from
// here. The socket is driven by hand rather than through QTcpSocket, because Qt closes a socket
// whose peer has half-closed, and a client that ends its request with a half-close (as
// `nc -N` and many scripts do) must still get its answer.
//
// The object deletes itself once the connection has closed or been taken over.
class HttpConnection : public QObject
{
    Q_OBJECT

public:
    using RequestHandler = std::function<void(HttpConnection *, const HttpRequest &)>;

    // Takes over a connected socket descriptor and starts reading at once.
    HttpConnection(int descriptor, RequestHandler onRequest, QObject *parent = nullptr);
    ~HttpConnection() override;

    HttpConnection(const HttpConnection &) = delete;
    HttpConnection &operator=(const HttpConnection &) = delete;

    // Sends one answer with a JSON body and closes the connection after it; `status` is the
    // status line's code and phrase, "200 OK".
    void answer(const QByteArray &status, const QByteArray &json);
    // Hands the socket, blocking again, to whoever serves the rest; -1 if it is gone already.
    int takeDescriptor();

    // What a connection that sent nothing waits, and what one waits for the rest of its head
    // after each segment.
    static constexpr int IdleMs = 30000;

private:
    void readHead();
    void writeOut();
    void lingerThenClose();
    void drain();
    void stopWatching();
    void close();

    int m_descriptor;
    RequestHandler m_onRequest;
    QSocketNotifier *m_reads = nullptr;
    QSocketNotifier *m_writes = nullptr;
    QTimer *m_timer = nullptr;
    QByteArray m_head;
    QByteArray m_out;
    bool m_headDone = false;
};
