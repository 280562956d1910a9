#pragma once

#include "media/ExternalTrack.h"
#include "media/TorrentFile.h"
#include "playback/MPVEvent.h"
#include "playback/MediaTrack.h"
#include "playback/PlayItem.h"
#include "playback/PlayerCore.h"
#include "playback/PlayerInput.h"
#include "playback/PlayerRules.h"
#include "playback/TrackOption.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

#include <QCoroTask>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

class QTimer;
class QWindow;
class TorrentEngine;
class VideoLayer;
namespace TrackSelection {
struct Pick;
}

// The player's one model: it opens files of torrents, turns the core's events into the state
// that the player screen binds to, remembers positions and track choices per torrent, keeps a
// stream moving when the swarm stalls it, and goes on to the next episode at the end.
//
// Main thread only. Every wait (the engine's reports) comes back to the main thread, and every
// continuation after a wait checks that the model still lives and that no newer open or stop
// has happened since (openGeneration), so a late answer never touches newer state.
class PlayerModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QVariant item READ itemValue NOTIFY itemChanged)
    Q_PROPERTY(QList<TorrentFile> files READ files NOTIFY filesChanged)
    Q_PROPERTY(QList<MediaTrack> tracks READ tracks NOTIFY tracksChanged)
    Q_PROPERTY(QList<ExternalTrack> externalAudio READ externalAudio NOTIFY externalAudioChanged)
    Q_PROPERTY(QList<ExternalTrack> externalSubtitles READ externalSubtitles NOTIFY externalSubtitlesChanged)
    Q_PROPERTY(double position READ position NOTIFY positionChanged)
    Q_PROPERTY(double duration READ duration NOTIFY durationChanged)
    Q_PROPERTY(bool paused READ paused NOTIFY pausedChanged)
    Q_PROPERTY(bool buffering READ buffering NOTIFY bufferingChanged)
    Q_PROPERTY(bool seeking READ seeking NOTIFY seekingChanged)
    Q_PROPERTY(double cacheTime READ cacheTime NOTIFY cacheTimeChanged)
    Q_PROPERTY(double volume READ volume NOTIFY volumeChanged)
    Q_PROPERTY(bool muted READ muted NOTIFY mutedChanged)
    Q_PROPERTY(double speed READ speed NOTIFY speedChanged)
    Q_PROPERTY(bool loaded READ loaded NOTIFY loadedChanged)
    Q_PROPERTY(bool ended READ ended NOTIFY endedChanged)
    Q_PROPERTY(bool hasVideo READ hasVideo NOTIFY hasVideoChanged)
    Q_PROPERTY(QVariant error READ errorValue NOTIFY errorChanged)
    Q_PROPERTY(bool controlsVisible READ controlsVisible NOTIFY controlsVisibleChanged)
    Q_PROPERTY(QList<PlaybackRange> downloadedRanges READ downloadedRanges NOTIFY downloadedRangesChanged)
    Q_PROPERTY(QVariant bufferProgress READ bufferProgressValue NOTIFY bufferProgressChanged)
    Q_PROPERTY(bool waitingAfterSeek READ waitingAfterSeek NOTIFY waitingAfterSeekChanged)
    Q_PROPERTY(QVariant tracksReadyAfter READ tracksReadyAfterValue NOTIFY tracksReadyAfterChanged)
    Q_PROPERTY(QVariant firstFrameAfter READ firstFrameAfterValue NOTIFY firstFrameAfterChanged)
    Q_PROPERTY(QList<TrackOption> audioOptions READ audioOptions NOTIFY optionsChanged)
    Q_PROPERTY(QList<TrackOption> subtitleOptions READ subtitleOptions NOTIFY optionsChanged)
    Q_PROPERTY(bool hasNextFile READ hasNextFile NOTIFY neighboursChanged)
    Q_PROPERTY(bool hasPreviousFile READ hasPreviousFile NOTIFY neighboursChanged)
    Q_PROPERTY(bool fullScreen READ fullScreen NOTIFY fullScreenChanged)

public:
    // What the model reaches outside itself for: a libmpv core, and the engine's stream calls.
    // Left empty, each is the real one; tests stand in.
    struct Hooks
    {
        std::function<std::unique_ptr<PlayerCore>()> makeCore;
        // Share of the piece that a stream on (torrent, file) waits for, or -1 with no read
        // waiting; asked of the session on the engine's queue.
        std::function<QCoro::Task<double>(QString, int)> streamProgress;
        // Whether a read of (torrent, file) waits for a piece now; answered without waiting.
        std::function<bool(const QString &, int)> streamWaiting;
        // Warms `bytes` of a file around a fraction of it, for a stream that isn't open yet.
        std::function<void(const QString &, int, qint64, double)> prefetch;
    };

    // The process-wide model over TorrentEngine::shared(), made at first use.
    static PlayerModel *shared();
    static bool hasShared();
    // Makes `model` the one that shared() answers, for a program or test that builds its own.
    static void setShared(PlayerModel *model);

    explicit PlayerModel(TorrentEngine *engine, QObject *parent = nullptr);
    PlayerModel(TorrentEngine *engine, Hooks hooks, QObject *parent = nullptr);
    ~PlayerModel() override;

    // Opens a file of a torrent. The file list is awaited from the engine; an open or stop that
    // comes meanwhile wins, and this one then ends without a trace. A torrent whose files are
    // missing, or a libmpv that cannot start, only sets `error` and keeps the current item.
    QCoro::Task<> open(QString torrentId, TorrentFile file);
    // Another file of the current torrent, the next or the previous episode; nothing without an
    // item or such a file.
    void play(const TorrentFile &file);
    Q_INVOKABLE void playNext();
    Q_INVOKABLE void playPrevious();

    // Back to idle: the position is saved, pending work is dropped, libmpv stops.
    Q_INVOKABLE void stop();
    Q_INVOKABLE void togglePause();
    // Plays on; at the end of the file, from its start again.
    Q_INVOKABLE void resumePlayback();
    Q_INVOKABLE void pausePlayback();
    // libmpv's own figures (decoder, cache, dropped frames); none without a running core.
    QCoro::Task<QMap<QString, QString>> diagnostics();
    Q_INVOKABLE void seek(double seconds);
    Q_INVOKABLE void setVolume(double volume);
    // Playback speed, held to the speed menu's 0.5 to 2.0; `speed` follows when libmpv took it.
    Q_INVOKABLE void setPlaybackSpeed(double speed);
    Q_INVOKABLE void savePosition();
    // Shows the controls and hides them again 3 s later, unless paused, opening or failed.
    Q_INVOKABLE void poke();
    // While held (a menu of the bar is open) the controls don't hide; letting go pokes.
    Q_INVOKABLE void holdControls(bool held);
    // A key press by the player's key codes (physical positions, so a Cyrillic layout works):
    // true when the player took it. The control server feeds keys here too.
    Q_INVOKABLE bool handleKey(int code, bool shift = false);
    bool fullScreen() const { return m_fullScreen; }
    // Full screen and back for the player window; a window that isn't active is brought forward
    // first. Without a window only the flag flips.
    Q_INVOKABLE void toggleFullScreen();
    // The window that shows the video, told by the video item.
    void setWindow(QWindow *window);
    QWindow *window() const;
    // A scroll over the video: volume up or down; false when the player leaves it alone.
    bool handleScroll(const PlayerInput::Scroll &scroll);

    // The video item's counters ("rendered", "hidden-frames-skipped"); empty without one.
    QMap<QString, QString> videoDiagnostics() const;
    // A 960 by 540 PNG of the current video frame at `path`, made on the video's own thread:
    // the main thread goes on meanwhile. False and no file without a picture.
    QCoro::Task<bool> writeVideoSnapshot(QString path);
    // True when a core exists or can be made: the player screen shows the video item then.
    Q_INVOKABLE bool coreAvailable() { return ensureCore() != nullptr; }
    TorrentEngine *engine() const { return m_engine; }

    // Choices from the track menus, by row; `audio` tells which menu.
    void select(const TrackOption &option, bool audio);
    Q_INVOKABLE void select(const QString &optionId, bool audio);
    Q_INVOKABLE void cycle(bool audio);

    // The core, made on first need and kept for the run; null when libmpv cannot start.
    PlayerCore *ensureCore();
    PlayerCore *core() const { return m_core.get(); }
    // At exit, after stop(): the core's handle goes before the engine's session.
    void destroyCore();

    // One event of the core, as the core delivers it on the main thread.
    void handle(const MPVEvent &event);

    // While a read of the playing file waits for a piece, libmpv can neither seek nor switch
    // tracks until the read returns; such requests take a reload instead.
    bool streamBlocked() const;

    std::optional<PlayItem> item() const { return m_item; }
    QVariant itemValue() const;
    const QList<TorrentFile> &files() const { return m_files; }
    const QList<MediaTrack> &tracks() const { return m_tracks; }
    const QList<ExternalTrack> &externalAudio() const { return m_externalAudio; }
    const QList<ExternalTrack> &externalSubtitles() const { return m_externalSubtitles; }
    double position() const { return m_position; }
    double duration() const { return m_duration; }
    bool paused() const { return m_paused; }
    bool buffering() const { return m_buffering; }
    bool seeking() const { return m_seeking; }
    double cacheTime() const { return m_cacheTime; }
    double volume() const { return m_volume; }

    // Key codes of the player's keys.
    enum Key : int { KeyA = 0, KeyS = 1, KeyF = 3, KeyP = 35, KeyN = 45, KeyM = 46, KeySpace = 49,
                     KeyEscape = 53, KeyLeft = 123, KeyRight = 124, KeyDown = 125, KeyUp = 126 };
    bool muted() const { return m_muted; }
    double speed() const { return m_speed; }
    bool loaded() const { return m_loaded; }
    bool ended() const { return m_ended; }
    bool hasVideo() const { return m_hasVideo; }
    std::optional<QString> error() const { return m_error; }
    QVariant errorValue() const;
    bool controlsVisible() const { return m_controlsVisible; }
    const QList<PlaybackRange> &downloadedRanges() const { return m_downloadedRanges; }
    std::optional<double> bufferProgress() const { return m_bufferProgress; }
    QVariant bufferProgressValue() const;
    bool waitingAfterSeek() const { return m_waitingAfterSeek; }
    // Seconds from the open to the first track list and to the first frame; diagnostics.
    std::optional<double> tracksReadyAfter() const { return m_tracksReadyAfter; }
    QVariant tracksReadyAfterValue() const;
    std::optional<double> firstFrameAfter() const { return m_firstFrameAfter; }
    QVariant firstFrameAfterValue() const;
    QList<TrackOption> audioOptions() const;
    QList<TrackOption> subtitleOptions() const;
    std::optional<TorrentFile> nextFile() const;
    std::optional<TorrentFile> previousFile() const;
    bool hasNextFile() const { return nextFile().has_value(); }
    bool hasPreviousFile() const { return previousFile().has_value(); }

    uint64_t openGeneration() const { return m_openGeneration; }
    int recoveries() const { return m_recoveries; }
    double appliedReadahead() const { return m_appliedReadahead; }

signals:
    void itemChanged();
    void filesChanged();
    void tracksChanged();
    void externalAudioChanged();
    void externalSubtitlesChanged();
    void positionChanged();
    void durationChanged();
    void pausedChanged();
    void bufferingChanged();
    void seekingChanged();
    void fullScreenChanged();
    void cacheTimeChanged();
    void volumeChanged();
    void mutedChanged();
    void speedChanged();
    void loadedChanged();
    void endedChanged();
    void hasVideoChanged();
    void errorChanged();
    void controlsVisibleChanged();
    void downloadedRangesChanged();
    void bufferProgressChanged();
    void waitingAfterSeekChanged();
    void tracksReadyAfterChanged();
    void firstFrameAfterChanged();
    void optionsChanged();
    void neighboursChanged();
    // The controls have hidden themselves; the screen hides the mouse cursor until it moves.
    void cursorHideRequested();

private:
    using Clock = std::chrono::steady_clock;

    // A background task's cancellation: set by whoever drops the task, read by the task after
    // each wait.
    struct TaskToken
    {
        bool cancelled = false;
    };

    void setItem(const std::optional<PlayItem> &value);
    void setFiles(const QList<TorrentFile> &value);
    void setTracks(const QList<MediaTrack> &value);
    void setExternalAudio(const QList<ExternalTrack> &value);
    void setExternalSubtitles(const QList<ExternalTrack> &value);
    void setPosition(double value);
    void setDuration(double value);
    void setPaused(bool value);
    void setBuffering(bool value);
    void setSeeking(bool value);
    void setCacheTime(double value);
    void setVolumeValue(double value);
    void setMuted(bool value);
    void setSpeed(double value);
    void setLoaded(bool value);
    void setEnded(bool value);
    void setHasVideo(bool value);
    void setError(const std::optional<QString> &value);
    void setControlsVisible(bool value);
    void setDownloadedRanges(const QList<PlaybackRange> &value);
    void setBufferProgress(const std::optional<double> &value);
    void setWaitingAfterSeek(bool value);
    void setTracksReadyAfter(const std::optional<double> &value);
    void setFirstFrameAfter(const std::optional<double> &value);

    void applyProperty(const QString &name, const MPVValue &value);
    void endOfFile();
    void hideControls();
    void seekSettled();
    std::optional<double> secondsSinceOpen() const;
    QString streamAddressOf(int fileIndex) const;
    void updateCheckingPriority();

    void startProgressTimer();
    void refreshProgress();
    QCoro::Task<> refreshBufferProgress(uint64_t generation, PlayItem item);
    void warmExternalAudio();
    void cancelProgressTask();
    QCoro::Task<> runProgressTask(std::shared_ptr<TaskToken> token, uint64_t generation, PlayItem item,
                                  bool withFiles);
    bool progressTaskCurrent(const std::shared_ptr<TaskToken> &token, uint64_t generation,
                             const PlayItem &item) const;
    void endProgressTask(const std::shared_ptr<TaskToken> &token, uint64_t generation);

    void autoSelect();
    void carryOut(const TrackSelection::Pick &pick, bool audio);
    void addExternal(const ExternalTrack &track, bool audio, bool select);

    void reload(double target, const std::optional<QString> &audio, const std::optional<QString> &subtitle);
    void performReload();
    void finishReload();
    void quickResume();
    void endQuickResume();
    void adjustReadahead(const QString &map);
    void prefetchNextIfNeeded();
    void finishedFile();

    TorrentEngine *m_engine = nullptr;
    Hooks m_hooks;
    std::unique_ptr<PlayerCore> m_core;
    // Delayed actions, each a single-shot timer of its own: starting one again replaces the
    // pending run, stopping it cancels it.
    QTimer *m_hideWork = nullptr;
    QTimer *m_seekWork = nullptr;
    QTimer *m_reloadWork = nullptr;
    QTimer *m_quickResumeWork = nullptr;
    QTimer *m_progressTimer = nullptr;
    bool m_autoSelected = false;
    std::optional<Clock::time_point> m_lastSavedAt; // none: never saved
    std::optional<Clock::time_point> m_openedAt;
    const bool m_silent;
    int m_tick = 0; // refreshProgress runs since the last open
    bool m_prefetchedNext = false;
    bool m_quickResumeActive = false;
    int m_recoveries = 0;
    double m_appliedReadahead = PlayerRules::DefaultReadahead;
    std::optional<double> m_reloadTarget;
    std::optional<QString> m_reloadAudio;
    std::optional<QString> m_reloadSubtitle;
    // Loaded track files to add back after the reload, each with whether it is to be selected.
    QList<std::pair<MediaTrack, bool>> m_reloadExternal;
    bool m_reloading = false; // the next fileLoaded belongs to a reload
    uint64_t m_openGeneration = 0;
    std::shared_ptr<TaskToken> m_progressTask;
    bool m_bufferProgressAsked = false; // a stream progress is on its way from the engine
    std::optional<QString> m_previousPieceMap;

    std::optional<PlayItem> m_item;
    QList<TorrentFile> m_files;
    QList<MediaTrack> m_tracks;
    QList<ExternalTrack> m_externalAudio;
    QList<ExternalTrack> m_externalSubtitles;
    double m_position = 0.0;
    double m_duration = 0.0;
    bool m_paused = false;
    bool m_buffering = false;
    bool m_seeking = false;
    double m_cacheTime = 0.0;
    double m_volume = 100.0;
    bool m_muted = false;
    double m_speed = 1.0;
    bool m_loaded = false;
    bool m_ended = false;
    bool m_hasVideo = false;
    std::optional<QString> m_error;
    bool m_controlsVisible = true;
    QList<PlaybackRange> m_downloadedRanges;
    std::optional<double> m_bufferProgress;
    bool m_waitingAfterSeek = false;
    std::optional<double> m_tracksReadyAfter;
    std::optional<double> m_firstFrameAfter;
    bool m_fullScreen = false;
    QPointer<QWindow> m_window;
    bool m_controlsHeld = false;
};
