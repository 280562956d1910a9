#include "remote/HttpConnection.h"

#include <QSocketNotifier>
#include <QTimer>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// After an answer the connection waits this long for the client to close first, reading and
// dropping what it still sends: closing on unread data would reset the connection and could
// cost the client the answer.
constexpr int LingerMs = 2000;

} // namespace

HttpConnection::HttpConnection(int descriptor, RequestHandler onRequest, QObject *parent)
    : QObject(parent)
    , m_descriptor(descriptor)
    , m_onRequest(std::move(onRequest))
{
    ::fcntl(m_descriptor, F_SETFL, ::fcntl(m_descriptor, F_GETFL) | O_NONBLOCK);
    m_reads = new QSocketNotifier(m_descriptor, QSocketNotifier::Read, this);
    connect(m_reads, &QSocketNotifier::activated, this, &HttpConnection::readHead);
    m_timer = new QTimer(this);
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, [this] {
        // Nothing at all is no request to answer; a head cut short is a bad one.
        if (m_head.isEmpty())
            close();
        else
            answer("200 OK", R"({"error":"bad request"})");
    });
    m_timer->start(IdleMs);
}

HttpConnection::~HttpConnection()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

void HttpConnection::readHead()
{
    if (m_headDone)
        return;
    std::array<char, 16384> chunk{};
    bool ended = false;
    for (;;) {
        const ssize_t n = ::recv(m_descriptor, chunk.data(), chunk.size(), 0);
        if (n > 0) {
            m_head.append(chunk.data(), n);
            // A body past the head isn't read, but must not make the head look too big.
            if (scanHead(m_head).state != HeadScan::State::incomplete)
                break;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        ended = true; // the client's end of the data, or an error
        break;
    }
    const HeadScan scan = scanHead(m_head);
    if (scan.state == HeadScan::State::incomplete && !ended) {
        m_timer->start(IdleMs);
        return;
    }
    m_headDone = true;
    m_timer->stop();
    m_reads->setEnabled(false);
    if (scan.state == HeadScan::State::incomplete && m_head.isEmpty()) {
        close();
        return;
    }
    const auto request = scan.state == HeadScan::State::complete ? parseHttpRequest(m_head.left(scan.length))
                                                                 : std::nullopt;
    if (!request) {
        answer("200 OK", R"({"error":"bad request"})");
        return;
    }
    m_head.clear();
    m_onRequest(this, *request);
}

void HttpConnection::answer(const QByteArray &status, const QByteArray &json)
{
    if (m_descriptor < 0 || m_writes)
        return;
    m_headDone = true;
    m_timer->stop();
    m_reads->setEnabled(false);
    m_out = "HTTP/1.1 " + status + "\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: "
            + QByteArray::number(json.size()) + "\r\nConnection: close\r\n\r\n" + json;
    m_writes = new QSocketNotifier(m_descriptor, QSocketNotifier::Write, this);
    connect(m_writes, &QSocketNotifier::activated, this, &HttpConnection::writeOut);
    writeOut();
}

void HttpConnection::writeOut()
{
    while (!m_out.isEmpty()) {
        const ssize_t n = ::send(m_descriptor, m_out.constData(), static_cast<size_t>(m_out.size()), MSG_NOSIGNAL);
        if (n > 0) {
            m_out.remove(0, n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return; // the notifier calls again when there is room
        close();
        return;
    }
    m_writes->setEnabled(false);
    lingerThenClose();
}

void HttpConnection::lingerThenClose()
{
    // The answer is out: end our side, then drop whatever the client still sends until it
    // closes too, or the wait runs out.
    ::shutdown(m_descriptor, SHUT_WR);
    disconnect(m_reads, nullptr, this, nullptr);
    connect(m_reads, &QSocketNotifier::activated, this, &HttpConnection::drain);
    m_reads->setEnabled(true);
    disconnect(m_timer, nullptr, this, nullptr);
    connect(m_timer, &QTimer::timeout, this, &HttpConnection::close);
    m_timer->start(LingerMs);
    drain();
}

void HttpConnection::drain()
{
    std::array<char, 16384> scratch{};
    for (;;) {
        const ssize_t n = ::recv(m_descriptor, scratch.data(), scratch.size(), 0);
        if (n > 0)
            continue;
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        close();
        return;
    }
}

int HttpConnection::takeDescriptor()
{
    const int descriptor = m_descriptor;
    if (descriptor < 0)
        return -1;
    stopWatching();
    m_descriptor = -1;
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
    deleteLater();
    return descriptor;
}

void HttpConnection::stopWatching()
{
    // Disabled, not deleted: this may run inside one of their own signals. They go with the
    // object, and no notifier may watch a descriptor that is closed or serves someone else.
    m_reads->setEnabled(false);
    if (m_writes)
        m_writes->setEnabled(false);
    m_timer->stop();
}

void HttpConnection::close()
{
    if (m_descriptor < 0)
        return;
    stopWatching();
    ::close(m_descriptor);
    m_descriptor = -1;
    deleteLater();
}
