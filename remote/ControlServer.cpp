#include "remote/ControlServer.h"

#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "playback/PlayerModel.h"
#include "remote/ControlWindows.h"
#include "remote/HttpConnection.h"
#include "remote/HttpRequest.h"
#include "remote/PeerCredentials.h"
#include "remote/RouteParameters.h"
#include "remote/StateDocument.h"
#include "remote/StreamResponder.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTimer>
#include <QUrl>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoroFuture>

#include <algorithm>
#include <limits>
#include <unistd.h>
#include <utility>

namespace {

using Query = QMap<QString, QString>;

// Hands each accepted socket over as it is, before Qt wraps it in a QTcpSocket.
class DescriptorListener : public QTcpServer
{
public:
    DescriptorListener(std::function<void(int)> onAccept, QObject *parent)
        : QTcpServer(parent)
        , m_onAccept(std::move(onAccept))
    {
    }

protected:
    void incomingConnection(qintptr descriptor) override { m_onAccept(static_cast<int>(descriptor)); }

private:
    std::function<void(int)> m_onAccept;
};

QByteArray json(const QJsonValue &value)
{
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    return "{}";
}

QByteArray ok(bool done = true)
{
    return json(QJsonObject{{QStringLiteral("ok"), done}});
}

QByteArray error(const QString &text)
{
    return json(QJsonObject{{QStringLiteral("error"), text}});
}

bool flag(const Query &query, const QString &name)
{
    return query.value(name) == QLatin1String("1");
}

bool isStreamTarget(const QString &target)
{
    return target.startsWith(QLatin1String("/stream/"));
}

QJsonObject offersState()
{
    // The sidebar has no offers to show: the routes see an empty, closed list.
    return QJsonObject{
        {QStringLiteral("visible"), false},   {QStringLiteral("presented"), false},
        {QStringLiteral("refreshing"), false}, {QStringLiteral("sheetCount"), 0},
        {QStringLiteral("page"), 0},           {QStringLiteral("pages"), 0},
        {QStringLiteral("pageOffers"), 0},     {QStringLiteral("offers"), QJsonArray()},
    };
}

// A key code in the 16-bit range of the player's key table.
std::optional<quint16> keyCode(const QString &text)
{
    bool valid = false;
    const uint code = text.toUInt(&valid);
    if (!valid || code > std::numeric_limits<quint16>::max())
        return std::nullopt;
    return static_cast<quint16>(code);
}

} // namespace

ControlServer::ControlServer(TorrentEngine *engine, PlayerModel *player, MainUIState *ui, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_player(player)
    , m_ui(ui)
    , m_quit([] { QCoreApplication::quit(); })
{
    // Streams read from the engine's session, which closes in the application's stop; they end
    // before it does.
    if (auto *app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &ControlServer::stopStreams);
}

ControlServer::~ControlServer()
{
    stopStreams();
}

bool ControlServer::start(quint16 port)
{
    if (m_listener)
        return m_listener->isListening();
    auto *listener = new DescriptorListener([this](int descriptor) { admit(descriptor); }, this);
    if (!listener->listen(QHostAddress::LocalHost, port)) {
        delete listener;
        return false;
    }
    m_listener = listener;
    return true;
}

quint16 ControlServer::port() const
{
    return m_listener ? m_listener->serverPort() : 0;
}

void ControlServer::stopStreams()
{
    const QList<StreamResponder *> streams = std::exchange(m_streams, {});
    for (StreamResponder *stream : streams)
        stream->cancel();
    // Each destructor waits for its thread, which returns soon once cancelled.
    qDeleteAll(streams);
}

QCoro::Task<void> ControlServer::admit(int descriptor)
{
    QPointer<ControlServer> self(this);
    // The lookup reads /proc, which grows with every peer connection of the session.
    const std::optional<quint32> uid = co_await QtConcurrent::run([descriptor] { return peerUid(descriptor); });
    if (!self || uid != static_cast<quint32>(::geteuid())) {
        // Another user's process, or one that can't be told: no answer at all.
        ::close(descriptor);
        co_return;
    }
    new HttpConnection(descriptor, [this](HttpConnection *connection, const HttpRequest &request) {
        handle(connection, request);
    }, this);
}

QJsonObject ControlServer::state() const
{
    return stateDocument(m_engine, m_player, m_ui);
}

// Connections -----------------------------------------------------------------------------------

void ControlServer::handle(HttpConnection *connection, const HttpRequest &request)
{
    if (isForeignRequest(request)) {
        connection->answer("200 OK", error(QStringLiteral("forbidden")));
        return;
    }
    if (isStreamTarget(request.target)) {
        // Each stream holds a thread and a reader with its piece deadlines; past a handful,
        // more of them only compete for the same pieces.
        if (m_streams.size() + m_streamsStarting >= MaxStreams) {
            connection->answer("503 Service Unavailable", error(QStringLiteral("too many streams")));
            return;
        }
        ++m_streamsStarting;
        serveStream(connection, request.target, request.method == QLatin1String("HEAD"), request.header("range"));
        return;
    }
    QCoro::connect(route(request.target), connection,
                   [connection](const QByteArray &text) { connection->answer("200 OK", text); });
}

QCoro::Task<void> ControlServer::serveStream(QPointer<HttpConnection> connection, QString target, bool headOnly,
                                              std::optional<QByteArray> range)
{
    QPointer<ControlServer> self(this);
    auto starting = qScopeGuard([self] {
        if (self)
            --self->m_streamsStarting;
    });
    auto reply = [&connection](const QByteArray &status, const QByteArray &json) {
        if (connection)
            connection->answer(status, json);
    };
    const QUrl url(QStringLiteral("http://localhost") + target, QUrl::StrictMode);
    const QStringList parts = url.path().split(QLatin1Char('/'));
    // "", "stream", id, index, and the file's name, which only helps players guess the type.
    bool indexValid = false;
    const int index = parts.value(3).toInt(&indexValid);
    const QString id = parts.value(2);
    if (!url.isValid() || id.isEmpty() || !indexValid || index < 0) {
        reply("404 Not Found", error(QStringLiteral("id/file")));
        co_return;
    }
    TorrentEngine *engine = m_engine;
    if (!engine || engine->isShutDown()) {
        reply("503 Service Unavailable", error(QStringLiteral("engine")));
        co_return;
    }
    auto filesTask = engine->files(id);
    const QList<TorrentFile> files = co_await std::move(filesTask);
    if (!self || !connection || !self->m_engine || self->m_engine->isShutDown())
        co_return;
    const auto file = std::find_if(files.begin(), files.end(), [index](const TorrentFile &f) { return f.i == index; });
    if (file == files.end()) {
        reply("404 Not Found", error(QStringLiteral("file")));
        co_return;
    }

    // The connection leaves the main thread here: its socket goes to the stream's thread.
    const int descriptor = connection->takeDescriptor();
    if (descriptor < 0)
        co_return;
    StreamRequest request;
    request.opener = self->m_engine->streamOpener(id, index);
    request.size = file->size;
    request.contentType = streamContentType(file->path);
    request.headOnly = headOnly;
    request.range = range;
    auto *stream = new StreamResponder(descriptor, std::move(request), self);
    connect(stream, &StreamResponder::finished, self, [server = self.data()](StreamResponder *done) {
        if (server->m_streams.removeOne(done))
            done->deleteLater();
    });
    self->m_streams << stream;
    stream->start();
}

// Routes ------------------------------------------------------------------------------------------

QCoro::Task<QByteArray> ControlServer::route(QString target)
{
    const QUrl url(QStringLiteral("http://localhost") + target, QUrl::StrictMode);
    const std::optional<Query> items = RouteParameters::formQuery(target);
    if (!url.isValid() || !items)
        co_return error(QStringLiteral("bad request"));
    const Query &query = *items;
    const QString path = url.path();
    auto is = [&path](const char *name) { return path == QLatin1String(name); };

    TorrentEngine *engine = m_engine;
    if (!engine)
        co_return error(QStringLiteral("engine"));

    if (is("/state"))
        co_return json(state());
    if (is("/offers"))
        co_return json(offersState());
    if (is("/diagnostics"))
        co_return (co_await engine->networkDiagnostics()).toUtf8();
    if (is("/player-diagnostics"))
        co_return co_await playerDiagnostics();
    // Arguments of calls inside a co_await are named first: g++ 12 destroys some temporaries
    // of such an expression twice.
    const QString id = query.value(QStringLiteral("id"));
    if (is("/peers")) {
        auto textTask = engine->peerDiagnostics(id);
        const QString text = co_await std::move(textTask);
        co_return text.toUtf8();
    }
    if (is("/add")) {
        auto adding = add(query);
        co_return co_await std::move(adding);
    }
    if (is("/open")) {
        const QString text = query.value(QStringLiteral("path"));
        if (text.isEmpty())
            co_return error(QStringLiteral("path"));
        const QUrl opened = text.startsWith(QLatin1String("magnet:")) ? QUrl(text) : QUrl::fromLocalFile(text);
        engine->appendPendingOpen({opened});
        co_return ok();
    }
    if (is("/select"))
        co_return select(query);
    if (is("/files")) {
        auto filesTask = engine->files(id);
        const QList<TorrentFile> files = co_await std::move(filesTask);
        QJsonArray rows;
        for (const TorrentFile &f : files) {
            rows.append(QJsonObject{
                {QStringLiteral("path"), f.path},
                {QStringLiteral("size"), f.size},
                {QStringLiteral("done"), f.done},
                {QStringLiteral("prio"), f.prio},
            });
        }
        co_return json(rows);
    }
    if (is("/pieces")) {
        bool valid = false;
        int file = query.value(QStringLiteral("file")).toInt(&valid);
        if (!valid)
            file = -1;
        auto mapTask = engine->pieces(id, file);
        const QString map = co_await std::move(mapTask);
        co_return json(QJsonObject{{QStringLiteral("map"), map}});
    }
    if (is("/prio")) {
        auto setting = setPriority(query);
        co_return co_await std::move(setting);
    }
    if (is("/action")) {
        auto acting = engine->action(query.value(QStringLiteral("a")), {id});
        co_await std::move(acting);
        co_return ok();
    }
    if (is("/limits")) {
        auto setting = setLimits(query);
        co_return co_await std::move(setting);
    }
    if (is("/remove")) {
        auto removing = engine->remove({id}, flag(query, QStringLiteral("data")));
        co_await std::move(removing);
        co_return ok();
    }
    if (is("/settings"))
        co_return changeSettings(query);
    if (is("/play")) {
        const QString fileText = query.value(QStringLiteral("file"));
        auto playing = play(id, fileText);
        co_return co_await std::move(playing);
    }
    if (is("/track"))
        co_return selectTrack(query);
    if (is("/seek")) {
        if (m_player)
            m_player->seek(query.value(QStringLiteral("t")).toDouble());
        co_return ok();
    }
    if (is("/pause")) {
        if (m_player) {
            if (flag(query, QStringLiteral("on")))
                m_player->pausePlayback();
            else
                m_player->resumePlayback();
        }
        co_return ok();
    }
    if (is("/key"))
        co_return pressKey(query);
    if (is("/stop")) {
        if (m_player)
            m_player->stop();
        if (m_windows)
            m_windows->close(QStringLiteral("player"));
        co_return ok();
    }
    if (is("/window"))
        co_return windows(query);
    if (is("/snapshot"))
        co_return co_await snapshot(query);
    if (is("/contents-action"))
        co_return contentsAction(query);
    if (is("/quit")) {
        // Late enough for this answer to leave first.
        QTimer::singleShot(200, this, [this] {
            if (m_quit)
                m_quit();
        });
        co_return ok();
    }
    co_return error(QStringLiteral("unknown"));
}

QCoro::Task<QByteArray> ControlServer::add(Query query)
{
    QPointer<TorrentEngine> engine = m_engine;
    const QString path = query.value(QStringLiteral("path"));
    if (path.isEmpty())
        co_return error(QStringLiteral("path"));
    std::optional<QList<int>> priorities;
    if (query.contains(QStringLiteral("files"))) {
        auto reading = engine->preview(path);
        const TorrentPreview preview = co_await std::move(reading);
        if (!engine)
            co_return QByteArray("{}");
        if (!preview.files)
            co_return error(preview.error.value_or(QStringLiteral("Не удалось прочитать файл")));
        const QList<int> listed = RouteParameters::indexList(query.value(QStringLiteral("files")));
        QList<int> levels;
        for (qsizetype i = 0; i < preview.files->size(); ++i)
            levels << (listed.contains(static_cast<int>(i)) ? 4 : 0);
        priorities = levels;
    }
    QString save = query.value(QStringLiteral("save"));
    if (save.isEmpty())
        save = engine->settings().downloadDirectory;
    auto adding = engine->addTorrent(path, save, priorities, flag(query, QStringLiteral("paused")),
                                     flag(query, QStringLiteral("sequential")));
    const AddOutcome outcome = co_await std::move(adding);
    if (const auto *added = std::get_if<AddResult>(&outcome)) {
        co_return json(QJsonObject{{QStringLiteral("id"), added->id}, {QStringLiteral("duplicate"), added->duplicate}});
    }
    co_return error(std::get<EngineError>(outcome).message);
}

QByteArray ControlServer::select(const Query &query)
{
    MainUIState *ui = m_ui;
    if (!ui)
        return ok();
    auto has = [&query](const char *name) { return query.contains(QLatin1String(name)); };
    auto text = [&query](const char *name) { return query.value(QLatin1String(name)); };
    auto on = [&query](const char *name) { return flag(query, QLatin1String(name)); };

    if (has("settings"))
        ui->setShowSettings(on("settings"));
    if (const auto page = fromRaw<SettingsPage>(text("settingsPage")))
        ui->setSettingsPage(*page);
    if (has("id")) {
        ui->setFilter(allCases<TorrentFilter>().constFirst());
        ui->setSelection({text("id")});
    }
    if (const auto tab = fromRaw<DetailTab>(text("tab")))
        ui->setTab(*tab);
    if (const auto filter = fromRaw<TorrentFilter>(text("filter")))
        ui->setFilter(*filter);
    if (has("search"))
        ui->setSearch(text("search"));
    LibraryPreferences preferences = ui->preferences();
    if (const auto layout = fromRaw<LibraryLayout>(text("layout")))
        preferences.layout = *layout;
    if (const auto sort = fromRaw<LibrarySort>(text("sort")))
        preferences.sort = *sort;
    if (preferences != ui->preferences() || has("layout") || has("sort"))
        ui->setPreferences(preferences);
    if (has("details"))
        ui->setShowDetails(on("details"));
    if (on("clear"))
        ui->setSelection({});
    if (has("contents"))
        ui->setOpenedTorrentID(text("contents"));
    if (has("allFiles"))
        ui->setContentsAllFiles(on("allFiles"));
    if (has("compact"))
        ui->setContentsCompact(on("compact"));
    if (has("contentsSearch"))
        ui->setContentsQuery(text("contentsSearch"));
    if (text("transferDetails") == QLatin1String("toggle"))
        ui->toggleTransferDetails();
    return ok();
}

QCoro::Task<QByteArray> ControlServer::setPriority(Query query)
{
    auto setting = m_engine->setPriority(query.value(QStringLiteral("id")),
                                         RouteParameters::indexList(query.value(QStringLiteral("files"))),
                                         RouteParameters::priorityForLevel(query.value(QStringLiteral("p"), QStringLiteral("4"))));
    co_await std::move(setting);
    co_return ok();
}

QCoro::Task<QByteArray> ControlServer::setLimits(Query query)
{
    // Every limit the route leaves out is none.
    const auto number = [&query](const char *name) {
        return std::optional<qint64>(query.value(QLatin1String(name)).toLongLong());
    };
    const TorrentLimits limits{number("down"), number("up"), number("conn"), number("slots")};
    auto setting = m_engine->setLimits(query.value(QStringLiteral("id")), limits);
    co_await std::move(setting);
    co_return ok();
}

QByteArray ControlServer::changeSettings(const Query &query)
{
    TorrentEngine *engine = m_engine;
    AppSettings settings = engine->settings();
    auto number = [&query](const char *name) -> std::optional<int> {
        bool valid = false;
        const int value = query.value(QLatin1String(name)).toInt(&valid);
        return valid ? std::optional<int>(value) : std::nullopt;
    };
    auto has = [&query](const char *name) { return query.contains(QLatin1String(name)); };
    if (const auto down = number("down"))
        settings.downloadLimitKiB = *down;
    if (const auto up = number("up"))
        settings.uploadLimitKiB = *up;
    if (const auto connections = number("connections"))
        settings.maxConnections = std::max(0, *connections);
    if (has("alt"))
        settings.altSpeedEnabled = flag(query, QStringLiteral("alt"));
    if (const auto profile = fromWord<NetworkProfile>(query.value(QStringLiteral("profile"))))
        settings.adopt(*profile);
    if (const auto mode = fromWord<SubtitleMode>(query.value(QStringLiteral("subs"))))
        settings.subtitleMode = *mode;
    if (has("audioLang"))
        settings.audioLanguages = query.value(QStringLiteral("audioLang"));
    if (has("autoplay"))
        settings.autoplayNext = flag(query, QStringLiteral("autoplay"));
    // One announce address a line, added to every public torrent.
    if (has("trackers"))
        settings.customTrackers = query.value(QStringLiteral("trackers"));
    engine->setSettings(settings);
    return json(QJsonObject{
        {QStringLiteral("ok"), true},
        {QStringLiteral("libtorrent"), engine->settings().libtorrentSettings()},
    });
}

QCoro::Task<QByteArray> ControlServer::play(QString id, QString fileText)
{
    bool fileValid = false;
    const int index = fileText.toInt(&fileValid);
    if (id.isEmpty() || !fileValid)
        co_return error(QStringLiteral("id/file"));
    QPointer<ControlServer> self(this);
    auto filesTask = m_engine->files(id);
    const QList<TorrentFile> files = co_await std::move(filesTask);
    if (!self)
        co_return QByteArray("{}");
    const auto file = std::find_if(files.begin(), files.end(), [index](const TorrentFile &f) { return f.i == index; });
    if (file == files.end())
        co_return error(QStringLiteral("file"));
    if (m_windows)
        m_windows->open(QStringLiteral("player"));
    if (PlayerModel *player = m_player) {
        auto opening = player->open(id, *file);
        co_await std::move(opening);
    }
    co_return ok();
}

QByteArray ControlServer::selectTrack(const Query &query)
{
    PlayerModel *player = m_player;
    if (!player)
        return error(QStringLiteral("option"));
    const bool audio = query.value(QStringLiteral("kind")) != QLatin1String("sub");
    const QString wanted = query.value(QStringLiteral("option"));
    for (const TrackOption &option : audio ? player->audioOptions() : player->subtitleOptions()) {
        if (option.id == wanted) {
            player->select(option, audio);
            return ok();
        }
    }
    return error(QStringLiteral("option"));
}

QByteArray ControlServer::pressKey(const Query &query)
{
    const auto code = keyCode(query.value(QStringLiteral("code")));
    if (!code)
        return error(QStringLiteral("code"));
    const bool handled = m_player && m_player->handleKey(static_cast<int>(*code));
    return json(QJsonObject{{QStringLiteral("handled"), handled}});
}

QByteArray ControlServer::windows(const Query &query)
{
    if (!m_windows)
        return json(QJsonObject{{QStringLiteral("windows"), QJsonArray()}});
    if (query.contains(QStringLiteral("open")))
        m_windows->open(query.value(QStringLiteral("open")));
    if (flag(query, QStringLiteral("back")))
        m_windows->sendBack();
    const QStringList size = query.value(QStringLiteral("size")).split(QLatin1Char('x'));
    if (size.size() == 2 && query.contains(QStringLiteral("name"))) {
        bool widthValid = false;
        bool heightValid = false;
        const double width = size.at(0).toDouble(&widthValid);
        const double height = size.at(1).toDouble(&heightValid);
        if (widthValid && heightValid)
            m_windows->setContentSize(query.value(QStringLiteral("name")), width, height);
    }
    return json(QJsonObject{{QStringLiteral("windows"), m_windows->visibleWindows()}});
}

QCoro::Task<QByteArray> ControlServer::snapshot(Query query)
{
    const QString window = query.value(QStringLiteral("window"));
    const QString path = query.value(QStringLiteral("path"));
    if (window.isEmpty() || path.isEmpty() || !m_windows || !m_windows->exists(window))
        co_return error(QStringLiteral("window/path"));
    const bool done = m_windows->snapshot(window, path);
    if (window == QLatin1String("player") && flag(query, QStringLiteral("video"))) {
        QString videoPath = path;
        if (videoPath.endsWith(QLatin1String(".png")))
            videoPath.chop(4);
        // Drawn on the video's own thread; other requests are served meanwhile.
        QPointer<ControlServer> self(this);
        bool video = false;
        if (PlayerModel *player = m_player) {
            auto writing = player->writeVideoSnapshot(videoPath + QStringLiteral("-video.png"));
            video = co_await std::move(writing);
        }
        if (!self)
            co_return QByteArray("{}");
        co_return json(QJsonObject{{QStringLiteral("ok"), done}, {QStringLiteral("video"), video}});
    }
    co_return ok(done);
}

QByteArray ControlServer::contentsAction(const Query &query)
{
    const QString action = query.value(QStringLiteral("action"));
    const QString id = m_ui ? m_ui->openedTorrentID() : QString();
    if (action.isEmpty() || id.isEmpty())
        return ok(false);
    if (action == QLatin1String("togglePause")) {
        m_engine->togglePause(id);
        return ok();
    }
    if (action == QLatin1String("recheck")) {
        const auto t = m_engine->torrent(id);
        // A check over a check, a move or a torrent without its files known would do nothing.
        if (!t || !t->hasMetadata || t->isChecking() || t->moving)
            return ok(false);
        m_engine->action(QStringLiteral("recheck"), {id});
        return ok();
    }
    return ok(false);
}

QCoro::Task<QByteArray> ControlServer::playerDiagnostics()
{
    QPointer<ControlServer> self(this);
    QMap<QString, QString> merged;
    if (m_player) {
        auto taking = m_player->diagnostics();
        merged = co_await std::move(taking);
    }
    if (!self)
        co_return QByteArray("{}");
    // The video item's own counters win over the core's.
    if (m_player) {
        const QMap<QString, QString> video = m_player->videoDiagnostics();
        for (auto it = video.begin(); it != video.end(); ++it)
            merged.insert(it.key(), it.value());
    }
    QJsonObject answer;
    for (auto it = merged.begin(); it != merged.end(); ++it)
        answer.insert(it.key(), it.value());
    co_return json(answer);
}
