#include "remote/StreamResponder.h"

#include "core/PathText.h"
#include "remote/HttpRequest.h"

#include <QMetaObject>
#include <QScopeGuard>
#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Large enough that a write moves a good part of a piece at once, small enough that a stream
// costs little memory. A read never crosses a piece, so smaller pieces give smaller writes.
constexpr qint64 ChunkBytes = 1024 * 1024;

struct TypeRow
{
    const char *extension;
    const char *type;
};

constexpr std::array<TypeRow, 37> ContentTypes{{
    {"mkv", "video/x-matroska"}, {"mk3d", "video/x-matroska"}, {"webm", "video/webm"},
    {"mp4", "video/mp4"},        {"m4v", "video/mp4"},         {"mov", "video/quicktime"},
    {"avi", "video/x-msvideo"},  {"wmv", "video/x-ms-wmv"},    {"asf", "video/x-ms-asf"},
    {"flv", "video/x-flv"},      {"ts", "video/mp2t"},         {"m2ts", "video/mp2t"},
    {"mts", "video/mp2t"},       {"mpg", "video/mpeg"},        {"mpeg", "video/mpeg"},
    {"vob", "video/mpeg"},       {"ogv", "video/ogg"},         {"3gp", "video/3gpp"},
    {"mka", "audio/x-matroska"}, {"mp3", "audio/mpeg"},        {"aac", "audio/aac"},
    {"ac3", "audio/ac3"},        {"flac", "audio/flac"},       {"m4a", "audio/mp4"},
    {"ogg", "audio/ogg"},        {"opus", "audio/opus"},       {"wav", "audio/wav"},
    {"wma", "audio/x-ms-wma"},   {"srt", "application/x-subrip"}, {"vtt", "text/vtt"},
    {"ass", "text/x-ssa"},       {"ssa", "text/x-ssa"},        {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},      {"png", "image/png"},         {"txt", "text/plain; charset=utf-8"},
    {"nfo", "text/plain"},
}};

} // namespace

QString streamContentType(const QString &path)
{
    const QString extension = PathText::pathExtension(path).toLower();
    for (const TypeRow &row : ContentTypes) {
        if (extension == QLatin1String(row.extension))
            return QLatin1String(row.type);
    }
    return QStringLiteral("application/octet-stream");
}

StreamResponder::StreamResponder(int socket, StreamRequest request, QObject *parent)
    : QObject(parent)
    , m_socket(socket)
    , m_request(std::move(request))
{
    m_clientWatch = new QSocketNotifier(m_socket, QSocketNotifier::Read, this);
    connect(m_clientWatch, &QSocketNotifier::activated, this, &StreamResponder::watchClient);
}

StreamResponder::~StreamResponder()
{
    delete m_clientWatch;
    cancel();
    if (m_thread.joinable())
        m_thread.join();
    ::close(m_socket);
}

void StreamResponder::start()
{
    m_thread = std::thread([this] { run(); });
}

void StreamResponder::cancel()
{
    std::lock_guard lock(m_mutex);
    m_cancelled = true;
    if (m_reader)
        m_reader->cancel();
    // A write blocked on a client that stopped reading returns at once.
    ::shutdown(m_socket, SHUT_RDWR);
}

void StreamResponder::watchClient()
{
    // Anything the client sends after its request is dropped: one answer per connection. The
    // end of its data, or an error, means it has gone.
    std::array<char, 4096> scratch{};
    for (int round = 0; round < 16; ++round) {
        const ssize_t n = ::recv(m_socket, scratch.data(), scratch.size(), MSG_DONTWAIT);
        if (n > 0)
            continue;
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        m_clientWatch->setEnabled(false);
        cancel();
        return;
    }
}

bool StreamResponder::sendAll(const char *data, qint64 length)
{
    while (length > 0) {
        const ssize_t n = ::send(m_socket, data, static_cast<size_t>(length), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        length -= n;
    }
    return true;
}

void StreamResponder::answer(int status, const QByteArray &extraHeaders, const QByteArray &body)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
    head += extraHeaders;
    head += "Content-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n";
    if (!m_request.headOnly)
        head += body;
    sendAll(head.constData(), head.size());
}

void StreamResponder::run()
{
    auto done = qScopeGuard([this] {
        // The client gets the end of the data before the descriptor closes.
        ::shutdown(m_socket, SHUT_WR);
        QMetaObject::invokeMethod(this, [this] { emit finished(this); }, Qt::QueuedConnection);
    });

    std::unique_ptr<TorrentStream> stream;
    qint64 size = m_request.size;
    if (!m_request.headOnly) {
        stream = m_request.opener.open();
        if (!stream) {
            // No metadata yet, or a file of the torrent is missing on disk.
            answer(503, "Content-Type: application/json; charset=utf-8\r\n", R"({"error":"stream"})");
            return;
        }
        std::lock_guard lock(m_mutex);
        m_reader = stream.get();
        if (m_cancelled)
            stream->cancel();
        size = stream->size();
    }
    TorrentStream *const reader = stream.get();
    auto release = qScopeGuard([this, &stream] {
        if (!stream)
            return;
        {
            std::lock_guard lock(m_mutex);
            m_reader = nullptr;
        }
        stream.reset();
    });

    const RangeAnswer range = resolveRange(m_request.range, size);
    if (range.status == 416) {
        answer(416, "Content-Range: bytes */" + QByteArray::number(size) + "\r\nAccept-Ranges: bytes\r\n", {});
        return;
    }
    QByteArray head = "HTTP/1.1 " + QByteArray::number(range.status) + ' ' + reasonPhrase(range.status) + "\r\n";
    head += "Content-Type: " + m_request.contentType.toUtf8() + "\r\n";
    head += "Content-Length: " + QByteArray::number(range.range.length) + "\r\n";
    if (range.status == 206) {
        const qint64 last = range.range.first + range.range.length - 1;
        head += "Content-Range: bytes " + QByteArray::number(range.range.first) + '-' + QByteArray::number(last) + '/'
                + QByteArray::number(size) + "\r\n";
    }
    head += "Accept-Ranges: bytes\r\nConnection: close\r\n\r\n";
    // The head goes out at once, so a player knows the size and type before the first piece
    // has arrived.
    if (!sendAll(head.constData(), head.size()) || !reader || range.range.length == 0)
        return;

    if (reader->seek(range.range.first) != range.range.first)
        return;
    const auto buffer = std::make_unique<char[]>(ChunkBytes);
    qint64 left = range.range.length;
    while (left > 0) {
        const qint64 n = reader->read(buffer.get(), std::min(left, ChunkBytes));
        // A failed or cancelled read ends the answer short; the client sees the connection close
        // before Content-Length is reached and knows the body is incomplete.
        if (n <= 0 || !sendAll(buffer.get(), n))
            return;
        left -= n;
    }
}
