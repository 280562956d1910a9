#pragma once

#include "engine/TorrentStream.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>
#include <mutex>
#include <optional>
#include <thread>

class QSocketNotifier;

// The Content-Type of a file by its extension; "application/octet-stream" when unknown.
QString streamContentType(const QString &path);

// What one stream answer is about, worked out on the main thread before the hand-off.
struct StreamRequest
{
    TorrentStreamOpener opener;
    qint64 size = 0; // as the files report gives it; the reader's own size wins once open
    QString contentType;
    bool headOnly = false; // HEAD: the head of the answer and no body, and no reader at all
    std::optional<QByteArray> range;
};

// Serves one file of a torrent over one connection, on a thread of its own: the stream reader
// blocks until pieces arrive, for minutes when the swarm is slow, and the main thread must never
// wait on it. The body goes straight from the reader's copy into the socket in piece-sized
// writes, with no copy of its own in between.
//
// The main thread owns the object. It watches the connection, and when the client goes away,
// which players do at every seek, it cancels the reader at once, so the piece deadlines of the
// abandoned position are not kept waiting.
class StreamResponder : public QObject
{
    Q_OBJECT

public:
    // Takes over `socket`, a connected socket descriptor that nothing else uses any more.
    StreamResponder(int socket, StreamRequest request, QObject *parent = nullptr);
    // Cancels, waits for the thread (which returns soon once cancelled) and closes the socket.
    ~StreamResponder() override;

    StreamResponder(const StreamResponder &) = delete;
    StreamResponder &operator=(const StreamResponder &) = delete;

    void start();
    // From any thread. A blocked read or write returns soon and the answer ends where it stands.
    void cancel();

signals:
    // On the main thread, once the thread is done; the owner deletes the responder then.
    void finished(StreamResponder *responder);

private:
    void run();
    void answer(int status, const QByteArray &extraHeaders, const QByteArray &body);
    bool sendAll(const char *data, qint64 length);
    void watchClient();

    const int m_socket;
    const StreamRequest m_request;
    QSocketNotifier *m_clientWatch = nullptr;
    std::thread m_thread;
    std::mutex m_mutex; // over the two below
    TorrentStream *m_reader = nullptr;
    bool m_cancelled = false;
};
