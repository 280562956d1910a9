#pragma once

#include "checking/CheckingLoadSampler.h"
#include "checking/CheckingProgressEstimator.h"
#include "checking/CheckingResourceController.h"
#include "checking/CheckingResources.h"
#include "engine/AppSettings.h"
#include "engine/Storage.h"
#include "engine/TorrentMeta.h"
#include "engine/TorrentReports.h"
#include "engine/TorrentStatus.h"
#include "engine/TorrentStream.h"
#include "media/TorrentFile.h"

#include <QHash>
#include <QJsonObject>
#include <QSet>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QUrl>

#include <QCoroTask>
#include <QFuture>
#include <QPromise>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

class DebouncedSave;
class LowPowerMonitor;
class MemoryPressureWatcher;
class QNetworkAccessManager;
class SerialQueue;
struct tb_session;

struct AddResult
{
    QString id;
    bool duplicate = false;
    bool operator==(const AddResult &) const = default;
};

using AddOutcome = std::variant<AddResult, EngineError>;

// Limits of one torrent as a caller gives them: rates in KiB per second (0 for none),
// connections and upload slots (below 1 for none). A limit left empty keeps what the torrent has.
struct TorrentLimits
{
    std::optional<qint64> downloadKiB;
    std::optional<qint64> uploadKiB;
    std::optional<qint64> connections;
    std::optional<qint64> uploadSlots;
    bool operator==(const TorrentLimits &) const = default;
};

// Where the engine fetches public tracker lists from. The process-wide engine uses the public
// lists of the current profile; an engine made with the defaults fetches only from the addresses
// it is given, none at first, so a test or a script never reaches beyond the machine unasked.
struct TrackerListSources
{
    bool publicLists = false;
    QList<QUrl> urls;
    // A source that sends nothing for this long has failed.
    std::chrono::milliseconds timeout{12000};

    static TrackerListSources publicSources() { return TrackerListSources{true, {}, std::chrono::milliseconds(12000)}; }
};

// The one owner of the torrent session. It polls the bridge on its own serial queue, decodes
// there, and publishes on the main thread only what changed; everything else in the program
// reads the published state and calls the commands below on the main thread. No call here
// waits on the session: each bridge call runs on the queue and is awaited.
class TorrentEngine : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString toast READ toast NOTIFY toastChanged)
    Q_PROPERTY(QString trackerFetchStatus READ trackerFetchStatus NOTIFY trackerFetchStatusChanged)
    Q_PROPERTY(QString focusRequest READ focusRequest WRITE setFocusRequest NOTIFY focusRequestChanged)
    Q_PROPERTY(QList<QUrl> pendingOpen READ pendingOpen WRITE setPendingOpen NOTIFY pendingOpenChanged)

public:
    // The process-wide engine, made at first use with Storage::home(). A failed session start
    // ends the process.
    static TorrentEngine *shared();
    static bool hasShared();

    // An engine on its own data directory; the process-wide one is made through shared().
    // `sessionOverrides` are settings lines applied after all others; tests use them to keep a
    // session on 127.0.0.1 with nothing that reaches beyond the machine. The tracker lists are
    // fetched once at construction from `trackerLists`, when they are due.
    explicit TorrentEngine(const QString &home, QObject *parent = nullptr, const QString &sessionOverrides = {},
                           TrackerListSources trackerLists = {});
    ~TorrentEngine() override;

    // Published state, main thread only.
    const QList<TorrentStatus> &torrents() const { return m_torrents; }
    const SessionInfo &sessionInfo() const { return m_sessionInfo; }
    const AppSettings &settings() const { return m_settings; }
    // Compares and, on a real change, applies the new settings to the session at once and
    // saves them 0.5 s after the last change, or 1.5 s after the first unsaved one when
    // changes keep coming.
    void setSettings(const AppSettings &settings);
    const QMap<QString, TorrentMeta> &meta() const { return m_meta; }
    QString toast() const { return m_toast.value_or(QString()); }
    QString trackerFetchStatus() const { return m_trackerFetchStatus.value_or(QString()); }
    QString focusRequest() const { return m_focusRequest.value_or(QString()); }
    void setFocusRequest(const QString &id);
    QList<QUrl> pendingOpen() const { return m_pendingOpen; }
    void setPendingOpen(const QList<QUrl> &urls);
    void appendPendingOpen(const QList<QUrl> &urls);

    std::optional<TorrentStatus> torrent(const QString &id) const;
    double pollInterval() const { return m_pollInterval; }
    bool isShutDown() const { return m_isShutDown; }
    QString home() const { return m_home; }
    // Uptime (seconds) at which the poll timer last came late, or -infinity.
    double lastInterfaceDelay() const { return m_lastInterfaceDelay; }
    // The bridge session, for libmpv's stream protocol, whose reads block on libmpv's own
    // thread. Null after shutdown.
    tb_session *session() const { return m_isShutDown ? nullptr : m_session; }

    // Fetches the public tracker lists into the settings, at most once a day unless `force`,
    // trying each source in turn; trackerFetchStatus tells how it went. Starts and ends on the
    // main thread and never blocks it; overlapping calls are allowed, the one that ends last wins.
    QCoro::Task<void> refreshTrackers(bool force);
    // Replaces the sources of later fetches; one under way keeps its own.
    void setTrackerListSources(const TrackerListSources &sources) { m_trackerLists = sources; }

    // Hash check governance. The player says here whether it is playing, which cuts the hashing
    // threads at once; the rest (load, heat, power, memory pressure, a late main thread) the
    // engine watches itself and re-evaluates on every poll.
    bool checkingPlaybackActive() const { return m_checkingPlaybackActive; }
    void setCheckingPlaybackActive(bool active);
    const CheckingResources &checkingResources() const { return m_checkingController.current(); }
    const CheckingResources::Hardware &checkingHardware() const { return m_checkingHardware; }
    MemoryPressure memoryPressure() const { return m_memoryPressure; }
    // Cores that other processes keep busy, as last sampled, and when (uptime seconds).
    double otherBusyCores() const { return m_otherBusyCores; }
    double lastResourceSample() const { return m_lastResourceSample; }

    // Changes the meta of one torrent; saves 1.0 s after the last change when it really changed,
    // and at most 1.5 s after the first unsaved one.
    void updateMeta(const QString &id, const std::function<void(TorrentMeta &)> &change);

    // Asks for a status round. At most one is under way: one asked meanwhile is taken once
    // that one is applied, however many were asked, so a burst of commands or a late timer
    // never queues status builds behind each other.
    void poll();
    // Status taken after this call and applied before the task ends, for callers that must
    // see the effect of their last command.
    QCoro::Task<void> refreshForAutomation();
    // Status rounds taken since the start; benchmarks and tests watch it.
    quint64 statusRounds() const { return m_statusRounds; }
    // Runs work on the engine's queue after everything already sent there; the task ends when
    // it has run. For work that must keep the engine's order, as benchmarks and tests do.
    QCoro::Task<void> runOnQueue(std::function<void()> work);
    // Saves settings and meta, then closes the session within its limits. Blocks; once only.
    void shutdown();

    // Commands. Each is started on the main thread (a view's model, a server route, an
    // automation tool), runs its bridge call on the engine's queue after everything sent
    // before it, asks for a status round, and ends when the call has returned. Awaiting is
    // optional: a command left to run still runs, in order.
    QCoro::Task<AddOutcome> addTorrent(QString path, QString savePath, std::optional<QList<int>> priorities,
                                       bool paused, bool sequential);
    QCoro::Task<AddOutcome> addMagnet(QString uri, QString savePath, bool chooseFiles, bool paused, bool sequential);
    QCoro::Task<TorrentPreview> preview(QString path);
    // Resume lifts the seeding limits of a torrent that reached them, for good.
    QCoro::Task<void> resume(QStringList ids);
    QCoro::Task<void> pause(QStringList ids);
    QCoro::Task<void> togglePause(QString id);
    QCoro::Task<void> action(QString name, QStringList ids);
    QCoro::Task<void> remove(QStringList ids, bool deleteFiles);
    QCoro::Task<void> setPriority(QString id, QList<int> files, FilePriority priority);
    // Limits left empty are filled from what the torrent has; false for an unknown torrent.
    QCoro::Task<bool> setLimits(QString id, TorrentLimits limits);
    QCoro::Task<bool> addTrackers(QString id, QStringList urls);
    QCoro::Task<bool> moveStorage(QString id, QString path);

    // The player's calls on a stream, also on the queue. Share of the piece a read of the
    // file waits for, 0..1, or -1 when no read waits.
    QCoro::Task<double> streamProgress(QString id, int file);
    // Warms `bytes` of a file around a fraction of it, for a stream that isn't open yet.
    QCoro::Task<void> prefetch(QString id, int file, qint64 bytes, double fraction);
    // Whether a read of the file waits for a piece right now. Reads what the stream readers
    // publish and never waits on the session, so the main thread may ask at any moment.
    bool streamWaiting(const QString &id, int file) const;
    // What a thread that may block opens a stream of the file with; empty after shutdown.
    TorrentStreamOpener streamOpener(const QString &id, int file) const;

    void show(const QString &text);
    // A toast that must not be lost under another: shown now when none shows, else after the
    // ones before it. For files that could not be read or saved.
    void notify(const QString &text);
    // Every save of a file the user would miss goes through here: a failure is logged with the
    // path and the error, and shown once until that file, and every other one that failed with
    // it, is saved again. Answers whether the file was saved.
    bool reportSave(const QString &path, const std::optional<Storage::SaveError> &failure);
    void reveal(const QString &id, int file);
    bool settingsLimitReached(const TorrentStatus &t) const;

    // Reports, run on the engine's queue.
    QCoro::Task<QList<TorrentFile>> files(QString id);
    QCoro::Task<QList<PeerInfo>> peers(QString id);
    QCoro::Task<QList<TrackerInfo>> trackers(QString id);
    QCoro::Task<QString> pieces(QString id, int file);
    QCoro::Task<PieceMap> pieceMap(QString id);
    QCoro::Task<QString> networkDiagnostics();
    QCoro::Task<QString> peerDiagnostics(QString id);

    // For tests: apply a decoded round as the poll would.
    void apply(const std::optional<StatusSnapshot> &snapshot, const QList<TorrentEvent> &events);

signals:
    void torrentsChanged();
    void sessionInfoChanged();
    void settingsUpdated();
    void metaChanged();
    void toastChanged();
    void trackerFetchStatusChanged();
    void focusRequestChanged();
    void pendingOpenChanged();

private:
    void settingsChanged();
    void applyEngineSettings();
    void applyTrackers();
    void applyBans();
    void scheduleSettingsSave();
    void scheduleMetaSave();
    bool saveSettingsNow();
    bool saveMetaNow();
    // The object in one of the engine's files; a file there that can't be used is set aside
    // first and the user told, so that no default ever replaces it.
    std::optional<QJsonObject> readOwnFile(const QString &name);
    QString engineSettingsText() const;
    void setPollInterval(double seconds);
    void timerTick();
    void pollDone(const std::optional<StatusSnapshot> &snapshot, const QList<TorrentEvent> &events);
    // Runs a bridge call on the queue and asks for the status round that shows its effect.
    template <typename T, typename Fn>
    QFuture<T> command(Fn fn);
    void handle(const TorrentEvent &event);
    void enforceSeedLimits();
    static AddOutcome finishAdd(char *id, char *error);
    void setToast(const std::optional<QString> &text);
    QCoro::Task<void> revealTask(QString id, int file);
    void setTrackerFetchStatus(const std::optional<QString> &text);
    void observeMemoryPressure();
    void memoryPressureChanged(MemoryPressure level);
    void updateCheckingResources(bool force);

    tb_session *m_session = nullptr;
    std::unique_ptr<SerialQueue> m_queue;
    QTimer *m_timer = nullptr;
    bool m_pollInFlight = false;
    bool m_pollWanted = false;
    quint64 m_statusRounds = 0;
    // Callers of refreshForAutomation waiting for the next round to be taken.
    std::vector<std::shared_ptr<QPromise<void>>> m_pollWaiters;
    CheckingProgressEstimator m_checkingProgress;
    double m_pollInterval = 0;
    CheckingResources::Hardware m_checkingHardware;
    CheckingResourceController m_checkingController;
    CheckingLoadSampler m_checkingLoad;
    LowPowerMonitor *m_lowPower = nullptr;
    MemoryPressureWatcher *m_memoryPressureSource = nullptr;
    MemoryPressure m_memoryPressure = MemoryPressure::Normal;
    bool m_checkingPlaybackActive = false;
    double m_lastResourceSample;
    double m_otherBusyCores = 0;
    std::optional<double> m_lastTimerTick;
    double m_lastInterfaceDelay;
    // The hashing resource lines appended to the settings text, from the controller's result.
    QString m_checkingSettings;
    QString m_sessionOverrides;
    TrackerListSources m_trackerLists;
    QNetworkAccessManager *m_network = nullptr;
    DebouncedSave *m_saveSettingsWork = nullptr;
    DebouncedSave *m_saveMetaWork = nullptr;
    // Files whose last save failed; the user was told when the first of them failed.
    QSet<QString> m_failedSaves;
    // Toasts from notify() waiting for the one on screen to go.
    QStringList m_notices;
    std::chrono::steady_clock::time_point m_lastStateSave;
    QString m_appliedSettings;
    QString m_appliedTrackers;
    QString m_appliedBans;
    bool m_isShutDown = false;
    QString m_home;

    QList<TorrentStatus> m_torrents;
    SessionInfo m_sessionInfo;
    AppSettings m_settings;
    QMap<QString, TorrentMeta> m_meta;
    std::optional<QString> m_toast;
    std::optional<QString> m_trackerFetchStatus;
    QList<QUrl> m_pendingOpen;
    std::optional<QString> m_focusRequest;

    struct CachedMap
    {
        std::chrono::steady_clock::time_point date;
        PieceMap map;
    };
    QHash<QString, CachedMap> m_pieceMapCache;
};

// Seconds of the monotonic clock, the engine's "system uptime".
double uptimeSeconds();

// The announce addresses of a fetched tracker list: one a line, blanks trimmed, only udp, http
// and https (a wss tracker is of no use to the session), at most the first 80. None when the
// body isn't UTF-8 or fewer than 5 remain, which makes the fetch try the next source.
std::optional<QStringList> parseTrackerList(const QByteArray &body);
