#include "engine/TorrentEngine.h"

#include "bridge/tb_bridge.h"
#include "checking/LowPowerMonitor.h"
#include "checking/MachineInfo.h"
#include "checking/MemoryPressureWatcher.h"
#include "core/MainThread.h"
#include "core/SerialQueue.h"
#include "engine/DebouncedSave.h"
#include "engine/Storage.h"

#include <QCoroFuture>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QScopeGuard>
#include <QStringDecoder>

#include <QCoroNetworkReply>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

TorrentEngine *g_shared = nullptr;

// Takes a bridge string and frees it; null reads as an empty array.
QByteArray take(char *text)
{
    if (!text)
        return QByteArray();
    QByteArray bytes(text);
    tb_free(text);
    return bytes;
}

// The report of a big library runs to megabytes each second; it is decoded where it lies.
std::optional<StatusSnapshot> takeStatus(tb_session *session)
{
    char *const text = tb_status_json(session);
    if (!text)
        return std::nullopt;
    const QByteArray status = QByteArray::fromRawData(text, qsizetype(std::strlen(text)));
    std::optional<StatusSnapshot> snapshot = status.isEmpty() ? std::nullopt : StatusSnapshot::decode(status);
    tb_free(text);
    return snapshot;
}

QString takeText(char *text)
{
    return QString::fromUtf8(take(text));
}

const char *bool01(bool value)
{
    return value ? "1" : "0";
}

constexpr qint64 TrackerListMaxAgeMs = 86400LL * 1000;
constexpr int TrackerListMinimum = 5;
constexpr int TrackerListMaximum = 80;
// A list of 80 trackers is a few kilobytes; a source that sends far more is not a list.
constexpr qint64 TrackerListMaxBytes = 4 * 1024 * 1024;
constexpr double ResourceSampleSeconds = 1.0;
// A change is on disk at most this long after it was made, even while changes keep coming;
// with the save itself and a busy main thread that stays inside two seconds.
constexpr std::chrono::milliseconds SaveLimit{1500};
// A save that failed (a full disk) is tried again this often while nothing else changes.
constexpr std::chrono::milliseconds SaveRetry{5000};
constexpr double InterfaceDelayWindow = 5.0;

// One list from one source, or none when the source failed in any way.
QCoro::Task<std::optional<QStringList>> fetchTrackerList(QNetworkAccessManager *network, QUrl url,
                                                         std::chrono::milliseconds timeout)
{
    QNetworkRequest request(url);
    // Always the list as it is now: no cache is read or written and no cookies go either way.
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setTransferTimeout(static_cast<int>(timeout.count()));
    QNetworkReply *reply = network->get(request);
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > TrackerListMaxBytes)
            reply->abort();
    });
    co_await reply;
    reply->deleteLater();
    if (reply->error() != QNetworkReply::NoError
        || reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200)
        co_return std::nullopt;
    co_return parseTrackerList(reply->readAll());
}

} // namespace

double uptimeSeconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::optional<QStringList> parseTrackerList(const QByteArray &body)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder.decode(body);
    if (decoder.hasError())
        return std::nullopt;
    text.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    QStringList list;
    for (const QString &raw : text.split(QLatin1Char('\n'))) {
        const QString line = raw.trimmed();
        if (line.startsWith(QLatin1String("udp://")) || line.startsWith(QLatin1String("http://"))
            || line.startsWith(QLatin1String("https://")))
            list << line;
    }
    if (list.size() < TrackerListMinimum)
        return std::nullopt;
    if (list.size() > TrackerListMaximum)
        list.resize(TrackerListMaximum);
    return list;
}

TorrentEngine *TorrentEngine::shared()
{
    if (!g_shared)
        g_shared = new TorrentEngine(Storage::home(), nullptr, QString(), TrackerListSources::publicSources());
    return g_shared;
}

bool TorrentEngine::hasShared()
{
    return g_shared != nullptr;
}

TorrentEngine::TorrentEngine(const QString &home, QObject *parent, const QString &sessionOverrides,
                             TrackerListSources trackerLists)
    : QObject(parent)
    , m_queue(std::make_unique<SerialQueue>(QStringLiteral("velix.engine")))
    , m_lastResourceSample(-std::numeric_limits<double>::infinity())
    , m_lastInterfaceDelay(-std::numeric_limits<double>::infinity())
    , m_sessionOverrides(sessionOverrides)
    , m_trackerLists(std::move(trackerLists))
    , m_home(home)
{
    m_lastStateSave = std::chrono::steady_clock::now();

    m_saveSettingsWork = new DebouncedSave(std::chrono::milliseconds(500), SaveLimit, SaveRetry,
                                           [this] { return saveSettingsNow(); }, this);
    m_saveMetaWork = new DebouncedSave(std::chrono::milliseconds(1000), SaveLimit, SaveRetry,
                                       [this] { return saveMetaNow(); }, this);

    // Settings decode key by key, so only a file that is no JSON object at all is unusable.
    const auto settingsJson = readOwnFile(QStringLiteral("settings.json"));
    m_settings = settingsJson ? AppSettings::fromJson(*settingsJson) : AppSettings::defaults();
    const QString downloadOverride = qEnvironmentVariable("VELIX_DOWNLOAD_DIR");
    if (!downloadOverride.isEmpty())
        m_settings.downloadDirectory = downloadOverride;

    // The meta decodes strictly: one bad entry makes the whole file unusable.
    if (const auto metaJson = readOwnFile(QStringLiteral("torrents.json"))) {
        if (auto decoded = decodeMetaFile(*metaJson)) {
            m_meta = std::move(*decoded);
        } else {
            const QString path = m_home + QStringLiteral("/torrents.json");
            Storage::setAside(path);
            notify(Storage::setAsideNotice(path));
        }
    }

    const QString stateDir = m_home + QStringLiteral("/state");
    QDir().mkpath(stateDir);

    // The session starts already governed: as much as an idle machine of this size, in the
    // power and heat it is in now, may hash with. Load and the rest follow from the first poll.
    m_checkingHardware = readHardware();
    m_lowPower = new LowPowerMonitor(this);
    CheckingResources::Conditions atStart;
    atStart.lowPower = m_lowPower->lowPower();
    atStart.thermalState = readThermalState();
    m_checkingController = CheckingResourceController(CheckingResources::target(m_checkingHardware, atStart));
    m_checkingSettings = m_checkingController.current().settings();

    const QByteArray text = engineSettingsText().toUtf8();
    m_session = tb_session_create(QFile::encodeName(stateDir).constData(), text.constData());
    if (!m_session) {
        std::fprintf(stderr, "velix: the torrent session could not be created\n");
        std::exit(1);
    }
    applyTrackers();
    applyBans();
    // Saved at once so the random port and the detected profile of a first start stay; a
    // failed save is tried again until it lands.
    if (!saveSettingsNow())
        m_saveSettingsWork->changed();

    m_timer = new QTimer(this);
    m_timer->setTimerType(Qt::CoarseTimer);
    connect(m_timer, &QTimer::timeout, this, &TorrentEngine::timerTick);

    observeMemoryPressure();
    setPollInterval(1.0);
    poll();

    m_network = new QNetworkAccessManager(this);
    refreshTrackers(false);
}

TorrentEngine::~TorrentEngine()
{
    shutdown();
    if (g_shared == this)
        g_shared = nullptr;
}

QString TorrentEngine::engineSettingsText() const
{
    QString text = m_settings.libtorrentSettings() + QLatin1Char('\n') + m_checkingSettings;
    if (!m_sessionOverrides.isEmpty())
        text += QLatin1Char('\n') + m_sessionOverrides;
    return text;
}

void TorrentEngine::setSettings(const AppSettings &settings)
{
    if (settings == m_settings)
        return;
    m_settings = settings;
    emit settingsUpdated();
    settingsChanged();
}

void TorrentEngine::settingsChanged()
{
    applyEngineSettings();
    applyTrackers();
    applyBans();
    scheduleSettingsSave();
}

void TorrentEngine::applyEngineSettings()
{
    if (m_isShutDown)
        return;
    const QString text = engineSettingsText();
    if (text == m_appliedSettings)
        return;
    m_appliedSettings = text;
    tb_session *session = m_session;
    m_queue->post([session, bytes = text.toUtf8()] { tb_apply_settings(session, bytes.constData()); });
}

void TorrentEngine::applyTrackers()
{
    if (m_isShutDown)
        return;
    const QStringList urls = m_settings.extraTrackers();
    const QString joined = urls.join(QLatin1Char('\n'));
    const QString key = QStringLiteral("|") + (m_settings.trackerMirrors ? QStringLiteral("true") : QStringLiteral("false"))
        + joined;
    if (key == m_appliedTrackers)
        return;
    m_appliedTrackers = key;
    // Applying them asks every torrent for its trackers: seconds for a big library.
    tb_session *session = m_session;
    m_queue->post([session, bytes = joined.toUtf8(), mirrors = m_settings.trackerMirrors] {
        tb_set_extra_trackers(session, bytes.constData(), mirrors);
    });
}

void TorrentEngine::applyBans()
{
    if (m_isShutDown)
        return;
    const QString text = m_settings.banLeechers ? AppSettings::leecherClients.join(QLatin1Char('\n')) : QString();
    if (text == m_appliedBans)
        return;
    m_appliedBans = text;
    tb_session *session = m_session;
    m_queue->post([session, bytes = text.toUtf8()] { tb_set_banned_clients(session, bytes.constData()); });
}

void TorrentEngine::scheduleSettingsSave()
{
    m_saveSettingsWork->changed();
}

void TorrentEngine::scheduleMetaSave()
{
    m_saveMetaWork->changed();
}

bool TorrentEngine::saveSettingsNow()
{
    const QString path = m_home + QStringLiteral("/settings.json");
    return reportSave(path, Storage::save(m_settings.toJson(), path));
}

bool TorrentEngine::saveMetaNow()
{
    const QString path = m_home + QStringLiteral("/torrents.json");
    return reportSave(path, Storage::save(encodeMetaFile(m_meta), path));
}

bool TorrentEngine::reportSave(const QString &path, const std::optional<Storage::SaveError> &failure)
{
    if (!failure) {
        m_failedSaves.remove(path);
        return true;
    }
    // Logged when the file starts failing, not at every retry while the disk stays full.
    if (!m_failedSaves.contains(path))
        std::fprintf(stderr, "velix: could not save %s: %s\n", qPrintable(path), qPrintable(failure->message));
    // A full disk fails every save in turn; one toast says it, and the next comes only after
    // all of them were written again.
    if (m_failedSaves.isEmpty())
        notify(Storage::saveFailureNotice(path, *failure));
    m_failedSaves.insert(path);
    return false;
}

std::optional<QJsonObject> TorrentEngine::readOwnFile(const QString &name)
{
    const QString path = m_home + QLatin1Char('/') + name;
    Storage::ReadFile file = Storage::read(path);
    if (file.unreadable) {
        Storage::setAside(path);
        notify(Storage::setAsideNotice(path));
    }
    return file.object;
}

void TorrentEngine::updateMeta(const QString &id, const std::function<void(TorrentMeta &)> &change)
{
    TorrentMeta entry = m_meta.value(id);
    const bool existed = m_meta.contains(id);
    change(entry);
    if (existed && entry == m_meta.value(id))
        return;
    if (!existed && entry == TorrentMeta())
        return;
    m_meta.insert(id, entry);
    emit metaChanged();
    scheduleMetaSave();
}

void TorrentEngine::setFocusRequest(const QString &id)
{
    const std::optional<QString> value = id.isEmpty() ? std::nullopt : std::optional<QString>(id);
    if (value == m_focusRequest)
        return;
    m_focusRequest = value;
    emit focusRequestChanged();
}

void TorrentEngine::setPendingOpen(const QList<QUrl> &urls)
{
    if (urls == m_pendingOpen)
        return;
    m_pendingOpen = urls;
    emit pendingOpenChanged();
}

void TorrentEngine::appendPendingOpen(const QList<QUrl> &urls)
{
    if (urls.isEmpty())
        return;
    m_pendingOpen << urls;
    emit pendingOpenChanged();
}

std::optional<TorrentStatus> TorrentEngine::torrent(const QString &id) const
{
    for (const TorrentStatus &t : m_torrents) {
        if (t.id == id)
            return t;
    }
    return std::nullopt;
}

void TorrentEngine::setPollInterval(double seconds)
{
    if (seconds == m_pollInterval)
        return;
    m_pollInterval = seconds;
    m_lastTimerTick.reset();
    m_timer->stop();
    m_timer->start(static_cast<int>(std::lround(seconds * 1000)));
}

namespace {

// VELIX_POLL_LOG=1 writes the main thread's share of every poll to standard error, for the
// benchmarks that watch a big library.
bool pollLogEnabled()
{
    static const bool enabled = qEnvironmentVariableIntValue("VELIX_POLL_LOG") == 1;
    return enabled;
}

} // namespace

void TorrentEngine::timerTick()
{
    const double now = uptimeSeconds();
    if (m_lastTimerTick && m_pollInterval > 0 && m_pollInterval < 1) {
        // A fast poll that comes late says the main thread is busy; the check governor reads
        // this as a sign that the interface suffers.
        const double lateness = now - *m_lastTimerTick - m_pollInterval;
        if (lateness > m_pollInterval * 0.1 + 0.1)
            m_lastInterfaceDelay = now;
    }
    if (pollLogEnabled() && m_lastTimerTick)
        std::fprintf(stderr, "poll tick late_ms=%.3f interval_ms=%.0f\n",
                     (now - *m_lastTimerTick - m_pollInterval) * 1000.0, m_pollInterval * 1000.0);
    m_lastTimerTick = now;
    poll();
}

void TorrentEngine::poll()
{
    if (m_isShutDown)
        return;
    updateCheckingResources(false);
    if (m_pollInFlight) {
        // The round under way may have been taken before what asked for this one happened.
        m_pollWanted = true;
        return;
    }
    m_pollInFlight = true;
    m_pollWanted = false;
    ++m_statusRounds;
    tb_session *session = m_session;
    QPointer<TorrentEngine> self(this);
    std::vector<std::shared_ptr<QPromise<void>>> waiters;
    waiters.swap(m_pollWaiters);
    m_queue->post([session, self, waiters = std::move(waiters)]() mutable {
        std::optional<StatusSnapshot> snapshot = takeStatus(session);
        const QList<TorrentEvent> events = TorrentEvent::decodeList(take(tb_poll_events(session)));
        postToMain(self.data(), [self, snapshot = std::move(snapshot), events, waiters = std::move(waiters)] {
            if (self)
                self->pollDone(snapshot, events);
            for (const auto &waiter : waiters)
                waiter->finish();
        });
    });
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastStateSave > std::chrono::seconds(60)) {
        m_lastStateSave = now;
        m_queue->post([session] { tb_save_state(session); });
    }
}

void TorrentEngine::pollDone(const std::optional<StatusSnapshot> &snapshot, const QList<TorrentEvent> &events)
{
    m_pollInFlight = false;
    apply(snapshot, events);
    if (m_pollWanted)
        poll();
}

void TorrentEngine::apply(const std::optional<StatusSnapshot> &snapshot, const QList<TorrentEvent> &events)
{
    if (!snapshot || m_isShutDown)
        return;
    QElapsedTimer took;
    took.start();
    const auto logTime = qScopeGuard([&] {
        if (pollLogEnabled())
            std::fprintf(stderr, "poll apply_ms=%.3f torrents=%lld\n", static_cast<double>(took.nsecsElapsed()) / 1e6,
                         static_cast<long long>(snapshot->torrents.size()));
    });
    if (snapshot->session != m_sessionInfo) {
        m_sessionInfo = snapshot->session;
        emit sessionInfoChanged();
    }
    const double now = uptimeSeconds();
    QSet<QString> ids;
    for (const TorrentStatus &t : snapshot->torrents)
        ids.insert(t.id);
    m_checkingProgress.retain(ids);

    QList<TorrentStatus> torrents = snapshot->torrents;
    bool checking = false;
    for (TorrentStatus &t : torrents) {
        const bool active = t.state == QLatin1String("checking") && !t.paused && t.error.isEmpty();
        // A check waiting in the queue starts as soon as the one before it ends; the fast
        // poll shows that end, and the start, without a second's delay.
        const bool queued = t.state == QLatin1String("checking") && t.paused && t.autoManaged && t.error.isEmpty();
        checking = checking || active || queued;
        const auto rate = m_checkingProgress.update(t.id, t.progress, t.total, active, now);
        t.checkingRate = rate ? std::optional<double>(static_cast<double>(*rate)) : std::nullopt;
    }
    std::stable_sort(torrents.begin(), torrents.end(), [](const TorrentStatus &a, const TorrentStatus &b) {
        if (a.added != b.added)
            return a.added > b.added;
        return a.name < b.name;
    });
    if (torrents != m_torrents) {
        m_torrents = torrents;
        emit torrentsChanged();
    }
    setPollInterval(checking ? 0.25 : 1.0);
    for (const TorrentEvent &event : events)
        handle(event);
    enforceSeedLimits();
}

QCoro::Task<void> TorrentEngine::refreshForAutomation()
{
    if (m_isShutDown)
        co_return;
    auto waiter = std::make_shared<QPromise<void>>();
    QFuture<void> applied = waiter->future();
    waiter->start();
    m_pollWaiters.push_back(std::move(waiter));
    poll();
    co_await applied;
}

QCoro::Task<void> TorrentEngine::runOnQueue(std::function<void()> work)
{
    QFuture<void> done = m_queue->run<void>(std::move(work));
    co_await done;
}

void TorrentEngine::shutdown()
{
    if (m_isShutDown)
        return;
    m_isShutDown = true;
    if (m_timer)
        m_timer->stop();
    // Whoever waits for a round gets none; the waits end here rather than never.
    for (const auto &waiter : m_pollWaiters)
        waiter->finish();
    m_pollWaiters.clear();
    delete m_memoryPressureSource;
    m_memoryPressureSource = nullptr;
    // A tracker list fetch that is under way ends here and finds the engine shut down.
    if (m_network) {
        for (QNetworkReply *reply : m_network->findChildren<QNetworkReply *>())
            reply->abort();
    }
    // Everything posted so far finishes before the session goes.
    m_queue->sync([] {});
    // Whatever waits is saved now, and both files once more; nothing is tried later.
    m_saveSettingsWork->cancel();
    m_saveMetaWork->cancel();
    saveSettingsNow();
    saveMetaNow();
    tb_session_destroy(m_session);
    m_session = nullptr;
}

// Hash check governance ----------------------------------------------------------------------------

void TorrentEngine::observeMemoryPressure()
{
    m_memoryPressureSource = new MemoryPressureWatcher(this);
    connect(m_memoryPressureSource, &MemoryPressureWatcher::levelChanged, this, &TorrentEngine::memoryPressureChanged);
}

void TorrentEngine::memoryPressureChanged(MemoryPressure level)
{
    m_memoryPressure = level;
    updateCheckingResources(true);
}

void TorrentEngine::setCheckingPlaybackActive(bool active)
{
    if (active == m_checkingPlaybackActive)
        return;
    m_checkingPlaybackActive = active;
    updateCheckingResources(true);
}

void TorrentEngine::updateCheckingResources(bool force)
{
    if (m_isShutDown)
        return;
    const double now = uptimeSeconds();
    if (now - m_lastResourceSample >= ResourceSampleSeconds) {
        m_lastResourceSample = now;
        m_otherBusyCores = m_checkingLoad.sample(m_checkingHardware.processors, now);
    } else if (!force) {
        return;
    }
    CheckingResources::Conditions conditions;
    conditions.otherBusyCores = m_otherBusyCores;
    conditions.playbackActive = m_checkingPlaybackActive;
    conditions.lowPower = m_lowPower->lowPower();
    conditions.thermalState = readThermalState();
    conditions.memoryPressure = m_memoryPressure;
    conditions.interfaceDelayed = now - m_lastInterfaceDelay < InterfaceDelayWindow;

    const CheckingResources before = m_checkingController.current();
    const CheckingResources &after =
        m_checkingController.update(CheckingResources::target(m_checkingHardware, conditions), now);
    if (after == before)
        return;
    m_checkingSettings = after.settings();
    applyEngineSettings();
}

// Tracker lists -----------------------------------------------------------------------------------

void TorrentEngine::setTrackerFetchStatus(const std::optional<QString> &text)
{
    if (text == m_trackerFetchStatus)
        return;
    m_trackerFetchStatus = text;
    emit trackerFetchStatusChanged();
}

QCoro::Task<void> TorrentEngine::refreshTrackers(bool force)
{
    if (m_isShutDown || !m_settings.autoTrackers)
        co_return;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (!force && m_settings.trackersFetchedAt && m_settings.trackersFetchedAt->msecsTo(now) < TrackerListMaxAgeMs)
        co_return;
    const QList<QUrl> sources = m_trackerLists.publicLists ? trackerSources(m_settings.profile) : m_trackerLists.urls;
    if (sources.isEmpty())
        co_return;
    const std::chrono::milliseconds timeout = m_trackerLists.timeout;
    QNetworkAccessManager *network = m_network;
    setTrackerFetchStatus(QStringLiteral("Обновление…"));

    QPointer<TorrentEngine> self(this);
    for (const QUrl &source : sources) {
        auto listTask = fetchTrackerList(network, source, timeout);
        const std::optional<QStringList> list = co_await std::move(listTask);
        if (!self || self->m_isShutDown)
            co_return;
        if (!list)
            continue;
        // Settings as they are now, not as they were before the wait: the user may have changed
        // something meanwhile. The setter applies the trackers at once and schedules the save.
        AppSettings next = self->m_settings;
        next.fetchedTrackers = *list;
        next.trackersFetchedAt = QDateTime::currentDateTimeUtc();
        self->setSettings(next);
        self->setTrackerFetchStatus(QString::number(list->size()) + QStringLiteral(" · ") + source.host());
        co_return;
    }
    self->setTrackerFetchStatus(QStringLiteral("Источники недоступны"));
}

// Commands ---------------------------------------------------------------------------------------

template <typename T, typename Fn>
QFuture<T> TorrentEngine::command(Fn fn)
{
    QFuture<T> done = m_queue->run<T>(std::move(fn));
    // Posted behind the command, so the round shows what it did.
    poll();
    return done;
}

AddOutcome TorrentEngine::finishAdd(char *id, char *error)
{
    const QString idText = takeText(id);
    const QString errorText = takeText(error);
    if (!idText.isEmpty())
        return AddResult{idText, errorText == QLatin1String("duplicate")};
    return EngineError{errorText.isEmpty() ? QStringLiteral("Не удалось добавить торрент") : errorText};
}

QCoro::Task<AddOutcome> TorrentEngine::addTorrent(QString path, QString savePath, std::optional<QList<int>> priorities,
                                                  bool paused, bool sequential)
{
    if (m_isShutDown)
        co_return EngineError{QStringLiteral("Не удалось добавить торрент")};
    QStringList lines{QStringLiteral("save_path=") + savePath, QStringLiteral("paused=") + QLatin1String(bool01(paused)),
                      QStringLiteral("sequential=") + QLatin1String(bool01(sequential))};
    if (priorities) {
        QStringList numbers;
        for (int p : *priorities)
            numbers << QString::number(p);
        lines << QStringLiteral("priorities=") + numbers.join(QLatin1Char(','));
    }
    tb_session *session = m_session;
    QFuture<AddOutcome> added = command<AddOutcome>(
        [session, file = QFile::encodeName(path), savePath, options = lines.join(QLatin1Char('\n')).toUtf8()] {
            // A directory that can't be made is the library's to report, with its own words.
            QDir().mkpath(savePath);
            char *error = nullptr;
            char *id = tb_add_torrent(session, file.constData(), options.constData(), &error);
            return finishAdd(id, error);
        });
    co_return co_await added;
}

QCoro::Task<AddOutcome> TorrentEngine::addMagnet(QString uri, QString savePath, bool chooseFiles, bool paused,
                                                 bool sequential)
{
    if (m_isShutDown)
        co_return EngineError{QStringLiteral("Не удалось добавить торрент")};
    const QStringList lines{QStringLiteral("save_path=") + savePath,
                            QStringLiteral("paused=") + QLatin1String(bool01(paused)),
                            QStringLiteral("sequential=") + QLatin1String(bool01(sequential)),
                            QStringLiteral("choose=") + QLatin1String(bool01(chooseFiles))};
    tb_session *session = m_session;
    QFuture<AddOutcome> added = command<AddOutcome>(
        [session, link = uri.toUtf8(), savePath, options = lines.join(QLatin1Char('\n')).toUtf8()] {
            QDir().mkpath(savePath);
            char *error = nullptr;
            char *id = tb_add_magnet(session, link.constData(), options.constData(), &error);
            return finishAdd(id, error);
        });
    co_return co_await added;
}

QCoro::Task<TorrentPreview> TorrentEngine::preview(QString path)
{
    // Reading the file is disk work; it needs no session and keeps the queue's order anyway.
    QFuture<TorrentPreview> read = m_queue->run<TorrentPreview>([file = QFile::encodeName(path)] {
        return TorrentPreview::decode(take(tb_inspect_torrent(file.constData())));
    });
    co_return co_await read;
}

bool TorrentEngine::settingsLimitReached(const TorrentStatus &t) const
{
    const double base = static_cast<double>(std::max(t.totalDone, t.downloaded));
    const double ratio = base < 1 ? 0.0 : static_cast<double>(t.uploaded) / base;
    if (m_settings.ratioLimit > 0 && ratio >= m_settings.ratioLimit)
        return true;
    return m_settings.seedTimeLimitMinutes >= 1 && t.seedingTime >= 60LL * m_settings.seedTimeLimitMinutes;
}

namespace {

// The action words of the bridge for a list of ids, on the engine's queue.
void actOn(tb_session *session, const QStringList &ids, const QByteArray &word)
{
    for (const QString &id : ids)
        tb_action(session, id.toUtf8().constData(), word.constData());
}

} // namespace

QCoro::Task<void> TorrentEngine::resume(QStringList ids)
{
    if (m_isShutDown)
        co_return;
    for (const QString &id : ids) {
        const auto t = torrent(id);
        if (t && (t->finished || t->seeding) && settingsLimitReached(*t)) {
            // The user's resume overrules the limit for this torrent for good.
            updateMeta(id, [](TorrentMeta &m) { m.ignoreSeedLimits = true; });
        }
    }
    tb_session *session = m_session;
    QFuture<void> done = command<void>([session, ids] { actOn(session, ids, "resume"); });
    co_await done;
}

QCoro::Task<void> TorrentEngine::pause(QStringList ids)
{
    if (m_isShutDown)
        co_return;
    tb_session *session = m_session;
    QFuture<void> done = command<void>([session, ids] { actOn(session, ids, "pause"); });
    co_await done;
}

QCoro::Task<void> TorrentEngine::togglePause(QString id)
{
    const auto t = torrent(id);
    if (!t)
        co_return;
    QCoro::Task<void> toggled = (!t->paused || t->autoManaged) ? pause({id}) : resume({id});
    co_await std::move(toggled);
}

QCoro::Task<void> TorrentEngine::action(QString name, QStringList ids)
{
    if (m_isShutDown)
        co_return;
    // The rate of the old check means nothing for the new one.
    if (name == QLatin1String("recheck")) {
        for (const QString &id : ids)
            m_checkingProgress.remove(id);
    }
    tb_session *session = m_session;
    QFuture<void> done = command<void>([session, ids, word = name.toUtf8()] { actOn(session, ids, word); });
    co_await done;
}

QCoro::Task<void> TorrentEngine::remove(QStringList ids, bool deleteFiles)
{
    if (m_isShutDown)
        co_return;
    bool metaChangedHere = false;
    for (const QString &id : ids)
        metaChangedHere = m_meta.remove(id) > 0 || metaChangedHere;
    if (metaChangedHere)
        emit metaChanged();
    scheduleMetaSave();
    tb_session *session = m_session;
    QFuture<void> done = command<void>([session, ids, deleteFiles] {
        for (const QString &id : ids)
            tb_remove(session, id.toUtf8().constData(), deleteFiles ? 1 : 0);
    });
    co_await done;
}

QCoro::Task<void> TorrentEngine::setPriority(QString id, QList<int> files, FilePriority priority)
{
    if (files.isEmpty() || m_isShutDown)
        co_return;
    int value = 4;
    switch (priority) {
    case FilePriority::skip: value = 0; break;
    case FilePriority::low: value = 1; break;
    case FilePriority::normal: value = 4; break;
    case FilePriority::high: value = 7; break;
    }
    tb_session *session = m_session;
    QFuture<void> done = command<void>([session, key = id.toUtf8(), files, value] {
        std::vector<int32_t> indexes(files.begin(), files.end());
        tb_set_file_priorities(session, key.constData(), indexes.data(), static_cast<int32_t>(indexes.size()), value);
    });
    co_await done;
}

QCoro::Task<bool> TorrentEngine::setLimits(QString id, TorrentLimits limits)
{
    if (m_isShutDown)
        co_return false;
    // A limit not given keeps what the torrent has; the rates come back from the status in
    // bytes, where a negative value means none. With all four given, a torrent added a moment
    // ago and not yet in the published state takes them too.
    const TorrentStatus t = torrent(id).value_or(TorrentStatus{});
    const bool complete = limits.downloadKiB && limits.uploadKiB && limits.connections && limits.uploadSlots;
    if (!complete && !torrent(id))
        co_return false;
    const qint64 downloadKiB = limits.downloadKiB.value_or(std::max<qint64>(t.downloadRateLimit, 0) / 1024);
    const qint64 uploadKiB = limits.uploadKiB.value_or(std::max<qint64>(t.uploadRateLimit, 0) / 1024);
    const qint64 connections = limits.connections.value_or(t.connectionsLimit);
    const qint64 uploadSlots = limits.uploadSlots.value_or(t.uploadsLimit);
    // The bridge takes 32 bits; more than that is no limit a session could tell apart.
    const auto clamped = [](qint64 value) {
        return static_cast<int32_t>(std::clamp<qint64>(value, std::numeric_limits<int32_t>::min(),
                                                       std::numeric_limits<int32_t>::max()));
    };
    const auto bytes = [&clamped](qint64 kib) {
        constexpr qint64 Bound = std::numeric_limits<qint64>::max() / 1024;
        return clamped(std::clamp(kib, -Bound, Bound) * 1024);
    };
    tb_session *session = m_session;
    QFuture<bool> done = command<bool>([session, key = id.toUtf8(), down = bytes(downloadKiB), up = bytes(uploadKiB),
                                        conns = clamped(connections), unchokes = clamped(uploadSlots)] {
        return tb_set_limits(session, key.constData(), down, up, conns, unchokes);
    });
    co_return co_await done;
}

QCoro::Task<bool> TorrentEngine::addTrackers(QString id, QStringList urls)
{
    if (m_isShutDown)
        co_return false;
    tb_session *session = m_session;
    QFuture<bool> done = command<bool>([session, key = id.toUtf8(), text = urls.join(QLatin1Char('\n')).toUtf8()] {
        return tb_add_trackers(session, key.constData(), text.constData());
    });
    co_return co_await done;
}

QCoro::Task<bool> TorrentEngine::moveStorage(QString id, QString path)
{
    if (m_isShutDown)
        co_return false;
    tb_session *session = m_session;
    QFuture<bool> done = command<bool>([session, key = id.toUtf8(), target = QFile::encodeName(path)] {
        return tb_move_storage(session, key.constData(), target.constData());
    });
    co_return co_await done;
}

QCoro::Task<double> TorrentEngine::streamProgress(QString id, int file)
{
    if (m_isShutDown)
        co_return -1.0;
    tb_session *session = m_session;
    QFuture<double> share = m_queue->run<double>(
        [session, key = id.toUtf8(), file] { return tb_stream_progress(session, key.constData(), file); });
    co_return co_await share;
}

QCoro::Task<void> TorrentEngine::prefetch(QString id, int file, qint64 bytes, double fraction)
{
    if (m_isShutDown)
        co_return;
    tb_session *session = m_session;
    QFuture<void> done = m_queue->run<void>([session, key = id.toUtf8(), file, bytes, fraction] {
        tb_prefetch(session, key.constData(), file, bytes, fraction);
    });
    co_await done;
}

TorrentStreamOpener TorrentEngine::streamOpener(const QString &id, int file) const
{
    return m_isShutDown ? TorrentStreamOpener() : TorrentStreamOpener(m_session, id, file);
}

bool TorrentEngine::streamWaiting(const QString &id, int file) const
{
    return !m_isShutDown && tb_stream_waiting(m_session, id.toUtf8().constData(), file);
}

void TorrentEngine::setToast(const std::optional<QString> &text)
{
    if (text == m_toast)
        return;
    m_toast = text;
    emit toastChanged();
}

void TorrentEngine::show(const QString &text)
{
    setToast(text);
    QPointer<TorrentEngine> self(this);
    QTimer::singleShot(5000, this, [self, text] {
        // Only the toast this timer was started for is cleared; a newer one has its own timer.
        if (!self || self->m_toast != text)
            return;
        if (self->m_notices.isEmpty())
            self->setToast(std::nullopt);
        else
            self->show(self->m_notices.takeFirst());
    });
}

void TorrentEngine::notify(const QString &text)
{
    if (m_toast)
        m_notices << text;
    else
        show(text);
}

void TorrentEngine::handle(const TorrentEvent &event)
{
    const QString &type = event.type;
    if (type == QLatin1String("finished")) {
        const auto t = torrent(event.id);
        if (t && t->wanted >= 1)
            show(QStringLiteral("«") + event.name + QStringLiteral("» скачан"));
    } else if (type == QLatin1String("metadata")) {
        setFocusRequest(event.id);
    } else if (type == QLatin1String("error")) {
        show(QStringLiteral("«") + event.name + QStringLiteral("»: ") + event.message);
    } else if (type == QLatin1String("recheck")) {
        show(QStringLiteral("«") + event.name + QStringLiteral("»: проверка файлов"));
    } else if (type == QLatin1String("listen_failed")) {
        show(QStringLiteral("Порт недоступен: ") + event.message);
    } else if (type == QLatin1String("save_failed")) {
        notify(event.message);
    }
}

void TorrentEngine::enforceSeedLimits()
{
    if (m_settings.ratioLimit <= 0 && m_settings.seedTimeLimitMinutes < 1)
        return;
    for (const TorrentStatus &t : m_torrents) {
        if (!t.seeding || t.paused)
            continue;
        if (m_meta.value(t.id).ignoreSeedLimits)
            continue;
        if (settingsLimitReached(t)) {
            tb_session *session = m_session;
            m_queue->post([session, key = t.id.toUtf8()] { tb_action(session, key.constData(), "pause"); });
            show(QStringLiteral("Раздача «") + t.name + QStringLiteral("» остановлена по лимиту"));
        }
    }
}

void TorrentEngine::reveal(const QString &id, int file)
{
    revealTask(id, file);
}

QCoro::Task<void> TorrentEngine::revealTask(QString id, int file)
{
    const auto t = torrent(id);
    if (!t)
        co_return;
    const QString savePath = t->savePath;
    QString target = QDir(savePath).filePath(t->name);
    if (file >= 0) {
        QPointer<TorrentEngine> self(this);
        auto listing = files(id);
        const QList<TorrentFile> list = co_await std::move(listing);
        if (!self)
            co_return;
        for (const TorrentFile &f : list) {
            if (f.i == file)
                target = QDir(savePath).filePath(f.path);
        }
    }
    // The file manager is asked without waiting for it; without one the folder opens instead.
    const QString folder = QFileInfo::exists(target) ? QFileInfo(target).absolutePath() : savePath;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(QFileInfo::exists(target) ? target : savePath).toString()} << QString();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
        co_return;
    }
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 2000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [folder](QDBusPendingCallWatcher *w) {
        if (w->isError())
            QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
        w->deleteLater();
    });
}

// Reports ----------------------------------------------------------------------------------------
// g++ 12 destroys a temporary argument of a call inside a co_await expression twice, and a
// captured id would lose a reference each time: each report's work becomes a future in a
// statement of its own before it is awaited.

QCoro::Task<QList<TorrentFile>> TorrentEngine::files(QString id)
{
    if (m_isShutDown)
        co_return {};
    tb_session *session = m_session;
    QFuture<QList<TorrentFile>> report = m_queue->run<QList<TorrentFile>>(
        [session, id] { return decodeTorrentFiles(take(tb_files_json(session, id.toUtf8().constData()))); });
    co_return co_await report;
}

QCoro::Task<QList<PeerInfo>> TorrentEngine::peers(QString id)
{
    if (m_isShutDown)
        co_return {};
    tb_session *session = m_session;
    QFuture<QList<PeerInfo>> report = m_queue->run<QList<PeerInfo>>(
        [session, id] { return PeerInfo::decodeList(take(tb_peers_json(session, id.toUtf8().constData()))); });
    co_return co_await report;
}

QCoro::Task<QList<TrackerInfo>> TorrentEngine::trackers(QString id)
{
    if (m_isShutDown)
        co_return {};
    tb_session *session = m_session;
    QFuture<QList<TrackerInfo>> report = m_queue->run<QList<TrackerInfo>>(
        [session, id] { return TrackerInfo::decodeList(take(tb_trackers_json(session, id.toUtf8().constData()))); });
    co_return co_await report;
}

QCoro::Task<QString> TorrentEngine::pieces(QString id, int file)
{
    if (m_isShutDown)
        co_return QString();
    tb_session *session = m_session;
    QFuture<QString> report = m_queue->run<QString>(
        [session, id, file] { return takeText(tb_pieces(session, id.toUtf8().constData(), file)); });
    co_return co_await report;
}

QCoro::Task<PieceMap> TorrentEngine::pieceMap(QString id)
{
    if (m_isShutDown)
        co_return PieceMap{};
    const auto now = std::chrono::steady_clock::now();
    const auto cached = m_pieceMapCache.constFind(id);
    if (cached != m_pieceMapCache.constEnd() && now - cached->date < std::chrono::milliseconds(1500))
        co_return cached->map;
    tb_session *session = m_session;
    QPointer<TorrentEngine> self(this);
    QFuture<QByteArray> report = m_queue->run<QByteArray>(
        [session, id] { return take(tb_piece_states(session, id.toUtf8().constData())); });
    const QByteArray digits = co_await report;
    if (!self || self->m_isShutDown)
        co_return PieceMap{};
    const auto back = std::chrono::steady_clock::now();
    for (auto it = self->m_pieceMapCache.begin(); it != self->m_pieceMapCache.end();) {
        if (back - it->date > std::chrono::seconds(10))
            it = self->m_pieceMapCache.erase(it);
        else
            ++it;
    }
    PieceMap map{digits};
    self->m_pieceMapCache.insert(id, CachedMap{back, map});
    co_return map;
}

QCoro::Task<QString> TorrentEngine::networkDiagnostics()
{
    if (m_isShutDown)
        co_return QStringLiteral("{}");
    tb_session *session = m_session;
    const QString text = co_await m_queue->run<QString>([session] { return takeText(tb_diagnostics_json(session)); });
    co_return text.isEmpty() ? QStringLiteral("{}") : text;
}

QCoro::Task<QString> TorrentEngine::peerDiagnostics(QString id)
{
    if (m_isShutDown)
        co_return QStringLiteral("[]");
    tb_session *session = m_session;
    QFuture<QString> report = m_queue->run<QString>(
        [session, id] { return takeText(tb_peers_json(session, id.toUtf8().constData())); });
    const QString text = co_await report;
    co_return text.isEmpty() ? QStringLiteral("[]") : text;
}
