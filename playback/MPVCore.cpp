#include "playback/MPVCore.h"

#include "bridge/tb_bridge.h"
#include "core/MainThread.h"
#include "core/SerialQueue.h"
#include "playback/StreamAddress.h"
#include "playback/VideoLayer.h"

#include <QGuiApplication>
#include <QPromise>
#include <QTimer>

#include <mpv/client.h>
#include <mpv/stream_cb.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

// Polled rather than observed: an observer of either would fire on every frame.
constexpr uint64_t TimePosId = 1;
constexpr uint64_t CacheTimeId = 2;
const std::map<uint64_t, const char *> TelemetryNames = {
    {TimePosId, "time-pos"},
    {CacheTimeId, "demuxer-cache-time"},
};
constexpr int PlayingRepeatMs = 250;
constexpr int PausedRepeatMs = 1000;

constexpr std::array<std::pair<const char *, mpv_format>, 10> ObservedProperties = {{
    {"duration", MPV_FORMAT_DOUBLE},
    {"pause", MPV_FORMAT_FLAG},
    {"paused-for-cache", MPV_FORMAT_FLAG},
    {"seeking", MPV_FORMAT_FLAG},
    {"eof-reached", MPV_FORMAT_FLAG},
    {"volume", MPV_FORMAT_DOUBLE},
    {"mute", MPV_FORMAT_FLAG},
    {"speed", MPV_FORMAT_DOUBLE},
    {"track-list", MPV_FORMAT_NODE},
    {"video-params/w", MPV_FORMAT_DOUBLE},
}};

constexpr std::array<const char *, 18> DiagnosticProperties = {
    "mpv-version",
    "current-vo",
    "hwdec-current",
    "video-codec",
    "time-pos",
    "seeking",
    "pause",
    "video-params/pixelformat",
    "video-params/hw-pixelformat",
    "video-out-params/w",
    "video-out-params/h",
    "estimated-vf-fps",
    "decoder-frame-drop-count",
    "frame-drop-count",
    "mistimed-frame-count",
    "vo-delayed-frame-count",
    "avsync",
    "display-fps",
};

std::vector<std::pair<const char *, std::string>> fixedOptions(bool hardwareDecoding, bool silent,
                                                               const QString &videoOutput)
{
    return {
        {"vo", videoOutput.toStdString()},
        {"video-timing-offset", "0"},
        {"hwdec", hardwareDecoding ? "auto-safe" : "no"},
        // libmpv stops at the end and raises "eof-reached"; the player decides what an end means.
        {"keep-open", "yes"},
        {"idle", "yes"},
        {"config", "no"},
        {"terminal", "no"},
        {"osc", "no"},
        {"input-default-bindings", "no"},
        {"input-vo-keyboard", "no"},
        {"ytdl", "no"},
        {"cache", "yes"},
        {"demuxer-max-bytes", "300MiB"},
        {"demuxer-max-back-bytes", "100MiB"},
        {"demuxer-readahead-secs", "10"},
        {"cache-pause-wait", "6"},
        {"volume-max", "200"},
        // Outside tracks come from the torrent, not from beside the file.
        {"sub-auto", "no"},
        {"audio-file-auto", "no"},
        {"audio-client-name", "Velix"},
        {"screenshot-format", "png"},
        {"msg-level", "all=warn"},
        {"ao", silent ? "null" : "pipewire,pulse,alsa"},
    };
}

// Stream protocol ------------------------------------------------------------------------------
// These run on libmpv's stream threads and go straight to the reader, which may block.

int64_t readStream(void *cookie, char *buffer, uint64_t length)
{
    return tb_reader_read(static_cast<tb_reader *>(cookie), buffer, static_cast<int64_t>(length));
}

int64_t seekStream(void *cookie, int64_t offset)
{
    const int64_t result = tb_reader_seek(static_cast<tb_reader *>(cookie), offset);
    return result < 0 ? int64_t{MPV_ERROR_GENERIC} : result;
}

int64_t streamSize(void *cookie)
{
    return tb_reader_size(static_cast<tb_reader *>(cookie));
}

void closeStream(void *cookie)
{
    tb_reader_close(static_cast<tb_reader *>(cookie));
}

// libmpv calls this more than once, twice when the handle is destroyed; cancelling an already
// cancelled reader changes nothing.
void cancelStream(void *cookie)
{
    tb_reader_cancel(static_cast<tb_reader *>(cookie));
}

int openStream(void *userData, char *uri, mpv_stream_cb_info *info)
{
    auto *session = static_cast<tb_session *>(userData);
    if (!session || !uri || !info)
        return MPV_ERROR_LOADING_FAILED;
    const std::optional<StreamAddress> address = parseStreamAddress(uri);
    if (!address)
        return MPV_ERROR_LOADING_FAILED;
    tb_reader *reader = tb_reader_open(session, address->id.c_str(), address->index);
    if (!reader)
        return MPV_ERROR_LOADING_FAILED;
    info->cookie = reader;
    info->read_fn = readStream;
    info->seek_fn = seekStream;
    info->size_fn = streamSize;
    info->close_fn = closeStream;
    info->cancel_fn = cancelStream;
    return 0;
}

// Node conversion ------------------------------------------------------------------------------

std::optional<QString> nodeString(const mpv_node *node)
{
    if (!node || node->format != MPV_FORMAT_STRING || !node->u.string)
        return std::nullopt;
    return QString::fromUtf8(node->u.string);
}

bool nodeFlag(const mpv_node *node)
{
    return node && node->format == MPV_FORMAT_FLAG && node->u.flag != 0;
}

QList<MediaTrack> tracksFromNode(const mpv_node &list)
{
    QList<MediaTrack> tracks;
    if (list.format != MPV_FORMAT_NODE_ARRAY || !list.u.list)
        return tracks;
    for (int i = 0; i < list.u.list->num; ++i) {
        const mpv_node &item = list.u.list->values[i];
        if (item.format != MPV_FORMAT_NODE_MAP || !item.u.list)
            continue;
        std::map<std::string, const mpv_node *> fields;
        for (int k = 0; k < item.u.list->num; ++k) {
            if (item.u.list->keys && item.u.list->keys[k])
                fields[item.u.list->keys[k]] = &item.u.list->values[k];
        }
        const auto field = [&](const char *name) -> const mpv_node * {
            const auto it = fields.find(name);
            return it == fields.end() ? nullptr : it->second;
        };
        const std::optional<QString> type = nodeString(field("type"));
        const std::optional<MediaTrack::Kind> kind = type ? mediaTrackKindFromName(*type) : std::nullopt;
        const mpv_node *id = field("id");
        if (!kind || !id || id->format != MPV_FORMAT_INT64)
            continue;
        MediaTrack track;
        track.id = static_cast<int>(id->u.int64);
        track.kind = *kind;
        track.title = nodeString(field("title"));
        track.language = nodeString(field("lang"));
        track.codec = nodeString(field("codec"));
        if (const mpv_node *channels = field("demux-channel-count"); channels && channels->format == MPV_FORMAT_INT64)
            track.channels = static_cast<int>(channels->u.int64);
        track.external = nodeFlag(field("external"));
        track.externalFile = nodeString(field("external-filename"));
        track.isDefault = nodeFlag(field("default"));
        track.forced = nodeFlag(field("forced"));
        track.selected = nodeFlag(field("selected"));
        tracks.append(track);
    }
    return tracks;
}

MPVValue valueOf(const mpv_event_property &property)
{
    switch (property.format) {
    case MPV_FORMAT_STRING: {
        const char *const *text = static_cast<const char *const *>(property.data);
        return text && *text ? MPVValue::ofString(QString::fromUtf8(*text)) : MPVValue::none();
    }
    case MPV_FORMAT_DOUBLE:
        return MPVValue::ofDouble(*static_cast<const double *>(property.data));
    case MPV_FORMAT_FLAG:
        return MPVValue::ofFlag(*static_cast<const int *>(property.data) != 0);
    default:
        return MPVValue::none();
    }
}

} // namespace

QString MPVCore::videoOutputFor(const QString &platformName, bool background)
{
    // A load would wait for a render context that no window will ever make.
    if (background || platformName.isEmpty() || platformName == QLatin1String("offscreen")
        || platformName == QLatin1String("minimal"))
        return QStringLiteral("null");
    return QStringLiteral("libmpv");
}

bool MPVCore::backgroundRequested()
{
    return qEnvironmentVariable("VELIX_BACKGROUND") == QLatin1String("1");
}

bool MPVCore::silentRequested()
{
    return qEnvironmentVariable("VELIX_SILENT") == QLatin1String("1");
}

MPVCore::MPVCore(tb_session *session)
    : m_session(session)
{
}

std::unique_ptr<MPVCore> MPVCore::create(tb_session *session, bool hardwareDecoding, bool silent)
{
    std::unique_ptr<MPVCore> core(new MPVCore(session));
    if (!core->start(hardwareDecoding, silent))
        return nullptr;
    return core;
}

bool MPVCore::start(bool hardwareDecoding, bool silent)
{
    m_events = std::make_unique<SerialQueue>(QStringLiteral("velix.mpv.events"));
    m_handle = mpv_create();
    if (!m_handle)
        return false;

    const QString platform = qobject_cast<QGuiApplication *>(QCoreApplication::instance())
        ? QGuiApplication::platformName()
        : QString();
    m_videoOutput = videoOutputFor(platform, backgroundRequested());
    for (const auto &[name, value] : fixedOptions(hardwareDecoding, silent, m_videoOutput))
        mpv_set_option_string(m_handle, name, value.c_str());

    if (mpv_initialize(m_handle) < 0) {
        mpv_terminate_destroy(m_handle);
        m_handle = nullptr;
        return false;
    }
    mpv_stream_cb_add_ro(m_handle, "velix", m_session, openStream);
    if (const char *level = std::getenv("VELIX_MPV_LOG"))
        mpv_request_log_messages(m_handle, level);
    for (const auto &[name, format] : ObservedProperties)
        mpv_observe_property(m_handle, 0, name, format);

    m_events->sync([this] {
        m_telemetry = new QTimer;
        m_telemetry->setTimerType(Qt::CoarseTimer);
        connect(m_telemetry, &QTimer::timeout, m_telemetry, [this] { telemetryFired(); });
    });
    mpv_set_wakeup_callback(m_handle, &MPVCore::onWakeup, this);
    // Events queued before the callback was set would otherwise wait for the next wake-up.
    wakeUp();
    return true;
}

MPVCore::~MPVCore()
{
    destroy();
    // The queue goes first: work still posted on it must not outlive the fields it touches.
    m_events.reset();
}

void MPVCore::onWakeup(void *context)
{
    // On whatever thread libmpv chooses: no libmpv call may be made here.
    static_cast<MPVCore *>(context)->wakeUp();
}

void MPVCore::wakeUp()
{
    if (!m_drainPosted.exchange(true))
        m_events->post([this] { drain(); });
}

void MPVCore::set(const QString &name, const QString &value)
{
    if (m_closing || !m_handle)
        return;
    const QByteArray key = name.toUtf8();
    const QByteArray text = value.toUtf8();
    const char *data = text.constData();
    mpv_set_property_async(m_handle, 0, key.constData(), MPV_FORMAT_STRING, &data);
}

void MPVCore::commandAsync(const QStringList &arguments)
{
    if (m_closing || !m_handle || arguments.isEmpty())
        return;
    if (usesRenderContext() && !m_renderContextReady) {
        // libmpv refuses a load without a render context; the newest load waits for one, and
        // a stop means none is wanted any more.
        if (arguments.first() == QLatin1String("loadfile")) {
            m_waitingLoad = arguments;
            return;
        }
        if (arguments.first() == QLatin1String("stop"))
            m_waitingLoad.reset();
    }
    sendCommand(arguments);
}

void MPVCore::setVideoLayer(VideoLayer *layer)
{
    if (m_videoLayer == layer)
        return;
    if (m_videoLayer)
        m_videoLayer->destroy();
    m_videoLayer = layer;
}

VideoLayer *MPVCore::videoLayer() const
{
    return m_videoLayer.data();
}

void MPVCore::setRenderContextReady(bool ready)
{
    m_renderContextReady = ready;
    if (ready)
        releaseWaitingLoad();
}

void MPVCore::renderContextUnavailable()
{
    if (m_closing || !m_handle || !usesRenderContext())
        return;
    m_videoOutput = QStringLiteral("null");
    set(QStringLiteral("vo"), m_videoOutput);
    releaseWaitingLoad();
}

void MPVCore::releaseWaitingLoad()
{
    if (!m_waitingLoad)
        return;
    const QStringList load = *m_waitingLoad;
    m_waitingLoad.reset();
    sendCommand(load);
}

void MPVCore::sendCommand(const QStringList &arguments)
{
    std::vector<QByteArray> texts;
    texts.reserve(static_cast<size_t>(arguments.size()));
    for (const QString &argument : arguments)
        texts.push_back(argument.toUtf8());
    std::vector<const char *> argv;
    for (const QByteArray &text : texts)
        argv.push_back(text.constData());
    argv.push_back(nullptr);
    mpv_command_async(m_handle, 0, argv.data());
}

void MPVCore::drain()
{
    m_drainPosted.store(false);
    if (m_terminated)
        return;
    ++m_eventBatches;
    QList<MPVEvent> batch;
    for (;;) {
        const mpv_event *event = mpv_wait_event(m_handle, 0);
        if (!event || event->event_id == MPV_EVENT_NONE)
            break;
        handleEvent(*event, batch);
        if (event->event_id == MPV_EVENT_SHUTDOWN)
            break;
    }
    if (batch.isEmpty())
        return;
    // One hop to the main thread per drain. A core already gone drops the batch with it.
    postToMain(this, [this, batch = std::move(batch)] {
        for (const MPVEvent &event : batch) {
            if (m_closing || !m_onEvent)
                return;
            m_onEvent(event);
        }
    });
}

void MPVCore::handleEvent(const mpv_event &event, QList<MPVEvent> &batch)
{
    switch (event.event_id) {
    case MPV_EVENT_SHUTDOWN:
        batch.append(MPVEvent::of(MPVEvent::Kind::Shutdown));
        break;
    case MPV_EVENT_LOG_MESSAGE: {
        const auto *message = static_cast<const mpv_event_log_message *>(event.data);
        if (message)
            std::fprintf(stderr, "mpv[%s] %s", message->prefix, message->text);
        break;
    }
    case MPV_EVENT_FILE_LOADED: {
        m_fileActive = true;
        scheduleTelemetry();
        requestTelemetry(true);
        // Read here, on the queue, so that the model has the tracks before the load event and
        // in the same batch, even when the list is empty.
        mpv_node node;
        std::memset(&node, 0, sizeof node);
        QList<MediaTrack> tracks;
        if (mpv_get_property(m_handle, "track-list", MPV_FORMAT_NODE, &node) >= 0) {
            tracks = tracksFromNode(node);
            mpv_free_node_contents(&node);
        }
        batch.append(MPVEvent::trackList(std::move(tracks)));
        batch.append(MPVEvent::of(MPVEvent::Kind::FileLoaded));
        break;
    }
    case MPV_EVENT_END_FILE: {
        m_fileActive = false;
        scheduleTelemetry();
        const auto *end = static_cast<const mpv_event_end_file *>(event.data);
        batch.append(end ? MPVEvent::endFile(static_cast<int32_t>(end->reason), end->error)
                         : MPVEvent::endFile(0, 0));
        break;
    }
    case MPV_EVENT_PLAYBACK_RESTART:
        requestTelemetry(true);
        batch.append(MPVEvent::of(MPVEvent::Kind::PlaybackRestart));
        break;
    case MPV_EVENT_GET_PROPERTY_REPLY:
    case MPV_EVENT_PROPERTY_CHANGE: {
        const uint64_t id = event.reply_userdata;
        if (event.event_id == MPV_EVENT_GET_PROPERTY_REPLY)
            m_pendingTelemetry.erase(id);
        const auto *property = static_cast<const mpv_event_property *>(event.data);
        if (property && property->name) {
            const QString name = QString::fromUtf8(property->name);
            if (name == QLatin1String("track-list")) {
                const bool isList = property->format == MPV_FORMAT_NODE && property->data;
                batch.append(MPVEvent::trackList(
                    isList ? tracksFromNode(*static_cast<const mpv_node *>(property->data)) : QList<MediaTrack>()));
            } else {
                const MPVValue value = valueOf(*property);
                if (name == QLatin1String("pause") && value.kind == MPVValue::Kind::Flag) {
                    m_paused = value.flag;
                    scheduleTelemetry();
                    requestTelemetry(true);
                } else if (name == QLatin1String("seeking") && value.kind == MPVValue::Kind::Flag
                           && !value.flag) {
                    // The position after a seek is wanted at once, not at the next tick.
                    requestTelemetry(true);
                }
                batch.append(MPVEvent::property(name, value));
            }
        }
        // A forced refresh that found this read in flight is honoured now that it answered.
        if (m_refreshTelemetry.erase(id) > 0)
            requestTelemetry(id);
        break;
    }
    default:
        break;
    }
}

void MPVCore::scheduleTelemetry()
{
    if (!m_telemetry)
        return;
    if (!m_fileActive) {
        m_telemetry->stop();
        return;
    }
    // While paused the position cannot move; only the cache still fills.
    m_telemetryRepeatMs = m_paused ? PausedRepeatMs : PlayingRepeatMs;
    m_telemetry->start(m_paused ? PausedRepeatMs : 0);
}

void MPVCore::telemetryFired()
{
    // The first fire may come at once; the repeat takes over from there.
    if (m_telemetry->interval() != m_telemetryRepeatMs)
        m_telemetry->setInterval(m_telemetryRepeatMs);
    requestTelemetry(false);
}

void MPVCore::requestTelemetry(bool refresh)
{
    if (!m_fileActive || m_terminated)
        return;
    for (const auto &[id, name] : TelemetryNames) {
        if (m_paused && !refresh && id != CacheTimeId)
            continue;
        // At most one read per property in flight.
        if (m_pendingTelemetry.count(id)) {
            if (refresh)
                m_refreshTelemetry.insert(id);
            continue;
        }
        requestTelemetry(id);
    }
}

void MPVCore::requestTelemetry(uint64_t id)
{
    if (!m_fileActive || m_terminated)
        return;
    const auto name = TelemetryNames.find(id);
    if (name == TelemetryNames.end())
        return;
    if (mpv_get_property_async(m_handle, id, name->second, MPV_FORMAT_DOUBLE) < 0)
        return;
    m_pendingTelemetry.insert(id);
    ++m_telemetryRequests;
    if (id == TimePosId)
        ++m_positionRequests;
}

QFuture<QMap<QString, QString>> MPVCore::diagnostics()
{
    auto promise = std::make_shared<QPromise<QMap<QString, QString>>>();
    QFuture<QMap<QString, QString>> future = promise->future();
    promise->start();
    m_events->post([this, promise] {
        QMap<QString, QString> values;
        if (!m_terminated) {
            for (const char *name : DiagnosticProperties) {
                if (char *text = mpv_get_property_string(m_handle, name)) {
                    values.insert(QString::fromLatin1(name), QString::fromUtf8(text));
                    mpv_free(text);
                }
            }
            values.insert(QStringLiteral("telemetry-requests"), QString::number(m_telemetryRequests));
            values.insert(QStringLiteral("position-requests"), QString::number(m_positionRequests));
            values.insert(QStringLiteral("event-batches"), QString::number(m_eventBatches));
        }
        promise->addResult(values);
        promise->finish();
    });
    return future;
}

void MPVCore::destroy()
{
    if (m_closing)
        return;
    m_closing = true;
    m_onEvent = nullptr;
    m_waitingLoad.reset();
    if (!m_handle)
        return;
    // After this returns libmpv calls no wake-up any more.
    mpv_set_wakeup_callback(m_handle, nullptr, nullptr);
    // The render context may not outlive the handle.
    if (m_videoLayer)
        m_videoLayer->destroy();
    // Freeing the handle waits for libmpv's threads, which cancel and close the open stream.
    m_events->sync([this] {
        m_terminated = true;
        delete m_telemetry;
        m_telemetry = nullptr;
        mpv_terminate_destroy(m_handle);
        m_handle = nullptr;
    });
}
