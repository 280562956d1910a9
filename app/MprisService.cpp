#include "app/MprisService.h"

#include "playback/PlayerModel.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>

#include <cmath>
#include <unistd.h>

namespace {

constexpr const char *PlayerInterface = "org.mpris.MediaPlayer2.Player";

qlonglong microseconds(double seconds)
{
    return std::isfinite(seconds) ? static_cast<qlonglong>(std::llround(seconds * 1e6)) : 0;
}

} // namespace

MprisService::MprisService(PlayerModel *player, Hooks hooks, QObject *parent)
    : QObject(parent)
    , m_player(player)
    , m_hooks(std::move(hooks))
    , m_bus(QStringLiteral("velix-mpris-unconnected"))
{
    m_current = Mpris::properties(input());
    if (!player)
        return;
    for (auto changed : {&PlayerModel::itemChanged, &PlayerModel::durationChanged, &PlayerModel::pausedChanged,
                         &PlayerModel::endedChanged, &PlayerModel::loadedChanged, &PlayerModel::volumeChanged,
                         &PlayerModel::speedChanged, &PlayerModel::neighboursChanged, &PlayerModel::filesChanged})
        connect(player, changed, this, &MprisService::refresh);
    // A seek is over when libmpv stops seeking; the position it landed on goes out as Seeked,
    // which is how clients learn of a jump without polling Position.
    connect(player, &PlayerModel::seekingChanged, this, [this] {
        const bool seeking = m_player && m_player->seeking();
        if (m_wasSeeking && !seeking)
            emit seeked(positionUs());
        m_wasSeeking = seeking;
    });
}

MprisService::~MprisService()
{
    if (!m_serviceName.isEmpty() && m_bus.isConnected()) {
        m_bus.unregisterObject(QString::fromLatin1(ObjectPath));
        m_bus.unregisterService(m_serviceName);
    }
}

bool MprisService::start(QDBusConnection bus)
{
    if (!bus.isConnected())
        return false;
    new MprisRootAdaptor(this);
    auto *player = new MprisPlayerAdaptor(this);
    connect(this, &MprisService::seeked, player, &MprisPlayerAdaptor::Seeked);
    if (!bus.registerObject(QString::fromLatin1(ObjectPath), this, QDBusConnection::ExportAdaptors))
        return false;
    // A second Velix runs only on another data directory; both stay reachable, the later one
    // under a name of its own, as the MPRIS naming rule provides for.
    const QString name = QString::fromLatin1(BusName);
    const QString fallback = name + QStringLiteral(".instance") + QString::number(::getpid());
    for (const QString &candidate : {name, fallback}) {
        if (bus.registerService(candidate)) {
            m_bus = bus;
            m_serviceName = candidate;
            return true;
        }
    }
    bus.unregisterObject(QString::fromLatin1(ObjectPath));
    return false;
}

MprisInput MprisService::input() const
{
    MprisInput in;
    PlayerModel *player = m_player;
    if (!player)
        return in;
    in.volume = player->volume();
    in.speed = player->speed();
    const std::optional<PlayItem> item = player->item();
    if (!item)
        return in;
    in.hasItem = true;
    in.torrentId = item->torrentId;
    in.fileIndex = item->file.i;
    in.filePath = item->file.path;
    if (m_hooks.torrentTitle)
        in.torrentTitle = m_hooks.torrentTitle(item->torrentId);
    in.duration = player->duration();
    in.loaded = player->loaded();
    in.paused = player->paused();
    in.ended = player->ended();
    in.hasNext = player->hasNextFile();
    in.hasPrevious = player->hasPreviousFile();
    return in;
}

void MprisService::refresh()
{
    const MprisProperties next = Mpris::properties(input());
    const QStringList changed = Mpris::changedProperties(m_current, next);
    m_current = next;
    if (!changed.isEmpty())
        announce(QString::fromLatin1(PlayerInterface), changed);
}

QVariantMap MprisService::metadata() const
{
    QVariantMap map;
    if (!m_current.track) {
        // Clients read a track id even with nothing playing; this is the one MPRIS reserves.
        map.insert(QStringLiteral("mpris:trackid"),
                   QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/mpris/MediaPlayer2/TrackList/NoTrack"))));
        return map;
    }
    const MprisTrack &track = *m_current.track;
    map.insert(QStringLiteral("mpris:trackid"), QVariant::fromValue(QDBusObjectPath(track.trackId)));
    map.insert(QStringLiteral("xesam:title"), track.title);
    if (!track.album.isEmpty())
        map.insert(QStringLiteral("xesam:album"), track.album);
    if (track.lengthUs)
        map.insert(QStringLiteral("mpris:length"), QVariant::fromValue<qlonglong>(*track.lengthUs));
    return map;
}

qlonglong MprisService::positionUs() const
{
    return m_player && m_player->item() ? microseconds(m_player->position()) : 0;
}

void MprisService::announce(const QString &interface, const QStringList &names)
{
    if (m_serviceName.isEmpty())
        return;
    QVariantMap values;
    for (const QString &name : names) {
        if (name == QLatin1String("PlaybackStatus"))
            values.insert(name, m_current.playbackStatus);
        else if (name == QLatin1String("Metadata"))
            values.insert(name, metadata());
        else if (name == QLatin1String("Volume"))
            values.insert(name, m_current.volume);
        else if (name == QLatin1String("Rate"))
            values.insert(name, m_current.rate);
        else if (name == QLatin1String("CanGoNext"))
            values.insert(name, m_current.canGoNext);
        else if (name == QLatin1String("CanGoPrevious"))
            values.insert(name, m_current.canGoPrevious);
        else if (name == QLatin1String("CanPlay"))
            values.insert(name, m_current.canPlay);
        else if (name == QLatin1String("CanPause"))
            values.insert(name, m_current.canPause);
        else if (name == QLatin1String("CanSeek"))
            values.insert(name, m_current.canSeek);
    }
    QDBusMessage signal = QDBusMessage::createSignal(QString::fromLatin1(ObjectPath),
                                                     QStringLiteral("org.freedesktop.DBus.Properties"),
                                                     QStringLiteral("PropertiesChanged"));
    signal << interface << values << QStringList();
    m_bus.send(signal);
}

void MprisService::play()
{
    if (m_player && m_player->item() && (m_player->paused() || m_player->ended()))
        m_player->togglePause();
}

void MprisService::pause()
{
    if (m_player && m_player->item() && !m_player->paused() && !m_player->ended())
        m_player->togglePause();
}

void MprisService::playPause()
{
    if (m_player && m_player->item())
        m_player->togglePause();
}

void MprisService::stop()
{
    if (m_player && m_player->item())
        m_player->stop();
}

void MprisService::next()
{
    if (m_player)
        m_player->playNext();
}

void MprisService::previous()
{
    if (m_player)
        m_player->playPrevious();
}

void MprisService::seekBy(qlonglong offsetUs)
{
    PlayerModel *player = m_player;
    if (!player || !m_current.canSeek)
        return;
    const double target = player->position() + static_cast<double>(offsetUs) / 1e6;
    // Seeking past the end is a request for the next track, where there is one.
    if (target >= player->duration() && player->hasNextFile()) {
        player->playNext();
        return;
    }
    player->seek(target);
}

void MprisService::setPosition(const QDBusObjectPath &trackId, qlonglong positionUs)
{
    PlayerModel *player = m_player;
    // A request for a track that is no longer playing is stale: clients send the id they saw.
    if (!player || !m_current.canSeek || !m_current.track || trackId.path() != m_current.track->trackId)
        return;
    const double seconds = static_cast<double>(positionUs) / 1e6;
    if (seconds < 0.0 || seconds > player->duration())
        return;
    player->seek(seconds);
}

void MprisService::setVolume(double volume)
{
    if (m_player)
        m_player->setVolume(Mpris::volumePercent(volume));
}

void MprisService::setRate(double rate)
{
    PlayerModel *player = m_player;
    if (!player || !std::isfinite(rate))
        return;
    // A rate of 0 means pause to MPRIS clients.
    if (rate <= 0.0) {
        pause();
        return;
    }
    player->setPlaybackSpeed(std::clamp(rate, Mpris::MinimumRate, Mpris::MaximumRate));
}

void MprisService::raise()
{
    if (m_hooks.raise)
        m_hooks.raise();
}

void MprisService::quit()
{
    if (m_hooks.quit)
        m_hooks.quit();
}

MprisRootAdaptor::MprisRootAdaptor(MprisService *service)
    : QDBusAbstractAdaptor(service)
    , m_service(service)
{
}

void MprisRootAdaptor::Raise()
{
    m_service->raise();
}

void MprisRootAdaptor::Quit()
{
    m_service->quit();
}

MprisPlayerAdaptor::MprisPlayerAdaptor(MprisService *service)
    : QDBusAbstractAdaptor(service)
    , m_service(service)
{
    // Only signals declared by the adaptor itself reach the bus; its properties change through
    // PropertiesChanged, which the service sends.
    setAutoRelaySignals(false);
}
