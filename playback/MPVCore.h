#pragma once

#include "playback/MPVEvent.h"

#include <QFuture>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>

class QTimer;
class SerialQueue;
class VideoLayer;
struct mpv_handle;
struct mpv_event;
typedef struct tb_session tb_session;

// The one libmpv handle of the program. It sets the player's fixed options, serves "velix://"
// addresses from the torrent session's stream reader, turns libmpv's events into batches of
// MPVEvent for the main thread, and polls the two properties that change too fast to observe
// ("time-pos" and "demuxer-cache-time").
//
// Threads: made, used and destroyed on the main thread. Its queue "velix.mpv.events" is the only
// place that waits for libmpv's events and reads properties; libmpv's own threads only post a
// wake-up there and call the stream reader, which may block for minutes.
class MPVCore : public QObject
{
    Q_OBJECT

public:
    // Null when libmpv cannot be created or initialised. `session` is borrowed and must outlive
    // the core; `silent` sends audio nowhere.
    static std::unique_ptr<MPVCore> create(tb_session *session, bool hardwareDecoding, bool silent);
    ~MPVCore() override;

    MPVCore(const MPVCore &) = delete;
    MPVCore &operator=(const MPVCore &) = delete;

    // Receives every event, batch by batch, on the main thread; nothing after destroy() began.
    void setOnEvent(std::function<void(const MPVEvent &)> onEvent) { m_onEvent = std::move(onEvent); }

    // Both are fire-and-forget; libmpv's replies are not looked at. Nothing happens once
    // destroy() has begun.
    void set(const QString &name, const QString &value);
    void commandAsync(const QStringList &arguments);

    // libmpv's view of the playback and the core's counters, read on the core's queue. Empty
    // once the handle is gone.
    QFuture<QMap<QString, QString>> diagnostics();

    // Stops the events, then frees the handle, which closes any open stream. Idempotent; the
    // destructor calls it too.
    void destroy();
    bool isClosing() const { return m_closing; }

    // "null" where the player window can never be shown: no GUI, the offscreen and minimal
    // platforms, or a run in the background. "libmpv" otherwise, which then needs a render
    // context before a file loads.
    static QString videoOutputFor(const QString &platformName, bool background);
    // VELIX_BACKGROUND=1: windows are made but never shown.
    static bool backgroundRequested();

    // True when video goes through a render context that a VideoLayer makes on its window.
    bool usesRenderContext() const { return m_videoOutput == QLatin1String("libmpv"); }
    // For the render context only; valid until destroy().
    mpv_handle *handle() const { return m_handle; }

    // The one layer that draws this core's video. A layer that takes over from another one
    // first ends the old one's render context: libmpv allows one per core. Main thread.
    void setVideoLayer(VideoLayer *layer);
    VideoLayer *videoLayer() const;
    // Told by the layer, on the main thread, when its render context comes or goes. While
    // none exists, a "loadfile" waits (libmpv would fail it), and the latest one goes out as
    // soon as a context is there. A "stop" drops the waiting load.
    void setRenderContextReady(bool ready);
    bool renderContextReady() const { return m_renderContextReady; }
    // No render context can be made (no OpenGL): video goes nowhere, sound plays on.
    void renderContextUnavailable();
    bool hasWaitingLoad() const { return m_waitingLoad.has_value(); }
    // VELIX_SILENT=1 plays without a sound device.
    static bool silentRequested();

private:
    explicit MPVCore(tb_session *session);

    bool start(bool hardwareDecoding, bool silent);
    void wakeUp();
    void drain();
    void handleEvent(const mpv_event &event, QList<MPVEvent> &batch);
    void scheduleTelemetry();
    void telemetryFired();
    void requestTelemetry(bool refresh);
    void requestTelemetry(uint64_t id);
    void sendCommand(const QStringList &arguments);
    void releaseWaitingLoad();

    static void onWakeup(void *context);

    mpv_handle *m_handle = nullptr;
    tb_session *m_session = nullptr;
    std::function<void(const MPVEvent &)> m_onEvent;
    std::unique_ptr<SerialQueue> m_events;
    // Coalesces libmpv's wake-ups: set by the first one, cleared when the drain starts, so any
    // number of them costs one drain.
    std::atomic<bool> m_drainPosted{false};
    // Lives on the queue's thread.
    QTimer *m_telemetry = nullptr;
    int m_telemetryRepeatMs = 0;

    // The rest is touched on the queue only, but for m_closing (main thread only).
    std::set<uint64_t> m_pendingTelemetry;
    std::set<uint64_t> m_refreshTelemetry;
    bool m_fileActive = false;
    bool m_paused = false;
    bool m_terminated = false;
    int m_telemetryRequests = 0;
    int m_positionRequests = 0;
    int m_eventBatches = 0;
    bool m_closing = false;

    // Main thread only.
    QString m_videoOutput;
    QPointer<VideoLayer> m_videoLayer;
    bool m_renderContextReady = false;
    std::optional<QStringList> m_waitingLoad;
};
