#include "remote/AutomationAPI.h"

#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "media/MediaKind.h"
#include "playback/PlayerModel.h"
#include "remote/AutomationCatalog.h"
#include "remote/ControlWindows.h"
#include "remote/StateDocument.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>
#include <unistd.h>

namespace {

const QString IdKey = QStringLiteral("id");

AutomationError shuttingDown()
{
    return AutomationError{QStringLiteral("Velix is shutting down.")};
}

AutomationError unknownFileIndex()
{
    return AutomationError{QStringLiteral("Unknown or padding file index.")};
}

// The levels the files report gives as prio, so that an agent writes back what it read.
std::optional<FilePriority> priorityOfLevel(const QJsonValue &level)
{
    if (!level.isDouble())
        return std::nullopt;
    const double value = level.toDouble();
    if (value == 0)
        return FilePriority::skip;
    if (value == 1)
        return FilePriority::low;
    if (value == 4)
        return FilePriority::normal;
    if (value == 7)
        return FilePriority::high;
    return std::nullopt;
}

QJsonObject accepted()
{
    return QJsonObject{{QStringLiteral("accepted"), true}};
}

// Records go to the agent under the keys the bridge's reports use, so that one vocabulary
// describes a torrent wherever it is read.
QJsonObject encode(const TorrentStatus &t)
{
    return QJsonObject{
        {QStringLiteral("id"), t.id},
        {QStringLiteral("name"), t.name},
        {QStringLiteral("state"), t.state},
        {QStringLiteral("paused"), t.paused},
        {QStringLiteral("autoManaged"), t.autoManaged},
        {QStringLiteral("sequential"), t.sequential},
        {QStringLiteral("private"), t.isPrivate},
        {QStringLiteral("hasMetadata"), t.hasMetadata},
        {QStringLiteral("finished"), t.finished},
        {QStringLiteral("seeding"), t.seeding},
        {QStringLiteral("moving"), t.moving},
        {QStringLiteral("progress"), t.progress},
        {QStringLiteral("total"), t.total},
        {QStringLiteral("totalDone"), t.totalDone},
        {QStringLiteral("wanted"), t.wanted},
        {QStringLiteral("wantedDone"), t.wantedDone},
        {QStringLiteral("downloadRate"), t.downloadRate},
        {QStringLiteral("uploadRate"), t.uploadRate},
        {QStringLiteral("peers"), t.peers},
        {QStringLiteral("seeds"), t.seeds},
        {QStringLiteral("swarmPeers"), t.swarmPeers},
        {QStringLiteral("swarmSeeds"), t.swarmSeeds},
        {QStringLiteral("connectCandidates"), t.connectCandidates},
        {QStringLiteral("uploaded"), t.uploaded},
        {QStringLiteral("downloaded"), t.downloaded},
        {QStringLiteral("added"), t.added},
        {QStringLiteral("completed"), t.completed},
        {QStringLiteral("activeTime"), t.activeTime},
        {QStringLiteral("seedingTime"), t.seedingTime},
        {QStringLiteral("downloadLimit"), t.downloadLimit},
        {QStringLiteral("uploadLimit"), t.uploadLimit},
        {QStringLiteral("connectionsLimit"), t.connectionsLimit},
        {QStringLiteral("uploadsLimit"), t.uploadsLimit},
        {QStringLiteral("downloadRateLimit"), t.downloadRateLimit},
        {QStringLiteral("uploadRateLimit"), t.uploadRateLimit},
        {QStringLiteral("queue"), t.queue},
        {QStringLiteral("pieces"), t.pieces},
        {QStringLiteral("availability"), t.availability},
        {QStringLiteral("savePath"), t.savePath},
        {QStringLiteral("tracker"), t.tracker},
        {QStringLiteral("error"), t.error},
        {QStringLiteral("checkingRate"), t.checkingRate ? QJsonValue(*t.checkingRate) : QJsonValue()},
    };
}

QJsonArray encode(const QList<TorrentFile> &files)
{
    QJsonArray array;
    for (const TorrentFile &f : files) {
        array.append(QJsonObject{{QStringLiteral("i"), f.i},
                                 {QStringLiteral("path"), f.path},
                                 {QStringLiteral("size"), f.size},
                                 {QStringLiteral("done"), f.done},
                                 {QStringLiteral("prio"), f.prio},
                                 {QStringLiteral("pad"), f.pad},
                                 {QStringLiteral("first"), f.first},
                                 {QStringLiteral("last"), f.last}});
    }
    return array;
}

QJsonArray encode(const QList<TrackerInfo> &trackers)
{
    QJsonArray array;
    for (const TrackerInfo &t : trackers) {
        array.append(QJsonObject{{QStringLiteral("url"), t.url},
                                 {QStringLiteral("tier"), t.tier},
                                 {QStringLiteral("status"), t.status},
                                 {QStringLiteral("message"), t.message},
                                 {QStringLiteral("fails"), t.fails},
                                 {QStringLiteral("seeds"), t.seeds},
                                 {QStringLiteral("peers"), t.peers},
                                 {QStringLiteral("downloaded"), t.downloaded},
                                 {QStringLiteral("nextAnnounce"), t.nextAnnounce},
                                 {QStringLiteral("extra"), t.extra},
                                 {QStringLiteral("mirror"), t.mirror}});
    }
    return array;
}

QJsonArray encode(const QList<PeerInfo> &peers)
{
    QJsonArray array;
    for (const PeerInfo &p : peers) {
        array.append(QJsonObject{{QStringLiteral("ip"), p.ip},
                                 {QStringLiteral("port"), p.port},
                                 {QStringLiteral("client"), p.client},
                                 {QStringLiteral("flags"), p.flags},
                                 {QStringLiteral("source"), p.source},
                                 {QStringLiteral("progress"), p.progress},
                                 {QStringLiteral("downloadRate"), p.downloadRate},
                                 {QStringLiteral("uploadRate"), p.uploadRate},
                                 {QStringLiteral("downloaded"), p.downloaded},
                                 {QStringLiteral("uploaded"), p.uploaded}});
    }
    return array;
}

QJsonObject encode(const TorrentPreview &p)
{
    QJsonObject o;
    if (p.id)
        o.insert(QStringLiteral("id"), *p.id);
    if (p.name)
        o.insert(QStringLiteral("name"), *p.name);
    if (p.size)
        o.insert(QStringLiteral("size"), *p.size);
    if (p.pieceLength)
        o.insert(QStringLiteral("pieceLength"), *p.pieceLength);
    if (p.pieces)
        o.insert(QStringLiteral("pieces"), *p.pieces);
    if (p.isPrivate)
        o.insert(QStringLiteral("private"), *p.isPrivate);
    if (p.comment)
        o.insert(QStringLiteral("comment"), *p.comment);
    if (p.trackers)
        o.insert(QStringLiteral("trackers"), QJsonArray::fromStringList(*p.trackers));
    if (p.files) {
        QJsonArray files;
        for (const TorrentPreviewFile &f : *p.files) {
            files.append(QJsonObject{{QStringLiteral("i"), f.i},
                                     {QStringLiteral("path"), f.path},
                                     {QStringLiteral("size"), f.size},
                                     {QStringLiteral("pad"), f.pad}});
        }
        o.insert(QStringLiteral("files"), files);
    }
    return o;
}

using PreviewOutcome = std::variant<TorrentPreview, AutomationError>;

// The preview of a local .torrent file an agent names, or why there is none.
QCoro::Task<PreviewOutcome> previewOf(QString path, QPointer<TorrentEngine> engine)
{
    const QFileInfo info(path);
    if (!path.toLower().endsWith(QLatin1String(".torrent")) || !info.isFile() || !info.isReadable())
        co_return AutomationError{QStringLiteral("Readable local .torrent file required.")};
    QCoro::Task<TorrentPreview> reading = engine->preview(path);
    TorrentPreview preview = co_await std::move(reading);
    if (!engine)
        co_return shuttingDown();
    if (preview.error)
        co_return AutomationError{*preview.error};
    co_return preview;
}

// The indices of a JSON array that the schema has already checked to hold whole numbers.
QList<int> indicesOf(const QJsonValue &value)
{
    QList<int> indices;
    for (const QJsonValue &v : value.toArray())
        indices << static_cast<int>(v.toDouble());
    return indices;
}

struct BusyGuard
{
    QPointer<AutomationAPI> api;
    bool *flag;
    ~BusyGuard()
    {
        // A call dropped in the middle must not leave every later call refused.
        if (api)
            *flag = false;
    }
};

} // namespace

AutomationAPI *AutomationAPI::shared()
{
    static AutomationAPI *instance =
        new AutomationAPI(TorrentEngine::shared(), PlayerModel::shared(), MainUIState::shared());
    return instance;
}

AutomationAPI::AutomationAPI(TorrentEngine *engine, PlayerModel *player, MainUIState *ui, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_player(player)
    , m_ui(ui)
{
}

QCoro::Task<AutomationOutcome> AutomationAPI::call(QString name, QJsonObject arguments)
{
    if (auto error = AutomationCatalog::validate(name, arguments))
        co_return *error;
    if (m_busy)
        co_return AutomationError{QStringLiteral("Another command is in progress; read state and retry.")};
    m_busy = true;
    const BusyGuard guard{this, &m_busy};
    if (!m_engine || m_engine->isShutDown())
        co_return shuttingDown();

    QPointer<AutomationAPI> self(this);
    co_await m_engine->refreshForAutomation();
    if (!self || !m_engine || m_engine->isShutDown())
        co_return shuttingDown();

    const QJsonValue id = arguments.value(IdKey);
    if (id.isString() && !m_engine->torrent(id.toString()))
        co_return AutomationError{QStringLiteral("Torrent not found: ") + id.toString()};

    // Every task below is made in a statement of its own and then awaited: g++ 12 destroys a
    // by-value argument of a call inside a co_await expression twice.
    QCoro::Task<AutomationOutcome> tool = run(std::move(name), std::move(arguments));
    AutomationOutcome outcome = co_await std::move(tool);
    co_return outcome;
}

QCoro::Task<AutomationOutcome> AutomationAPI::run(QString name, QJsonObject arguments)
{
    const QString id = arguments.value(IdKey).toString();
    std::optional<QCoro::Task<AutomationOutcome>> waiting;
    if (name == QLatin1String("get_torrent_details"))
        waiting.emplace(torrentDetails(id));
    else if (name == QLatin1String("set_file_priority"))
        waiting.emplace(setFilePriority(id, arguments));
    else if (name == QLatin1String("play_file"))
        waiting.emplace(playFile(id, arguments));
    else if (name == QLatin1String("preview_torrent"))
        waiting.emplace(previewTorrent(arguments));
    else if (name == QLatin1String("add_torrent"))
        waiting.emplace(addTorrent(arguments));
    else if (name == QLatin1String("torrent_action"))
        waiting.emplace(torrentAction(id, arguments));
    else if (name == QLatin1String("set_torrent_limits"))
        waiting.emplace(setTorrentLimits(id, arguments));
    else if (name == QLatin1String("remove_torrent"))
        waiting.emplace(removeTorrent(id, arguments));
    if (waiting) {
        AutomationOutcome outcome = co_await std::move(*waiting);
        co_return outcome;
    }
    co_return runAtOnce(name, arguments);
}

AutomationOutcome AutomationAPI::runAtOnce(const QString &name, const QJsonObject &arguments)
{
    const QString id = arguments.value(IdKey).toString();
    if (name == QLatin1String("get_state"))
        return QJsonValue(stateDocument(m_engine, m_player, m_ui));
    if (name == QLatin1String("get_settings"))
        return QJsonValue(settingsView(m_engine->settings()));
    if (name == QLatin1String("update_settings"))
        return updateSettings(arguments);
    if (name == QLatin1String("control_player"))
        return controlPlayer(arguments);
    // Only a tools.json that describes a tool this build doesn't have gets here.
    return AutomationError{QStringLiteral("Unknown tool.")};
}

QCoro::Task<AutomationOutcome> AutomationAPI::torrentDetails(QString id)
{
    const std::optional<TorrentStatus> status = m_engine->torrent(id);
    if (!status)
        co_return AutomationError{QStringLiteral("Torrent not found: ") + id};
    QPointer<TorrentEngine> engine = m_engine;
    auto filesReport = engine->files(id);
    const QList<TorrentFile> files = co_await std::move(filesReport);
    if (!engine)
        co_return shuttingDown();
    auto trackersReport = engine->trackers(id);
    const QList<TrackerInfo> trackers = co_await std::move(trackersReport);
    if (!engine)
        co_return shuttingDown();
    auto peersReport = engine->peers(id);
    const QList<PeerInfo> peers = co_await std::move(peersReport);
    if (!engine)
        co_return shuttingDown();
    co_return QJsonObject{{QStringLiteral("torrent"), encode(*status)},
                          {QStringLiteral("files"), encode(files)},
                          {QStringLiteral("trackers"), encode(trackers)},
                          {QStringLiteral("peers"), encode(peers)}};
}

QCoro::Task<AutomationOutcome> AutomationAPI::previewTorrent(QJsonObject arguments)
{
    const auto path = absolutePath(arguments.value(QLatin1String("path")).toString());
    if (const auto *error = std::get_if<AutomationError>(&path))
        co_return *error;
    QCoro::Task<PreviewOutcome> reading = previewOf(std::get<QString>(path), m_engine);
    const PreviewOutcome preview = co_await std::move(reading);
    if (const auto *error = std::get_if<AutomationError>(&preview))
        co_return *error;
    co_return encode(std::get<TorrentPreview>(preview));
}

QCoro::Task<AutomationOutcome> AutomationAPI::addTorrent(QJsonObject arguments)
{
    QPointer<TorrentEngine> engine = m_engine;
    const QJsonValue savePathValue = arguments.value(QLatin1String("save_path"));
    const auto savePath =
        absolutePath(savePathValue.isString() ? savePathValue.toString() : engine->settings().downloadDirectory);
    if (const auto *error = std::get_if<AutomationError>(&savePath))
        co_return *error;
    const QString directory = std::get<QString>(savePath);
    // What an agent adds waits until it is told to start.
    const bool paused = arguments.value(QLatin1String("paused")).toBool(true);
    const bool sequential = arguments.value(QLatin1String("sequential")).toBool(false);
    const QString source = arguments.value(QLatin1String("source")).toString();
    const QJsonValue files = arguments.value(QLatin1String("files"));

    std::optional<QCoro::Task<AddOutcome>> adding;
    if (source.startsWith(QLatin1String("magnet:"))) {
        if (!files.isUndefined()) {
            co_return AutomationError{
                QStringLiteral("Magnet metadata is not available yet. Add it first, then select files.")};
        }
        if (auto error = prepareDirectory(directory))
            co_return *error;
        adding.emplace(engine->addMagnet(source, directory, false, paused, sequential));
    } else {
        const auto path = absolutePath(source);
        if (const auto *error = std::get_if<AutomationError>(&path))
            co_return *error;
        QCoro::Task<PreviewOutcome> reading = previewOf(std::get<QString>(path), engine);
        const PreviewOutcome preview = co_await std::move(reading);
        if (!engine || engine->isShutDown())
            co_return shuttingDown();
        if (const auto *error = std::get_if<AutomationError>(&preview))
            co_return *error;
        std::optional<QList<int>> priorities;
        if (!files.isUndefined()) {
            const QList<TorrentPreviewFile> previewFiles = std::get<TorrentPreview>(preview).files.value_or(QList<TorrentPreviewFile>());
            QList<int> choosable;
            int count = 0;
            for (const TorrentPreviewFile &f : previewFiles) {
                if (!f.pad)
                    choosable << f.i;
                count = std::max(count, f.i + 1);
            }
            const QList<int> chosen = indicesOf(files);
            for (int index : chosen) {
                if (!choosable.contains(index))
                    co_return unknownFileIndex();
            }
            // The bridge takes one priority per file index: normal for the chosen, skip for the rest.
            QList<int> list(count, 0);
            for (int index : chosen)
                list[index] = 4;
            priorities = list;
        }
        if (auto error = prepareDirectory(directory))
            co_return *error;
        adding.emplace(engine->addTorrent(std::get<QString>(path), directory, priorities, paused, sequential));
    }
    const AddOutcome outcome = co_await std::move(*adding);
    if (const auto *error = std::get_if<EngineError>(&outcome))
        co_return AutomationError{error->message};
    const AddResult &added = std::get<AddResult>(outcome);
    co_return QJsonObject{{QStringLiteral("id"), added.id}, {QStringLiteral("duplicate"), added.duplicate}};
}

QCoro::Task<AutomationOutcome> AutomationAPI::torrentAction(QString id, QJsonObject arguments)
{
    const QString action = arguments.value(QLatin1String("action")).toString();
    // Resume and pause go through the engine's own commands, which keep its seeding limits
    // and meta right; every other word is a plain action of the bridge.
    QCoro::Task<void> acting = action == QLatin1String("resume") ? m_engine->resume({id})
        : action == QLatin1String("pause")                      ? m_engine->pause({id})
                                                                 : m_engine->action(action, {id});
    co_await std::move(acting);
    co_return QJsonValue(accepted());
}

QCoro::Task<AutomationOutcome> AutomationAPI::setFilePriority(QString id, QJsonObject arguments)
{
    // The schema's enum already holds the value to these four; a catalog that says otherwise
    // must not turn a stray number into some priority.
    const auto priority = priorityOfLevel(arguments.value(QLatin1String("priority")));
    if (!priority)
        co_return AutomationError{QStringLiteral("Invalid arguments.priority")};
    QPointer<TorrentEngine> engine = m_engine;
    auto report = engine->files(id);
    const QList<TorrentFile> files = co_await std::move(report);
    if (!engine || engine->isShutDown())
        co_return shuttingDown();
    const QList<int> chosen = indicesOf(arguments.value(QLatin1String("files")));
    for (int index : chosen) {
        const auto found = std::find_if(files.begin(), files.end(), [index](const TorrentFile &f) { return f.i == index; });
        if (found == files.end() || found->pad)
            co_return unknownFileIndex();
    }
    QCoro::Task<void> setting = engine->setPriority(id, chosen, *priority);
    co_await std::move(setting);
    co_return QJsonValue(accepted());
}

QCoro::Task<AutomationOutcome> AutomationAPI::setTorrentLimits(QString id, QJsonObject arguments)
{
    static const QStringList LimitKeys{QStringLiteral("download_kib"), QStringLiteral("upload_kib"),
                                       QStringLiteral("connections"), QStringLiteral("upload_slots")};
    if (std::none_of(LimitKeys.begin(), LimitKeys.end(), [&arguments](const QString &k) { return arguments.contains(k); }))
        co_return AutomationError{QStringLiteral("Provide at least one limit.")};
    auto given = [&arguments](const char *key) -> std::optional<qint64> {
        const QJsonValue v = arguments.value(QLatin1String(key));
        return v.isUndefined() ? std::nullopt : std::optional<qint64>(static_cast<qint64>(v.toDouble()));
    };
    // The engine keeps what is not given as the torrent has it.
    const TorrentLimits limits{given("download_kib"), given("upload_kib"), given("connections"), given("upload_slots")};
    QCoro::Task<bool> setting = m_engine->setLimits(id, limits);
    co_await std::move(setting);
    co_return QJsonValue(accepted());
}

QCoro::Task<AutomationOutcome> AutomationAPI::removeTorrent(QString id, QJsonObject arguments)
{
    const bool deleteFiles = arguments.value(QLatin1String("delete_files")).toBool(false);
    if (deleteFiles) {
        const QJsonValue confirm = arguments.value(QLatin1String("confirm_name"));
        if (!confirm.isString() || confirm.toString() != m_engine->torrent(id)->name)
            co_return AutomationError{QStringLiteral("Deleting data requires confirm_name matching the torrent name.")};
    }
    // The player must let go of the torrent's file before the session drops it.
    if (m_player) {
        const std::optional<PlayItem> item = m_player->item();
        if (item && item->torrentId == id)
            m_player->stop();
    }
    QCoro::Task<void> removing = m_engine->remove({id}, deleteFiles);
    co_await std::move(removing);
    co_return QJsonValue(accepted());
}

AutomationOutcome AutomationAPI::updateSettings(const QJsonObject &arguments)
{
    if (arguments.isEmpty())
        return AutomationError{QStringLiteral("Provide at least one setting.")};
    AppSettings s = m_engine->settings();
    auto integer = [&arguments](const char *key, int &field) {
        const QJsonValue v = arguments.value(QLatin1String(key));
        if (!v.isUndefined())
            field = static_cast<int>(v.toDouble());
    };
    auto flag = [&arguments](const char *key, bool &field) {
        const QJsonValue v = arguments.value(QLatin1String(key));
        if (!v.isUndefined())
            field = v.toBool();
    };
    auto text = [&arguments](const char *key, QString &field) {
        const QJsonValue v = arguments.value(QLatin1String(key));
        if (!v.isUndefined())
            field = v.toString();
    };
    integer("download_kib", s.downloadLimitKiB);
    integer("upload_kib", s.uploadLimitKiB);
    integer("alt_download_kib", s.altDownloadLimitKiB);
    integer("alt_upload_kib", s.altUploadLimitKiB);
    flag("alt_speed_enabled", s.altSpeedEnabled);
    flag("add_paused", s.addPaused);
    flag("autoplay_next", s.autoplayNext);
    flag("resume_playback", s.resumePlayback);
    text("audio_languages", s.audioLanguages);
    text("subtitle_languages", s.subtitleLanguages);
    const QJsonValue mode = arguments.value(QLatin1String("subtitle_mode"));
    if (!mode.isUndefined()) {
        const auto parsed = fromWord<SubtitleMode>(mode.toString());
        // The schema's enum admits only the modes there are.
        Q_ASSERT(parsed);
        s.subtitleMode = parsed.value_or(s.subtitleMode);
    }
    const QJsonValue directory = arguments.value(QLatin1String("download_directory"));
    if (!directory.isUndefined()) {
        const auto path = absolutePath(directory.toString());
        if (const auto *error = std::get_if<AutomationError>(&path))
            return *error;
        // Nothing is stored unless the new directory can take downloads.
        if (auto error = prepareDirectory(std::get<QString>(path)))
            return *error;
        s.downloadDirectory = std::get<QString>(path);
    }
    m_engine->setSettings(s);
    return settingsView(m_engine->settings());
}

QCoro::Task<AutomationOutcome> AutomationAPI::playFile(QString id, QJsonObject arguments)
{
    const int index = arguments.value(QLatin1String("file")).toInt();
    QPointer<TorrentEngine> engine = m_engine;
    auto report = engine->files(id);
    const QList<TorrentFile> files = co_await std::move(report);
    if (!engine || engine->isShutDown())
        co_return shuttingDown();
    const auto found = std::find_if(files.begin(), files.end(), [index](const TorrentFile &f) { return f.i == index; });
    const bool playable = found != files.end() && !found->pad
        && (mediaKindForPath(found->path) == MediaKind::video || mediaKindForPath(found->path) == MediaKind::audio);
    if (!playable || !m_player)
        co_return AutomationError{QStringLiteral("Playable audio/video file not found.")};
    if (m_windows)
        m_windows->open(QStringLiteral("player"));
    QPointer<PlayerModel> player = m_player;
    QCoro::Task<> opening = player->open(id, *found);
    co_await std::move(opening);
    co_return QJsonValue(accepted());
}

AutomationOutcome AutomationAPI::controlPlayer(const QJsonObject &arguments)
{
    if (auto error = checkPlayerParameters(arguments))
        return *error;
    const QString action = arguments.value(QLatin1String("action")).toString();
    if (action == QLatin1String("stop")) {
        // Stopping an idle player is fine: the agent wants it idle, and it is.
        if (m_player)
            m_player->stop();
        return accepted();
    }
    if (!m_player || !m_player->item())
        return AutomationError{QStringLiteral("No file is open in the player.")};
    PlayerModel &player = *m_player;
    if (action == QLatin1String("pause")) {
        player.pausePlayback();
    } else if (action == QLatin1String("resume")) {
        player.resumePlayback();
    } else if (action == QLatin1String("seek")) {
        if (!player.loaded() || player.duration() <= 0)
            return AutomationError{QStringLiteral("File is still loading; seek is not available yet.")};
        player.seek(arguments.value(QLatin1String("seconds")).toDouble());
    } else if (action == QLatin1String("volume")) {
        player.setVolume(arguments.value(QLatin1String("value")).toDouble());
    } else if (action == QLatin1String("speed")) {
        const double speed = arguments.value(QLatin1String("value")).toDouble();
        if (speed < 0.25 || speed > 4.0)
            return AutomationError{QStringLiteral("Playback speed must be between 0.25 and 4.")};
        player.setPlaybackSpeed(speed);
    } else {
        const bool audio = action == QLatin1String("audio");
        const QString optionId = arguments.value(QLatin1String("option")).toString();
        const QList<TrackOption> options = audio ? player.audioOptions() : player.subtitleOptions();
        const auto found = std::find_if(options.begin(), options.end(),
                                        [&optionId](const TrackOption &o) { return o.id == optionId; });
        if (found == options.end())
            return AutomationError{QStringLiteral("Track option not found; read get_state for current options.")};
        player.select(*found, audio);
    }
    return accepted();
}

std::optional<AutomationError> AutomationAPI::prepareDirectory(const QString &path)
{
    std::error_code error;
    const std::filesystem::path directory(QFile::encodeName(path).toStdString());
    std::filesystem::create_directories(directory, error);
    if (error)
        return AutomationError{QString::fromStdString(error.message())};
    if (!std::filesystem::is_directory(directory, error))
        return AutomationError{QString::fromLocal8Bit(std::strerror(ENOTDIR))};
    if (::access(directory.c_str(), W_OK) != 0)
        return AutomationError{QStringLiteral("Download directory is not writable.")};
    return std::nullopt;
}

QJsonObject AutomationAPI::settingsView(const AppSettings &s)
{
    return QJsonObject{
        {QStringLiteral("download_directory"), s.downloadDirectory},
        {QStringLiteral("download_kib"), s.downloadLimitKiB},
        {QStringLiteral("upload_kib"), s.uploadLimitKiB},
        {QStringLiteral("alt_download_kib"), s.altDownloadLimitKiB},
        {QStringLiteral("alt_upload_kib"), s.altUploadLimitKiB},
        {QStringLiteral("alt_speed_enabled"), s.altSpeedEnabled},
        {QStringLiteral("add_paused"), s.addPaused},
        {QStringLiteral("autoplay_next"), s.autoplayNext},
        {QStringLiteral("resume_playback"), s.resumePlayback},
        {QStringLiteral("audio_languages"), s.audioLanguages},
        {QStringLiteral("subtitle_languages"), s.subtitleLanguages},
        {QStringLiteral("subtitle_mode"), toWord(s.subtitleMode)},
    };
}
