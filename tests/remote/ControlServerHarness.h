#pragma once

// The control server's tests talk to it over real HTTP from the test's own thread. The server
// answers on that thread too, so every wait here spins the event loop.

#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "playback/PlayerModel.h"
#include "remote/ControlServer.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QTcpSocket>
#include <QUrl>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace controltest {

struct HttpAnswer
{
    bool answered = false; // a whole head arrived
    int status = 0;
    QMap<QByteArray, QByteArray> headers; // names lower-cased
    QByteArray body;

    QJsonObject object() const { return QJsonDocument::fromJson(body).object(); }
};

inline HttpAnswer parseAnswer(const QByteArray &raw)
{
    HttpAnswer answer;
    const qsizetype end = raw.indexOf("\r\n\r\n");
    if (end < 0)
        return answer;
    const QList<QByteArray> lines = raw.left(end).split('\n');
    answer.answered = true;
    answer.status = lines.value(0).split(' ').value(1).toInt();
    for (const QByteArray &line : lines.mid(1)) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0)
            answer.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
    }
    answer.body = raw.mid(end + 4);
    return answer;
}

// One connection: sends `request` as it is and collects everything until the server closes.
class RawExchange
{
public:
    RawExchange(quint16 port, const QByteArray &request)
    {
        QObject::connect(&m_socket, &QTcpSocket::readyRead, [this] { m_received += m_socket.readAll(); });
        QObject::connect(&m_socket, &QTcpSocket::connected, [this, request] { m_socket.write(request); });
        m_socket.connectToHost(QHostAddress::LocalHost, port);
    }

    HttpAnswer finish()
    {
        testsupport::waitFor([this] { return m_socket.state() == QAbstractSocket::UnconnectedState; },
                             std::chrono::seconds(60));
        return parseAnswer(m_received);
    }

    const QByteArray &received() const { return m_received; }
    void abort() { m_socket.abort(); }

private:
    QTcpSocket m_socket;
    QByteArray m_received;
};

// A client on a thread of its own, with plain sockets: it sends its request in pieces with a
// pause between them, so the server gets them as separate segments, may end its side with a
// half-close, and collects everything until the server closes. The test's thread keeps
// running the server meanwhile.
class PiecewiseClient
{
public:
    PiecewiseClient(quint16 port, QList<QByteArray> pieces, bool halfClose)
        : m_thread([this, port, pieces = std::move(pieces), halfClose] { run(port, pieces, halfClose); })
    {
    }
    ~PiecewiseClient() { m_thread.join(); }

    HttpAnswer finish()
    {
        EXPECT_TRUE(testsupport::waitFor([this] { return m_done.load(); }, std::chrono::seconds(60)));
        return m_done ? parseAnswer(m_received) : HttpAnswer{};
    }
    const QByteArray &received() const { return m_received; }

private:
    void run(quint16 port, const QList<QByteArray> &pieces, bool halfClose)
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const timeval limit{60, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
            for (const QByteArray &piece : pieces) {
                ::send(fd, piece.constData(), static_cast<size_t>(piece.size()), MSG_NOSIGNAL);
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            if (halfClose)
                ::shutdown(fd, SHUT_WR);
            char buffer[4096];
            ssize_t n = 0;
            while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
                m_received.append(buffer, n);
        }
        ::close(fd);
        m_done = true;
    }

    QByteArray m_received;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

inline QByteArray request(quint16 port, const QByteArray &target, const QByteArray &extraHeaders = {},
                          const QByteArray &method = "GET")
{
    return method + ' ' + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) + "\r\n" + extraHeaders
           + "\r\n";
}

inline HttpAnswer exchange(quint16 port, const QByteArray &raw)
{
    return RawExchange(port, raw).finish();
}

inline QByteArray encoded(const QString &text)
{
    return QUrl::toPercentEncoding(text);
}

// A server on 127.0.0.1 over a real engine on a scratch directory; with a player when the test
// asks for one (real libmpv, no picture, no sound).
class ControlServerFixture : public ::testing::Test
{
protected:
    void startServer(bool withPlayer = false)
    {
        enginePort = testsupport::freeTcpPort();
        engine = std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(testsupport::quietSettingsText(enginePort)));
        if (withPlayer) {
            PlayerModel::Hooks hooks;
            hooks.makeCore = [this] { return makeMPVPlayerCore(engine->session(), false, true); };
            player = std::make_unique<PlayerModel>(engine.get(), hooks);
        }
        ui = std::make_unique<MainUIState>(home.qpath(), engine.get());
        server = std::make_unique<ControlServer>(engine.get(), player.get(), ui.get());
        ASSERT_TRUE(server->start(0));
        port = server->port();
    }

    void TearDown() override
    {
        // The application's stop order: streams, player, then the session.
        server.reset();
        if (player)
            player->stop();
        player.reset();
        if (engine)
            engine->shutdown();
    }

    HttpAnswer get(const QByteArray &target, const QByteArray &extraHeaders = {})
    {
        return exchange(port, request(port, target, extraHeaders));
    }
    QJsonObject getJson(const QByteArray &target) { return get(target).object(); }
    QJsonObject state() { return getJson("/state"); }

    QJsonObject torrentState(const QString &id)
    {
        for (const QJsonValue &t : state().value(QStringLiteral("torrents")).toArray()) {
            if (t.toObject().value(QStringLiteral("id")).toString() == id)
                return t.toObject();
        }
        return {};
    }

    // Adds a torrent through /add and hands back its id; `extra` is more of the query.
    QByteArray add(const testsupport::MadeTorrent &made, const QByteArray &extra = {})
    {
        const QJsonObject added = getJson("/add?path=" + encoded(QString::fromStdString(made.torrentPath)) + "&save="
                                          + encoded(downloads.qpath()) + extra);
        return added.value(QStringLiteral("id")).toString().toUtf8();
    }

    testsupport::TempDir home;
    testsupport::TempDir downloads;
    int enginePort = 0;
    std::unique_ptr<TorrentEngine> engine;
    std::unique_ptr<PlayerModel> player;
    std::unique_ptr<MainUIState> ui;
    std::unique_ptr<ControlServer> server;
    quint16 port = 0;
};

} // namespace controltest
