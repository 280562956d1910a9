#include "playback/PlayerModel.h"

#include "core/PathText.h"
#include "engine/TorrentEngine.h"
#include "media/MediaMatcher.h"
#include "playback/MPVCore.h"
#include "playback/StreamAddress.h"
#include "playback/TrackSelection.h"
#include "playback/VideoLayer.h"

#include <QCoroFuture>
#include <QPointer>
#include <QTimer>
#include <QWindow>

#include <QCoroFuture>

#include <algorithm>
#include <cmath>
#include <utility>
#include <variant>

namespace {

PlayerModel *g_shared = nullptr;

constexpr int HideControlsAfterMs = 3000;
// A seek shorter than this never shows a waiting state.
constexpr int SeekWaitShownAfterMs = 400;
// Seeks and track switches that come this close together while a stream is blocked make one
// reload.
constexpr int ReloadDebounceMs = 200;
constexpr int QuickResumeLastsMs = 30000;
constexpr int ProgressIntervalMs = 1000;
constexpr double SaveIntervalSeconds = 10.0;
// The next episode starts downloading this long before the end of the current one.
constexpr double PrefetchNextBeforeEnd = 300.0;
// What an outside audio track gets ready around the play position, so that switching to it
// plays almost at once.
constexpr qint64 WarmUpBytes = 0x1800000;
constexpr double ReadaheadStep = 2.0;
// libmpv's MPV_END_FILE_REASON_ERROR.
constexpr int32_t EndedByError = 4;
const QString NormalCachePause = QStringLiteral("6");
// After a track switch the demuxer stalls for a moment; a short cache wait resumes at once.
const QString QuickCachePause = QStringLiteral("0.3");

template <typename T>
bool assign(T &field, const T &value)
{
    if (field == value)
        return false;
    field = value;
    return true;
}

QTimer *makeWork(QObject *owner, int intervalMs, std::function<void()> fn)
{
    auto *timer = new QTimer(owner);
    timer->setSingleShot(true);
    timer->setInterval(intervalMs);
    QObject::connect(timer, &QTimer::timeout, owner, std::move(fn));
    return timer;
}

bool flagOf(const MPVValue &value)
{
    return value.kind == MPVValue::Kind::Flag && value.flag;
}

std::optional<double> doubleOf(const MPVValue &value)
{
    if (value.kind != MPVValue::Kind::Double)
        return std::nullopt;
    return value.number;
}

template <typename T>
QVariant variantOf(const std::optional<T> &value)
{
    return value ? QVariant::fromValue(*value) : QVariant();
}

} // namespace

// Lifecycle ------------------------------------------------------------------------------------

PlayerModel *PlayerModel::shared()
{
    if (!g_shared)
        g_shared = new PlayerModel(TorrentEngine::shared());
    return g_shared;
}

bool PlayerModel::hasShared()
{
    return g_shared != nullptr;
}

void PlayerModel::setShared(PlayerModel *model)
{
    g_shared = model;
}

PlayerModel::PlayerModel(TorrentEngine *engine, QObject *parent)
    : PlayerModel(engine, Hooks{}, parent)
{
}

PlayerModel::PlayerModel(TorrentEngine *engine, Hooks hooks, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_hooks(std::move(hooks))
    , m_silent(MPVCore::silentRequested())
{
    if (!m_hooks.makeCore) {
        m_hooks.makeCore = [this] {
            // A change of hardware decoding takes effect with the next run, when the core is made.
            return makeMPVPlayerCore(m_engine->session(), m_engine->settings().hardwareDecoding, m_silent);
        };
    }
    if (!m_hooks.streamProgress)
        m_hooks.streamProgress = [this](QString id, int file) { return m_engine->streamProgress(id, file); };
    if (!m_hooks.streamWaiting)
        m_hooks.streamWaiting = [this](const QString &id, int file) { return m_engine->streamWaiting(id, file); };
    if (!m_hooks.prefetch) {
        m_hooks.prefetch = [this](const QString &id, int file, qint64 bytes, double fraction) {
            m_engine->prefetch(id, file, bytes, fraction);
        };
    }

    m_hideWork = makeWork(this, HideControlsAfterMs, [this] { hideControls(); });
    m_seekWork = makeWork(this, SeekWaitShownAfterMs, [this] { seekSettled(); });
    m_reloadWork = makeWork(this, ReloadDebounceMs, [this] { performReload(); });
    m_quickResumeWork = makeWork(this, QuickResumeLastsMs, [this] { endQuickResume(); });
    m_progressTimer = new QTimer(this);
    m_progressTimer->setInterval(ProgressIntervalMs);
    m_progressTimer->setTimerType(Qt::CoarseTimer);
    connect(m_progressTimer, &QTimer::timeout, this, [this] { refreshProgress(); });
}

PlayerModel::~PlayerModel()
{
    if (g_shared == this)
        g_shared = nullptr;
    // A pending progress task must find itself cancelled if it ever comes back.
    cancelProgressTask();
    if (m_core)
        m_core->destroy();
}

PlayerCore *PlayerModel::ensureCore()
{
    if (m_core)
        return m_core.get();
    m_core = m_hooks.makeCore();
    if (m_core) {
        QPointer<PlayerModel> self(this);
        m_core->setOnEvent([self](const MPVEvent &event) {
            if (self)
                self->handle(event);
        });
    }
    return m_core.get();
}

void PlayerModel::destroyCore()
{
    if (m_core)
        m_core->destroy();
}

// Opening --------------------------------------------------------------------------------------

QCoro::Task<> PlayerModel::open(QString torrentId, TorrentFile file)
{
    if (const auto status = m_engine->torrent(torrentId); status && status->state == QLatin1String("missing")) {
        setError(status->error);
        co_return;
    }
    const uint64_t generation = ++m_openGeneration;
    cancelProgressTask();
    // The file that plays now keeps its place before another one takes over.
    savePosition();
    if (!ensureCore()) {
        setError(QStringLiteral("Плеер недоступен"));
        co_return;
    }

    QPointer<PlayerModel> self(this);
    auto filesTask = m_engine->files(torrentId);
    const QList<TorrentFile> files = co_await std::move(filesTask);
    if (!self || m_openGeneration != generation)
        co_return; // a newer open or a stop has won

    setFiles(files);
    const MediaMatcher::ExternalTracks external = MediaMatcher::externalTracks(file, files);
    setExternalAudio(external.audio);
    setExternalSubtitles(external.subtitles);
    // Subtitle files are small and wanted at once. Outside audio is raised only when chosen,
    // since it is as large as the sound of the film.
    if (!external.subtitles.isEmpty()) {
        QList<int> indexes;
        for (const ExternalTrack &track : external.subtitles)
            indexes.append(track.file.i);
        m_engine->setPriority(torrentId, indexes, FilePriority::high);
    }

    setItem(PlayItem{torrentId, file});
    setTracks({});
    setLoaded(false);
    setEnded(false);
    setError(std::nullopt);
    setPosition(0.0);
    setDuration(0.0);
    setCacheTime(0.0);
    setHasVideo(false);
    setDownloadedRanges({});
    m_previousPieceMap.reset();
    m_tick = 0;
    m_autoSelected = false;
    m_prefetchedNext = false;
    m_recoveries = 0;

    m_reloadWork->stop();
    m_reloadTarget.reset();
    // Wishes of a reload that never ran belong to the file before.
    m_reloadAudio.reset();
    m_reloadSubtitle.reset();
    m_reloadExternal.clear();
    m_reloading = false;
    m_appliedReadahead = PlayerRules::DefaultReadahead;
    m_core->set(QStringLiteral("demuxer-readahead-secs"), PlayerRules::fixed(PlayerRules::DefaultReadahead, 0));

    m_openedAt = Clock::now();
    setTracksReadyAfter(std::nullopt);
    setFirstFrameAfter(std::nullopt);
    setControlsVisible(true);

    QStringList options{QStringLiteral("force-media-title=")
                        + PlayerRules::escapeOptionValue(PathText::lastPathComponent(file.path))};
    const TorrentMeta meta = m_engine->meta().value(torrentId);
    if (const auto start = PlayerRules::resumePosition(meta.positions, file.i, m_engine->settings().resumePlayback)) {
        options.append(QStringLiteral("start=") + QString::number(static_cast<qint64>(*start)));
        // The seek bar is right from the first frame.
        setPosition(*start);
    }
    QStringList load{QStringLiteral("loadfile"), streamAddress(torrentId, file.i), QStringLiteral("replace")};
    if (m_core->loadfileTakesIndex())
        load.append(QStringLiteral("-1"));
    load.append(options.join(QLatin1Char(',')));
    m_core->commandAsync(load);
    m_core->set(QStringLiteral("pause"), QStringLiteral("no"));
    m_engine->updateMeta(torrentId, [&file](TorrentMeta &entry) { entry.lastPlayedFile = file.i; });
    startProgressTimer();
    poke();
}

void PlayerModel::play(const TorrentFile &file)
{
    if (!m_item)
        return;
    open(m_item->torrentId, file);
}

void PlayerModel::playNext()
{
    if (const auto next = nextFile())
        play(*next);
}

void PlayerModel::playPrevious()
{
    if (const auto previous = previousFile())
        play(*previous);
}

std::optional<TorrentFile> PlayerModel::nextFile() const
{
    if (!m_item)
        return std::nullopt;
    return MediaMatcher::next(m_item->file, m_files);
}

std::optional<TorrentFile> PlayerModel::previousFile() const
{
    if (!m_item)
        return std::nullopt;
    return MediaMatcher::previous(m_item->file, m_files);
}

// Commands -------------------------------------------------------------------------------------

void PlayerModel::stop()
{
    ++m_openGeneration;
    savePosition();
    m_progressTimer->stop();
    cancelProgressTask();
    m_hideWork->stop();
    m_seekWork->stop();
    m_reloadWork->stop();
    endQuickResume();
    m_reloadTarget.reset();
    m_reloadAudio.reset();
    m_reloadSubtitle.reset();
    m_reloadExternal.clear();
    m_reloading = false;
    setWaitingAfterSeek(false);
    m_previousPieceMap.reset();
    if (m_core)
        m_core->commandAsync({QStringLiteral("stop")});
    setItem(std::nullopt);
    setTracks({});
    setLoaded(false);
}

void PlayerModel::togglePause()
{
    if (!m_core)
        return;
    if (m_ended && m_item) {
        resumePlayback();
        return;
    }
    m_core->commandAsync({QStringLiteral("cycle"), QStringLiteral("pause")});
}

void PlayerModel::resumePlayback()
{
    if (!m_core)
        return;
    if (m_ended && m_item) {
        // Play at the end starts the file again.
        setEnded(false);
        seek(0.0);
    }
    m_core->set(QStringLiteral("pause"), QStringLiteral("no"));
}

void PlayerModel::pausePlayback()
{
    if (m_core)
        m_core->set(QStringLiteral("pause"), QStringLiteral("yes"));
}

QCoro::Task<QMap<QString, QString>> PlayerModel::diagnostics()
{
    MPVCore *mpv = m_core ? m_core->mpvCore() : nullptr;
    if (!mpv)
        co_return {};
    QFuture<QMap<QString, QString>> taken = mpv->diagnostics();
    co_return co_await taken;
}

void PlayerModel::seek(double seconds)
{
    const auto target = PlayerRules::seekTarget(seconds, m_duration);
    if (!target)
        return;
    setPosition(*target);
    setEnded(false);
    if (streamBlocked()) {
        reload(*target, std::nullopt, std::nullopt);
        return;
    }
    // User seeks go to keyframes; only the repair of a false end seeks exactly.
    if (m_core)
        m_core->commandAsync({QStringLiteral("seek"), PlayerRules::fixed(*target, 3), QStringLiteral("absolute+keyframes")});
}

void PlayerModel::setVolume(double volume)
{
    if (m_core)
        m_core->set(QStringLiteral("volume"), QString::number(PlayerRules::volumeValue(volume)));
}

void PlayerModel::setPlaybackSpeed(double speed)
{
    if (m_core && std::isfinite(speed))
        m_core->set(QStringLiteral("speed"), QString::number(std::clamp(speed, 0.5, 2.0), 'g', 6));
}

void PlayerModel::savePosition()
{
    if (!m_item || !m_loaded || !(m_duration > 0))
        return;
    m_lastSavedAt = Clock::now();
    const int file = m_item->file.i;
    const double position = m_position;
    switch (PlayerRules::positionUpdate(position, m_duration)) {
    case PlayerRules::PositionUpdate::Keep:
        break;
    case PlayerRules::PositionUpdate::Store:
        m_engine->updateMeta(m_item->torrentId, [file, position](TorrentMeta &meta) { meta.positions[file] = position; });
        break;
    case PlayerRules::PositionUpdate::Forget:
        m_engine->updateMeta(m_item->torrentId, [file](TorrentMeta &meta) { meta.positions.remove(file); });
        break;
    }
}

void PlayerModel::poke()
{
    setControlsVisible(true);
    m_hideWork->start();
}

void PlayerModel::holdControls(bool held)
{
    m_controlsHeld = held;
    poke();
}

void PlayerModel::hideControls()
{
    // Controls stay while paused, while opening, on an error and while a menu is open.
    if (m_paused || !m_loaded || m_error || m_controlsHeld)
        return;
    setControlsVisible(false);
    emit cursorHideRequested();
}

// Events ---------------------------------------------------------------------------------------

void PlayerModel::handle(const MPVEvent &event)
{
    if (!m_item) {
        // Between files only the sound settings are kept up to date, so the volume is right
        // when the next file starts.
        if (event.kind == MPVEvent::Kind::Property
            && (event.name == QLatin1String("volume") || event.name == QLatin1String("mute")
                || event.name == QLatin1String("speed")))
            applyProperty(event.name, event.value);
        return;
    }
    switch (event.kind) {
    case MPVEvent::Kind::FileLoaded:
        setLoaded(true);
        if (m_reloading)
            finishReload();
        else
            autoSelect();
        break;
    case MPVEvent::Kind::PlaybackRestart:
        setBuffering(false);
        setWaitingAfterSeek(false);
        if (!m_firstFrameAfter)
            setFirstFrameAfter(secondsSinceOpen());
        break;
    case MPVEvent::Kind::EndFile:
        if (event.reason == EndedByError) {
            setError(event.error < 0 && m_core ? QStringLiteral("Не удалось открыть файл (")
                                                     + m_core->errorText(event.error) + QStringLiteral(")")
                                               : QStringLiteral("Не удалось открыть файл"));
        }
        break;
    case MPVEvent::Kind::Tracks:
        setTracks(event.tracks);
        if (!event.tracks.isEmpty() && !m_tracksReadyAfter)
            setTracksReadyAfter(secondsSinceOpen());
        break;
    case MPVEvent::Kind::Property:
        applyProperty(event.name, event.value);
        break;
    case MPVEvent::Kind::Shutdown:
        break;
    }
}

void PlayerModel::applyProperty(const QString &name, const MPVValue &value)
{
    if (name == QLatin1String("time-pos")) {
        if (const auto seconds = doubleOf(value))
            setPosition(*seconds);
        if (!m_lastSavedAt || Clock::now() - *m_lastSavedAt > std::chrono::duration<double>(SaveIntervalSeconds))
            savePosition();
        prefetchNextIfNeeded();
    } else if (name == QLatin1String("duration")) {
        setDuration(doubleOf(value).value_or(0.0));
    } else if (name == QLatin1String("pause")) {
        setPaused(flagOf(value));
        poke();
    } else if (name == QLatin1String("paused-for-cache")) {
        const bool wasBuffering = m_buffering;
        setBuffering(flagOf(value));
        if (wasBuffering && !m_buffering && m_quickResumeActive)
            endQuickResume();
    } else if (name == QLatin1String("seeking")) {
        setSeeking(flagOf(value));
        m_seekWork->stop();
        if (m_seeking)
            m_seekWork->start();
        else
            setWaitingAfterSeek(false);
    } else if (name == QLatin1String("eof-reached")) {
        if (flagOf(value) && m_loaded)
            endOfFile();
    } else if (name == QLatin1String("demuxer-cache-time")) {
        setCacheTime(doubleOf(value).value_or(0.0));
    } else if (name == QLatin1String("volume")) {
        if (const auto volume = doubleOf(value))
            setVolumeValue(*volume);
    } else if (name == QLatin1String("mute")) {
        setMuted(flagOf(value));
    } else if (name == QLatin1String("speed")) {
        setSpeed(doubleOf(value).value_or(1.0));
    } else if (name == QLatin1String("video-params/w")) {
        const auto width = doubleOf(value);
        setHasVideo(width && *width > 0.0);
    }
}

void PlayerModel::seekSettled()
{
    if (m_seeking)
        setWaitingAfterSeek(true);
}

void PlayerModel::endOfFile()
{
    // libmpv takes a read that failed for good for the end of the stream. Far from the real end
    // that is a stall, and playing on from the same place repairs it.
    if (PlayerRules::isFalseEnd(m_position, m_duration, m_recoveries)) {
        ++m_recoveries;
        m_core->commandAsync({QStringLiteral("seek"), PlayerRules::fixed(m_position, 3), QStringLiteral("absolute+exact")});
        m_core->set(QStringLiteral("pause"), QStringLiteral("no"));
        return;
    }
    setEnded(true);
    finishedFile();
}

std::optional<double> PlayerModel::secondsSinceOpen() const
{
    if (!m_openedAt)
        return std::nullopt;
    return std::chrono::duration<double>(Clock::now() - *m_openedAt).count();
}

QString PlayerModel::streamAddressOf(int fileIndex) const
{
    return m_item ? streamAddress(m_item->torrentId, fileIndex) : QString();
}

bool PlayerModel::streamBlocked() const
{
    return m_item && m_loaded && m_hooks.streamWaiting(m_item->torrentId, m_item->file.i);
}

void PlayerModel::updateCheckingPriority()
{
    // A hash check running beside playback gets fewer threads, so that it doesn't starve the
    // stream's disk reads.
    const bool active = m_item && !m_paused && !m_ended;
    if (m_engine->checkingPlaybackActive() != active)
        m_engine->setCheckingPlaybackActive(active);
}

// Progress -------------------------------------------------------------------------------------

void PlayerModel::startProgressTimer()
{
    m_progressTimer->start();
    refreshProgress();
}

void PlayerModel::refreshProgress()
{
    if (!m_item)
        return;
    // One ask at a time: a busy engine queue answers late, and the next tick asks again.
    if (!m_bufferProgressAsked) {
        m_bufferProgressAsked = true;
        refreshBufferProgress(m_openGeneration, *m_item);
    }
    if (m_duration > 0 && m_tick % 3 == 0)
        warmExternalAudio();
    ++m_tick;
    // The piece map every 2 s, the file list every 6 s, both from the first tick on.
    if (m_tick % 2 == 1 && !m_progressTask) {
        m_progressTask = std::make_shared<TaskToken>();
        runProgressTask(m_progressTask, m_openGeneration, *m_item, (m_tick - 1) % 6 == 0);
    }
}

QCoro::Task<> PlayerModel::refreshBufferProgress(uint64_t generation, PlayItem item)
{
    QPointer<PlayerModel> self(this);
    auto asking = m_hooks.streamProgress(item.torrentId, item.file.i);
    const double progress = co_await std::move(asking);
    if (!self)
        co_return;
    m_bufferProgressAsked = false;
    // An answer about a file that no longer plays says nothing of the one that does.
    if (m_openGeneration != generation || m_item != item)
        co_return;
    setBufferProgress(progress >= 0.0 ? std::optional<double>(progress) : std::nullopt);
}

void PlayerModel::warmExternalAudio()
{
    const double fraction = m_position / m_duration;
    for (const ExternalTrack &entry : std::as_const(m_externalAudio)) {
        const QString address = streamAddressOf(entry.file.i);
        const bool playing = std::any_of(m_tracks.cbegin(), m_tracks.cend(), [&address](const MediaTrack &track) {
            return track.externalFile == address && track.selected;
        });
        // A selected track has a reader of its own at work.
        if (!playing)
            m_hooks.prefetch(m_item->torrentId, entry.file.i, WarmUpBytes, fraction);
    }
}

void PlayerModel::cancelProgressTask()
{
    if (m_progressTask) {
        m_progressTask->cancelled = true;
        m_progressTask.reset();
    }
}

bool PlayerModel::progressTaskCurrent(const std::shared_ptr<TaskToken> &token, uint64_t generation,
                                      const PlayItem &item) const
{
    return !token->cancelled && m_openGeneration == generation && m_item == item;
}

void PlayerModel::endProgressTask(const std::shared_ptr<TaskToken> &token, uint64_t generation)
{
    if (m_openGeneration == generation && m_progressTask == token)
        m_progressTask.reset();
}

QCoro::Task<> PlayerModel::runProgressTask(std::shared_ptr<TaskToken> token, uint64_t generation, PlayItem item,
                                           bool withFiles)
{
    QPointer<PlayerModel> self(this);
    auto mapTask = m_engine->pieces(item.torrentId, item.file.i);
    const QString map = co_await std::move(mapTask);
    if (!self)
        co_return;
    if (!progressTaskCurrent(token, generation, item)) {
        endProgressTask(token, generation);
        co_return;
    }
    if (map != m_previousPieceMap) {
        setDownloadedRanges(PlayerRules::downloadedRanges(map));
        m_previousPieceMap = map;
    }
    adjustReadahead(map);
    if (withFiles) {
        auto filesTask = m_engine->files(item.torrentId);
        const QList<TorrentFile> files = co_await std::move(filesTask);
        if (!self)
            co_return;
        if (!progressTaskCurrent(token, generation, item)) {
            endProgressTask(token, generation);
            co_return;
        }
        setFiles(files);
    }
    endProgressTask(token, generation);
}

// Track selection ------------------------------------------------------------------------------

QList<TrackOption> PlayerModel::audioOptions() const
{
    return TrackSelection::audioOptions(m_item ? m_item->torrentId : QString(), m_tracks, m_externalAudio);
}

QList<TrackOption> PlayerModel::subtitleOptions() const
{
    return TrackSelection::subtitleOptions(m_item ? m_item->torrentId : QString(), m_tracks, m_externalSubtitles,
                                           m_loaded);
}

void PlayerModel::select(const QString &optionId, bool audio)
{
    const QList<TrackOption> options = audio ? audioOptions() : subtitleOptions();
    for (const TrackOption &option : options) {
        if (option.id == optionId) {
            select(option, audio);
            return;
        }
    }
}

void PlayerModel::select(const TrackOption &option, bool audio)
{
    if (!m_core || !m_item)
        return;
    quickResume();
    const QString property = audio ? QStringLiteral("aid") : QStringLiteral("sid");
    const auto switchTo = [&](const QString &value) {
        // A blocked read would hold the switch until it returns; a reload carries it at once.
        if (streamBlocked()) {
            reload(m_position, audio ? std::optional<QString>(value) : std::nullopt,
                   audio ? std::nullopt : std::optional<QString>(value));
        } else {
            m_core->set(property, value);
        }
    };
    if (const auto *track = std::get_if<TrackOption::Track>(&option.source))
        switchTo(QString::number(track->id));
    else if (const auto *external = std::get_if<ExternalTrack>(&option.source))
        addExternal(*external, audio, true);
    else
        switchTo(QStringLiteral("no"));

    if (!m_engine->settings().rememberTracks)
        return;
    const TrackChoice choice =
        TrackSelection::remembered(option.source, audio ? MediaTrack::Kind::Audio : MediaTrack::Kind::Sub,
                                   m_item->torrentId, m_tracks, audio ? m_externalAudio : m_externalSubtitles);
    m_engine->updateMeta(m_item->torrentId, [audio, &choice](TorrentMeta &meta) {
        (audio ? meta.audio : meta.subtitle) = choice;
    });
}

void PlayerModel::cycle(bool audio)
{
    const QList<TrackOption> options = audio ? audioOptions() : subtitleOptions();
    if (const auto target = TrackSelection::cycleTarget(options))
        select(options.at(*target), audio);
}

void PlayerModel::autoSelect()
{
    if (m_autoSelected || !m_item || !m_core)
        return;
    m_autoSelected = true;
    const AppSettings &settings = m_engine->settings();
    const auto meta = m_engine->meta().constFind(m_item->torrentId);
    const TrackSelection::Preferences preferences = TrackSelection::Preferences::from(
        settings, meta != m_engine->meta().constEnd() ? std::optional<TorrentMeta>(*meta) : std::nullopt);
    const TrackSelection::Picks picks =
        TrackSelection::autoSelect(m_tracks, m_externalAudio, m_externalSubtitles, preferences);
    carryOut(picks.audio, true);
    carryOut(picks.subtitle, false);
}

void PlayerModel::carryOut(const TrackSelection::Pick &pick, bool audio)
{
    switch (pick.kind) {
    case TrackSelection::Pick::Kind::Keep:
        break;
    case TrackSelection::Pick::Kind::Set:
        m_core->set(audio ? QStringLiteral("aid") : QStringLiteral("sid"), pick.value);
        break;
    case TrackSelection::Pick::Kind::AddExternal:
        if (pick.external)
            addExternal(*pick.external, audio, true);
        break;
    }
}

void PlayerModel::addExternal(const ExternalTrack &track, bool audio, bool select)
{
    if (!m_core || !m_item)
        return;
    int priority = track.file.prio;
    for (const TorrentFile &file : std::as_const(m_files)) {
        if (file.i == track.file.i) {
            priority = file.prio;
            break;
        }
    }
    // Audio is raised even when already wanted: it has to keep pace with the film.
    if (priority == 0 || audio)
        m_engine->setPriority(m_item->torrentId, {track.file.i}, FilePriority::high);
    m_core->commandAsync({audio ? QStringLiteral("audio-add") : QStringLiteral("sub-add"), streamAddressOf(track.file.i),
                          select ? QStringLiteral("select") : QStringLiteral("auto"), track.title,
                          track.language.value_or(QString())});
}

// Recovery and continuation --------------------------------------------------------------------

void PlayerModel::reload(double target, const std::optional<QString> &audio, const std::optional<QString> &subtitle)
{
    m_reloadTarget = target;
    // A wish not given now stays from an earlier call, so a seek and a switch made close
    // together end in one reload that does both.
    if (audio)
        m_reloadAudio = audio;
    if (subtitle)
        m_reloadSubtitle = subtitle;
    setWaitingAfterSeek(true);
    m_reloadWork->start();
}

void PlayerModel::performReload()
{
    if (!m_item || !m_core || !m_reloadTarget)
        return;
    QString aid = QStringLiteral("auto");
    if (m_reloadAudio)
        aid = *m_reloadAudio;
    else if (const auto audio = TrackSelection::current(m_tracks, MediaTrack::Kind::Audio))
        aid = QString::number(audio->id);
    QString sid = QStringLiteral("no");
    if (m_reloadSubtitle)
        sid = *m_reloadSubtitle;
    else if (const auto subtitle = TrackSelection::current(m_tracks, MediaTrack::Kind::Sub))
        sid = QString::number(subtitle->id);
    m_reloadExternal.clear();
    for (const MediaTrack &track : std::as_const(m_tracks)) {
        if (!track.external || !track.selected)
            continue;
        // A track chosen while the stream waited is a wish for its kind; the file that played
        // before comes back selected only when nothing else was wished for, or it was.
        const std::optional<QString> &wish = track.kind == MediaTrack::Kind::Audio ? m_reloadAudio : m_reloadSubtitle;
        m_reloadExternal.append({track, !wish || *wish == QString::number(track.id)});
    }
    const double target = *m_reloadTarget;
    m_reloadTarget.reset();
    m_reloadAudio.reset();
    m_reloadSubtitle.reset();
    m_reloading = true;

    const QStringList options{
        QStringLiteral("force-media-title=") + PlayerRules::escapeOptionValue(PathText::lastPathComponent(m_item->file.path)),
        QStringLiteral("start=") + PlayerRules::fixed(target, 3),
        QStringLiteral("aid=") + aid,
        QStringLiteral("sid=") + sid,
    };
    // libmpv cancels the blocked read of the old stream and opens a new one at the target. For
    // the user this is the same playback: position, duration and tracks stay as they are.
    QStringList load{QStringLiteral("loadfile"), streamAddress(m_item->torrentId, m_item->file.i),
                     QStringLiteral("replace")};
    if (m_core->loadfileTakesIndex())
        load.append(QStringLiteral("-1"));
    load.append(options.join(QLatin1Char(',')));
    m_core->commandAsync(load);
}

void PlayerModel::finishReload()
{
    m_reloading = false;
    // The aid and sid options chose the tracks inside the file; loaded track files are added
    // back, and selected again only where performReload found no other wish.
    for (const auto &[track, select] : std::as_const(m_reloadExternal)) {
        if (!track.externalFile)
            continue;
        m_core->commandAsync({track.kind == MediaTrack::Kind::Audio ? QStringLiteral("audio-add") : QStringLiteral("sub-add"),
                              *track.externalFile, select ? QStringLiteral("select") : QStringLiteral("auto"),
                              track.title.value_or(QString()), track.language.value_or(QString())});
    }
    m_reloadExternal.clear();
}

void PlayerModel::quickResume()
{
    if (!m_core)
        return;
    m_core->set(QStringLiteral("cache-pause-wait"), QuickCachePause);
    m_quickResumeActive = true;
    m_quickResumeWork->start();
}

void PlayerModel::endQuickResume()
{
    if (!m_quickResumeActive)
        return;
    m_quickResumeActive = false;
    m_quickResumeWork->stop();
    if (m_core)
        m_core->set(QStringLiteral("cache-pause-wait"), NormalCachePause);
}

void PlayerModel::adjustReadahead(const QString &map)
{
    if (!(m_duration > 0) || !m_core)
        return;
    const double readahead = PlayerRules::readaheadSeconds(map, m_position, m_duration);
    if (std::abs(readahead - m_appliedReadahead) < ReadaheadStep)
        return;
    m_appliedReadahead = readahead;
    m_core->set(QStringLiteral("demuxer-readahead-secs"), PlayerRules::fixed(readahead, 0));
}

void PlayerModel::prefetchNextIfNeeded()
{
    if (m_prefetchedNext || !m_engine->settings().autoplayNext || !m_item || !(m_duration > 0))
        return;
    if (!(m_duration - m_position < PrefetchNextBeforeEnd))
        return;
    const auto next = nextFile();
    if (!next)
        return;
    m_prefetchedNext = true;
    // Only a file that isn't wanted is started; its pieces get no deadlines until it plays.
    if (next->prio == 0)
        m_engine->setPriority(m_item->torrentId, {next->i}, FilePriority::normal);
}

void PlayerModel::finishedFile()
{
    if (!m_item)
        return;
    const PlayItem item = *m_item;
    m_engine->updateMeta(item.torrentId, [&item](TorrentMeta &meta) { meta.positions.remove(item.file.i); });
    if (!m_engine->settings().autoplayNext)
        return;
    if (const auto next = MediaMatcher::next(item.file, m_files))
        open(item.torrentId, *next);
}

// Published state ------------------------------------------------------------------------------

QVariant PlayerModel::itemValue() const
{
    return variantOf(m_item);
}

QVariant PlayerModel::errorValue() const
{
    return variantOf(m_error);
}

QVariant PlayerModel::bufferProgressValue() const
{
    return variantOf(m_bufferProgress);
}

QVariant PlayerModel::tracksReadyAfterValue() const
{
    return variantOf(m_tracksReadyAfter);
}

QVariant PlayerModel::firstFrameAfterValue() const
{
    return variantOf(m_firstFrameAfter);
}

void PlayerModel::setItem(const std::optional<PlayItem> &value)
{
    if (!assign(m_item, value))
        return;
    emit itemChanged();
    emit optionsChanged();
    emit neighboursChanged();
    updateCheckingPriority();
}

void PlayerModel::setFiles(const QList<TorrentFile> &value)
{
    if (!assign(m_files, value))
        return;
    emit filesChanged();
    emit neighboursChanged();
}

void PlayerModel::setTracks(const QList<MediaTrack> &value)
{
    if (!assign(m_tracks, value))
        return;
    emit tracksChanged();
    emit optionsChanged();
}

void PlayerModel::setExternalAudio(const QList<ExternalTrack> &value)
{
    if (!assign(m_externalAudio, value))
        return;
    emit externalAudioChanged();
    emit optionsChanged();
}

void PlayerModel::setExternalSubtitles(const QList<ExternalTrack> &value)
{
    if (!assign(m_externalSubtitles, value))
        return;
    emit externalSubtitlesChanged();
    emit optionsChanged();
}

void PlayerModel::setPosition(double value)
{
    if (assign(m_position, value))
        emit positionChanged();
}

void PlayerModel::setDuration(double value)
{
    if (assign(m_duration, value))
        emit durationChanged();
}

void PlayerModel::setPaused(bool value)
{
    if (!assign(m_paused, value))
        return;
    emit pausedChanged();
    updateCheckingPriority();
}

void PlayerModel::setBuffering(bool value)
{
    if (assign(m_buffering, value))
        emit bufferingChanged();
}

void PlayerModel::setSeeking(bool value)
{
    if (assign(m_seeking, value))
        emit seekingChanged();
}

void PlayerModel::setCacheTime(double value)
{
    if (assign(m_cacheTime, value))
        emit cacheTimeChanged();
}

void PlayerModel::setVolumeValue(double value)
{
    if (assign(m_volume, value))
        emit volumeChanged();
}

void PlayerModel::setMuted(bool value)
{
    if (assign(m_muted, value))
        emit mutedChanged();
}

void PlayerModel::setSpeed(double value)
{
    if (assign(m_speed, value))
        emit speedChanged();
}

void PlayerModel::setLoaded(bool value)
{
    if (!assign(m_loaded, value))
        return;
    emit loadedChanged();
    emit optionsChanged();
}

void PlayerModel::setEnded(bool value)
{
    if (!assign(m_ended, value))
        return;
    emit endedChanged();
    updateCheckingPriority();
}

void PlayerModel::setHasVideo(bool value)
{
    if (assign(m_hasVideo, value))
        emit hasVideoChanged();
}

void PlayerModel::setError(const std::optional<QString> &value)
{
    if (assign(m_error, value))
        emit errorChanged();
}

void PlayerModel::setControlsVisible(bool value)
{
    if (assign(m_controlsVisible, value))
        emit controlsVisibleChanged();
}

void PlayerModel::setDownloadedRanges(const QList<PlaybackRange> &value)
{
    if (assign(m_downloadedRanges, value))
        emit downloadedRangesChanged();
}

void PlayerModel::setBufferProgress(const std::optional<double> &value)
{
    if (assign(m_bufferProgress, value))
        emit bufferProgressChanged();
}

void PlayerModel::setWaitingAfterSeek(bool value)
{
    if (assign(m_waitingAfterSeek, value))
        emit waitingAfterSeekChanged();
}

void PlayerModel::setTracksReadyAfter(const std::optional<double> &value)
{
    if (assign(m_tracksReadyAfter, value))
        emit tracksReadyAfterChanged();
}

void PlayerModel::setFirstFrameAfter(const std::optional<double> &value)
{
    if (assign(m_firstFrameAfter, value))
        emit firstFrameAfterChanged();
}

void PlayerModel::toggleFullScreen()
{
    if (!m_window) {
        m_fullScreen = !m_fullScreen;
        emit fullScreenChanged();
        return;
    }
    if (!m_window->isActive()) {
        m_window->raise();
        m_window->requestActivate();
    }
    if (m_window->visibility() == QWindow::FullScreen)
        m_window->showNormal();
    else
        m_window->showFullScreen();
}

QWindow *PlayerModel::window() const
{
    return m_window.data();
}

void PlayerModel::setWindow(QWindow *window)
{
    if (m_window == window)
        return;
    if (m_window)
        disconnect(m_window, nullptr, this, nullptr);
    m_window = window;
    if (!window)
        return;
    // The window's own state is the truth: the desktop can leave full screen without the player.
    const auto follow = [this] {
        const bool full = m_window && m_window->visibility() == QWindow::FullScreen;
        if (full != m_fullScreen) {
            m_fullScreen = full;
            emit fullScreenChanged();
        }
    };
    connect(window, &QWindow::visibilityChanged, this, follow);
    follow();
}

bool PlayerModel::handleScroll(const PlayerInput::Scroll &scroll)
{
    if (!m_core)
        return false;
    const std::optional<double> step = PlayerInput::volumeStep(scroll);
    if (!step)
        return false;
    m_core->commandAsync({QStringLiteral("add"), QStringLiteral("volume"), PlayerRules::fixed(*step, 2)});
    poke();
    return true;
}

QMap<QString, QString> PlayerModel::videoDiagnostics() const
{
    MPVCore *core = m_core ? m_core->mpvCore() : nullptr;
    VideoLayer *layer = core ? core->videoLayer() : nullptr;
    return layer ? layer->diagnostics() : QMap<QString, QString>();
}

QCoro::Task<bool> PlayerModel::writeVideoSnapshot(QString path)
{
    MPVCore *core = m_core ? m_core->mpvCore() : nullptr;
    VideoLayer *layer = core ? core->videoLayer() : nullptr;
    if (!layer)
        co_return false;
    auto written = layer->writeSnapshot(path);
    co_return co_await written;
}

bool PlayerModel::handleKey(int code, bool shift)
{
    poke();
    switch (code) {
    case KeyA: cycle(true); return true;
    case KeyS: cycle(false); return true;
    case KeyF: toggleFullScreen(); return true;
    // Without an item there is nothing to step through, but the key is still the player's.
    case KeyP: playPrevious(); return true;
    case KeyN: playNext(); return true;
    case KeyM:
        if (m_core)
            m_core->commandAsync({QStringLiteral("cycle"), QStringLiteral("mute")});
        return true;
    case KeySpace: togglePause(); return true;
    case KeyEscape:
        if (!m_fullScreen)
            return false;
        toggleFullScreen();
        return true;
    case KeyLeft: seek(m_position - (shift ? 60 : 10)); return true;
    case KeyRight: seek(m_position + (shift ? 60 : 10)); return true;
    case KeyDown: setVolume(m_volume - 5); return true;
    case KeyUp: setVolume(m_volume + 5); return true;
    default: return false;
    }
}
