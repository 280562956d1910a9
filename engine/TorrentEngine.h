#pragma once

#include "checking/CheckingProgressEstimator.h"
#include "engine/AppSettings.h"
#include "engine/TorrentMeta.h"
#include "engine/TorrentReports.h"
#include "engine/TorrentStatus.h"
#include "media/TorrentFile.h"

#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <QCoroTask>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

class SerialQueue;
struct tb_session;

struct AddResult
{
    QString id;
    bool duplicate = false;
    bool operator==(const AddResult &) const = default;
};

using AddOutcome = std::variant<AddResult, EngineError>;

// The one owner of the torrent session. It polls the bridge on its own serial queue, decodes
// there, and publishes on the main thread only what changed; everything else in the program
// reads the published state and calls the commands below on the main thread.
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
    // session on 127.0.0.1 with nothing that reaches beyond the machine.
    explicit TorrentEngine(const QString &home, QObject *parent = nullptr, const QString &sessionOverrides = {});
    ~TorrentEngine() override;

    // Published state, main thread only.
    const QList<TorrentStatus> &torrents() const { return m_torrents; }
    const SessionInfo &sessionInfo() const { return m_sessionInfo; }
    const AppSettings &settings() const { return m_settings; }
    // Compares and, on a real change, applies the new settings to the session at once and
    // saves them 0.5 s after the last change.
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
    // The bridge session, for the player's stream calls. Null after shutdown.
    tb_session *session() const { return m_isShutDown ? nullptr : m_session; }

    // Changes the meta of one torrent; saves 1.0 s after the last change when it really changed.
    void updateMeta(const QString &id, const std::function<void(TorrentMeta &)> &change);

    void poll();
    // Status taken and applied before the task ends, for callers that must see the effect of
    // their last command.
    QCoro::Task<void> refreshForAutomation();
    // Saves settings and meta, then closes the session within its limits. Blocks; once only.
    void shutdown();

    // Commands, main thread.
    AddOutcome addTorrent(const QString &path, const QString &savePath,
                          const std::optional<QList<int>> &priorities, bool paused, bool sequential);
    AddOutcome addMagnet(const QString &uri, const QString &savePath, bool chooseFiles, bool paused,
                         bool sequential);
    TorrentPreview preview(const QString &path) const;
    void resume(const QStringList &ids);
    void pause(const QStringList &ids);
    void togglePause(const QString &id);
    void action(const QString &name, const QStringList &ids);
    void remove(const QStringList &ids, bool deleteFiles);
    void setPriority(const QString &id, const QList<int> &files, FilePriority priority);
    void show(const QString &text);
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
    void saveSettingsNow();
    void saveMetaNow();
    QString engineSettingsText() const;
    void setPollInterval(double seconds);
    void timerTick();
    void handle(const TorrentEvent &event);
    void enforceSeedLimits();
    AddOutcome finishAdd(char *id, char *error);
    void setToast(const std::optional<QString> &text);

    tb_session *m_session = nullptr;
    std::unique_ptr<SerialQueue> m_queue;
    QTimer *m_timer = nullptr;
    CheckingProgressEstimator m_checkingProgress;
    double m_pollInterval = 0;
    std::optional<double> m_lastTimerTick;
    double m_lastInterfaceDelay;
    // The hashing resource lines appended to the settings text; the check governor fills them.
    QString m_checkingSettings;
    QString m_sessionOverrides;
    QTimer *m_saveSettingsWork = nullptr;
    QTimer *m_saveMetaWork = nullptr;
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
