#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

#include <QCoroTask>

#include <functional>
#include <optional>

class ControlWindows;
class HttpConnection;
struct HttpRequest;
class MainUIState;
class PlayerModel;
class QTcpServer;
class StreamResponder;
class TorrentEngine;

// A local HTTP endpoint for scripts: GET /state reads the whole program's state as JSON, and
// the other routes drive what the interface drives, from adding a torrent to pressing a key in
// the player. It runs only when the user started the program with a port for it, and listens on
// 127.0.0.1 only; there is no authentication beyond that, so requests that a web page could have
// made through the user's browser are refused.
//
// Every JSON answer has status 200 with the error, if any, inside the JSON, keys sorted. Besides
// them, /stream/<id>/<file index>/<name> serves a file of a torrent over HTTP with ranges while it
// downloads, so any player or browser on the machine can play it.
//
// Only the user who runs Velix is served: a connection from another local user's process is
// closed unanswered. At most MaxStreams streams run at a time; one more gets a 503.
//
// Connections are accepted and routes run on the main thread; a stream's body is written by a
// thread of its own, which ends with its connection.
class ControlServer : public QObject
{
    Q_OBJECT

public:
    // None of the three is owned. `player` and `ui` may be null, and their routes then answer as
    // for an idle player and a window at its defaults.
    ControlServer(TorrentEngine *engine, PlayerModel *player, MainUIState *ui, QObject *parent = nullptr);
    // Ends every stream first: no thread may read from the engine's session after this.
    ~ControlServer() override;

    // Listens on 127.0.0.1:port. False, silently, when the port can't be had.
    bool start(quint16 port);
    // The port listened on, 0 before a successful start.
    quint16 port() const;

    // The window routes' reach into the application frame; none means no windows exist.
    void setWindows(ControlWindows *windows) { m_windows = windows; }
    // What /quit runs 0.2 s after its answer went out; by default the application's quit.
    void setQuitHandler(std::function<void()> quit) { m_quit = std::move(quit); }

    // Cancels every running stream and waits for its thread; readers are closed before return.
    // The application calls this before the engine closes its session.
    void stopStreams();
    int activeStreams() const { return static_cast<int>(m_streams.size()); }
    static constexpr int MaxStreams = 8;

    // The state document (see stateDocument).
    QJsonObject state() const;

    // The JSON text that answers one request target, "/state?x=1". Asynchronous because some
    // routes wait for the engine's reports; other requests are served meanwhile.
    QCoro::Task<QByteArray> route(QString target);

private:
    QCoro::Task<void> admit(int descriptor);
    void handle(HttpConnection *connection, const HttpRequest &request);
    QCoro::Task<void> serveStream(QPointer<HttpConnection> connection, QString target, bool headOnly,
                                  std::optional<QByteArray> range);

    QCoro::Task<QByteArray> add(QMap<QString, QString> query);
    QByteArray select(const QMap<QString, QString> &query);
    QCoro::Task<QByteArray> setPriority(QMap<QString, QString> query);
    QCoro::Task<QByteArray> setLimits(QMap<QString, QString> query);
    QByteArray changeSettings(const QMap<QString, QString> &query);
    QCoro::Task<QByteArray> play(QString id, QString fileText);
    QByteArray selectTrack(const QMap<QString, QString> &query);
    QByteArray pressKey(const QMap<QString, QString> &query);
    QByteArray windows(const QMap<QString, QString> &query);
    QCoro::Task<QByteArray> snapshot(QMap<QString, QString> query);
    QByteArray contentsAction(const QMap<QString, QString> &query);
    QCoro::Task<QByteArray> playerDiagnostics();

    QPointer<TorrentEngine> m_engine;
    QPointer<PlayerModel> m_player;
    QPointer<MainUIState> m_ui;
    ControlWindows *m_windows = nullptr;
    std::function<void()> m_quit;
    QTcpServer *m_listener = nullptr;
    QList<StreamResponder *> m_streams;
    int m_streamsStarting = 0; // admitted, still looking up their file
};
