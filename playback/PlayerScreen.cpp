#include "playback/PlayerScreen.h"

#include "core/PathText.h"
#include "engine/TorrentEngine.h"
#include "media/Format.h"
#include "media/MediaMatcher.h"
#include "playback/PlayerModel.h"
#include "playback/PlayerRules.h"
#include "playback/MPVCore.h"
#include "playback/VideoLayer.h"

#include <QMetaMethod>
#include <QMetaProperty>
#include <QVariantMap>

#include <algorithm>
#include <cmath>

namespace PlayerScreenRules {

namespace {

constexpr double SpeedTolerance = 0.01;

QVariantList variantRows(const QList<MenuRow> &rows)
{
    QVariantList list;
    for (const MenuRow &row : rows) {
        list.append(QVariantMap{{QStringLiteral("id"), row.id},
                                {QStringLiteral("label"), row.label},
                                {QStringLiteral("detail"), row.detail},
                                {QStringLiteral("checked"), row.checked}});
    }
    return list;
}

} // namespace

Overlay overlay(bool hasError, bool loaded, bool buffering, bool waitingAfterSeek)
{
    if (hasError)
        return Overlay::Error;
    if (!loaded || buffering || waitingAfterSeek)
        return Overlay::Status;
    return Overlay::None;
}

QString statusText(bool loaded, bool buffering, bool waitingAfterSeek, std::optional<double> bufferProgress,
                   qint64 downloadRate)
{
    QString base = !loaded                         ? QStringLiteral("Открытие")
                   : waitingAfterSeek && !buffering ? QStringLiteral("Перемотка")
                                                    : QStringLiteral("Буферизация");
    if (bufferProgress)
        base += QLatin1Char(' ') + QString::number(static_cast<int>(std::floor(*bufferProgress * 100.0))) + QLatin1Char('%');
    QStringList parts{base};
    if (downloadRate > 0)
        parts.append(Format::bytes(downloadRate) + QStringLiteral("/с"));
    return parts.join(QStringLiteral(" · "));
}

QString playPauseLabel(bool playing)
{
    return playing ? QStringLiteral("Пауза") : QStringLiteral("Воспроизвести");
}

QString timeText(double position, double duration)
{
    return Format::clock(position) + QStringLiteral(" / ") + Format::clock(duration);
}

QString seekValueText(double position, double duration)
{
    return Format::clock(position) + QStringLiteral(" из ") + Format::clock(duration);
}

QString volumeText(double volume)
{
    return QString::number(static_cast<int>(std::floor(volume))) + QLatin1Char('%');
}

QString speedLabel(double speed)
{
    if (speed == 1.0)
        return QStringLiteral("1×");
    return QString::asprintf("%g×", speed);
}

QList<MenuRow> speedRows(double speed)
{
    QList<MenuRow> rows;
    for (const double value : Speeds)
        rows.append({PlayerRules::fixed(value, 2), speedLabel(value), {}, std::abs(speed - value) <= SpeedTolerance});
    return rows;
}

QList<MenuRow> trackRows(const QList<TrackOption> &options)
{
    QList<MenuRow> rows;
    for (const TrackOption &option : options)
        rows.append({option.id, option.label, option.detail.value_or(QString()), option.selected});
    return rows;
}

QString tracksPlaceholder(const QList<TrackOption> &options, bool loaded)
{
    return options.isEmpty() && !loaded ? QStringLiteral("Чтение дорожек…") : QString();
}

QList<MenuRow> episodeRows(const QList<TorrentFile> &files, std::optional<int> current)
{
    QList<MenuRow> rows;
    for (const TorrentFile &file : MediaMatcher::videos(files)) {
        QString label = PathText::lastPathComponent(file.path);
        if (file.size > 0 && file.done > 0 && file.done < file.size)
            label += QStringLiteral("  ·  ") + Format::percent(static_cast<double>(file.done) / static_cast<double>(file.size));
        if (file.prio == 0)
            label += QStringLiteral("  ·  не скачивается");
        rows.append({QString::number(file.i), label, {}, current && *current == file.i});
    }
    return rows;
}

} // namespace PlayerScreenRules

using namespace PlayerScreenRules;

PlayerScreen::PlayerScreen(QObject *parent)
    : QObject(parent)
{
}

PlayerModel *PlayerScreen::player() const
{
    return m_player.data();
}

void PlayerScreen::setPlayer(PlayerModel *player)
{
    if (m_player == player)
        return;
    if (m_player) {
        disconnect(m_player, nullptr, this, nullptr);
        if (m_player->engine())
            disconnect(m_player->engine(), nullptr, this, nullptr);
    }
    m_player = player;
    if (player) {
        // Every published change of the player can change a text; the view re-reads only
        // what differs.
        const QMetaObject *meta = player->metaObject();
        const QMetaMethod notify = metaObject()->method(metaObject()->indexOfSignal("changed()"));
        for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i) {
            const QMetaProperty property = meta->property(i);
            if (property.hasNotifySignal())
                connect(player, property.notifySignal(), this, notify);
        }
        connect(player, &PlayerModel::cursorHideRequested, this, [this] { setCursorHidden(true); });
        connect(player, &PlayerModel::controlsVisibleChanged, this, [this] {
            if (m_player && m_player->controlsVisible())
                setCursorHidden(false);
        });
        if (TorrentEngine *engine = player->engine())
            connect(engine, &TorrentEngine::torrentsChanged, this, &PlayerScreen::changed);
    }
    emit playerChanged();
    emit changed();
}

Overlay PlayerScreen::overlay() const
{
    if (!m_player)
        return Overlay::None;
    return PlayerScreenRules::overlay(m_player->error().has_value(), m_player->loaded(), m_player->buffering(),
                                      m_player->waitingAfterSeek());
}

QString PlayerScreen::overlayName() const
{
    switch (overlay()) {
    case Overlay::Error:
        return QStringLiteral("error");
    case Overlay::Status:
        return QStringLiteral("status");
    case Overlay::None:
        break;
    }
    return QString();
}

QString PlayerScreen::errorText() const
{
    return m_player ? m_player->error().value_or(QString()) : QString();
}

QString PlayerScreen::statusText() const
{
    if (!m_player)
        return QString();
    qint64 rate = 0;
    if (const auto item = m_player->item(); item && m_player->engine()) {
        if (const auto status = m_player->engine()->torrent(item->torrentId))
            rate = status->downloadRate;
    }
    return PlayerScreenRules::statusText(m_player->loaded(), m_player->buffering(), m_player->waitingAfterSeek(),
                                         m_player->bufferProgress(), rate);
}

QString PlayerScreen::title() const
{
    const auto item = m_player ? m_player->item() : std::nullopt;
    return item ? PathText::lastPathComponent(item->file.path) : QString();
}

QString PlayerScreen::playPauseLabel() const
{
    return PlayerScreenRules::playPauseLabel(m_player && !m_player->paused() && !m_player->ended());
}

QString PlayerScreen::playPauseSymbol() const
{
    return m_player && !m_player->paused() && !m_player->ended() ? QStringLiteral("pause.fill")
                                                                 : QStringLiteral("play.fill");
}

QString PlayerScreen::timeText() const
{
    return m_player ? PlayerScreenRules::timeText(m_player->position(), m_player->duration())
                    : PlayerScreenRules::timeText(0, 0);
}

bool PlayerScreen::nextVisible() const
{
    return m_player && m_player->hasNextFile();
}

QString PlayerScreen::muteSymbol() const
{
    return m_player && m_player->muted() ? QStringLiteral("speaker.slash.fill") : QStringLiteral("speaker.wave.2.fill");
}

QString PlayerScreen::muteLabel() const
{
    return m_player && m_player->muted() ? QStringLiteral("Включить звук") : QStringLiteral("Выключить звук");
}

QString PlayerScreen::volumeText() const
{
    return PlayerScreenRules::volumeText(m_player ? m_player->volume() : 100.0);
}

QString PlayerScreen::speedTitle() const
{
    return PlayerScreenRules::speedLabel(m_player ? m_player->speed() : 1.0);
}

QVariantList PlayerScreen::speedRows() const
{
    return variantRows(PlayerScreenRules::speedRows(m_player ? m_player->speed() : 1.0));
}

QVariantList PlayerScreen::audioRows() const
{
    return m_player ? variantRows(trackRows(m_player->audioOptions())) : QVariantList();
}

QString PlayerScreen::audioPlaceholder() const
{
    return m_player ? tracksPlaceholder(m_player->audioOptions(), m_player->loaded()) : QString();
}

QVariantList PlayerScreen::subtitleRows() const
{
    return m_player ? variantRows(trackRows(m_player->subtitleOptions())) : QVariantList();
}

QString PlayerScreen::subtitlePlaceholder() const
{
    return m_player ? tracksPlaceholder(m_player->subtitleOptions(), m_player->loaded()) : QString();
}

QVariantList PlayerScreen::episodeRows() const
{
    if (!m_player)
        return {};
    const auto item = m_player->item();
    return variantRows(PlayerScreenRules::episodeRows(m_player->files(), item ? std::optional<int>(item->file.i)
                                                                               : std::nullopt));
}

bool PlayerScreen::seekEnabled() const
{
    return m_player && m_player->duration() > 0;
}

QVariantList PlayerScreen::downloadedRanges() const
{
    QVariantList list;
    if (!m_player)
        return list;
    for (const PlaybackRange &range : m_player->downloadedRanges())
        list.append(QVariantMap{{QStringLiteral("start"), range.start}, {QStringLiteral("end"), range.end}});
    return list;
}

QString PlayerScreen::seekValueText() const
{
    return m_player ? PlayerScreenRules::seekValueText(m_player->position(), m_player->duration())
                    : PlayerScreenRules::seekValueText(0, 0);
}

double PlayerScreen::timeAt(double fraction) const
{
    if (!m_player)
        return 0.0;
    return std::clamp(fraction, 0.0, 1.0) * m_player->duration();
}

QString PlayerScreen::clockAt(double fraction) const
{
    return Format::clock(timeAt(fraction));
}

void PlayerScreen::chooseSpeed(const QString &id)
{
    if (m_player && m_player->core())
        m_player->core()->set(QStringLiteral("speed"), id);
}

void PlayerScreen::chooseTrack(const QString &id, bool audio)
{
    if (m_player)
        m_player->select(id, audio);
}

void PlayerScreen::chooseEpisode(const QString &id)
{
    if (!m_player)
        return;
    bool valid = false;
    const int index = id.toInt(&valid);
    for (const TorrentFile &file : m_player->files()) {
        if (valid && file.i == index) {
            m_player->play(file);
            return;
        }
    }
}

void PlayerScreen::seekBy(double seconds)
{
    if (m_player)
        m_player->seek(m_player->position() + seconds);
}

void PlayerScreen::toggleMute()
{
    if (m_player && m_player->core())
        m_player->core()->commandAsync({QStringLiteral("cycle"), QStringLiteral("mute")});
}

void PlayerScreen::pointerAt(double x, double y)
{
    const std::pair<double, double> point{x, y};
    if (m_pointer == point)
        return;
    m_pointer = point;
    setCursorHidden(false);
    if (m_player)
        m_player->poke();
}

void PlayerScreen::windowClosed()
{
    setCursorHidden(false);
    if (!m_player)
        return;
    m_player->stop();
    // The surface goes with the window; the core stays for the next play.
    if (MPVCore *core = m_player->core() ? m_player->core()->mpvCore() : nullptr) {
        if (VideoLayer *layer = core->videoLayer())
            layer->destroy();
    }
}

void PlayerScreen::setCursorHidden(bool hidden)
{
    if (m_cursorHidden == hidden)
        return;
    m_cursorHidden = hidden;
    emit cursorHiddenChanged();
}
