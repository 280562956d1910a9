#pragma once

#include "app/MprisState.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

#include <functional>

class PlayerModel;

// The player on the session bus as an MPRIS 2 media player, so the desktop's media keys, its
// sound menu and tools like playerctl drive it. Every request goes to the player model; the
// properties follow the model and are announced only when one really changes.
//
// Main thread only. Without a session bus start() answers false and nothing else changes.
class MprisService : public QObject
{
    Q_OBJECT

public:
    // The application's id on the desktop: its desktop file is this name with ".desktop".
    static constexpr const char *DesktopEntry = "org.velix.Velix";
    static constexpr const char *BusName = "org.mpris.MediaPlayer2.velix";
    static constexpr const char *ObjectPath = "/org/mpris/MediaPlayer2";

    struct Hooks
    {
        // The torrent's title for an id (its name in the library).
        std::function<QString(const QString &)> torrentTitle;
        // Shows the player window.
        std::function<void()> raise;
        // The program's ordered stop.
        std::function<void()> quit;
    };

    MprisService(PlayerModel *player, Hooks hooks, QObject *parent = nullptr);
    ~MprisService() override;

    // Registers on `bus` under BusName, or BusName + ".instance<pid>" when another Velix (of
    // another data directory) holds it. False without a bus or when neither name can be had.
    bool start(QDBusConnection bus = QDBusConnection::sessionBus());
    QString serviceName() const { return m_serviceName; }

    // Recomputes the properties and announces those that changed, e.g. when a torrent's title
    // arrives with its metadata.
    void refresh();

    const MprisProperties &current() const { return m_current; }
    QVariantMap metadata() const;
    qlonglong positionUs() const;
    MprisInput input() const;

    // Requests, as the adaptors receive them.
    void play();
    void pause();
    void playPause();
    void stop();
    void next();
    void previous();
    void seekBy(qlonglong offsetUs);
    void setPosition(const QDBusObjectPath &trackId, qlonglong positionUs);
    void setVolume(double volume);
    void setRate(double rate);
    void raise();
    void quit();

signals:
    void seeked(qlonglong positionUs);

private:
    void announce(const QString &interface, const QStringList &names);

    QPointer<PlayerModel> m_player;
    Hooks m_hooks;
    QDBusConnection m_bus;
    QString m_serviceName;
    MprisProperties m_current;
    bool m_wasSeeking = false;
};

// org.mpris.MediaPlayer2: the application as a whole.
class MprisRootAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2")
    Q_PROPERTY(bool CanQuit READ canQuit)
    Q_PROPERTY(bool CanRaise READ canRaise)
    Q_PROPERTY(bool HasTrackList READ hasTrackList)
    Q_PROPERTY(QString Identity READ identity)
    Q_PROPERTY(QString DesktopEntry READ desktopEntry)
    Q_PROPERTY(QStringList SupportedUriSchemes READ supportedUriSchemes)
    Q_PROPERTY(QStringList SupportedMimeTypes READ supportedMimeTypes)

public:
    explicit MprisRootAdaptor(MprisService *service);

    bool canQuit() const { return true; }
    bool canRaise() const { return true; }
    bool hasTrackList() const { return false; }
    QString identity() const { return QStringLiteral("Velix"); }
    QString desktopEntry() const { return QString::fromLatin1(MprisService::DesktopEntry); }
    QStringList supportedUriSchemes() const { return {}; }
    QStringList supportedMimeTypes() const { return {}; }

public slots:
    void Raise();
    void Quit();

private:
    MprisService *m_service;
};

// org.mpris.MediaPlayer2.Player: the playing file and its controls.
class MprisPlayerAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2.Player")
    Q_PROPERTY(QString PlaybackStatus READ playbackStatus)
    Q_PROPERTY(double Rate READ rate WRITE setRate)
    Q_PROPERTY(QVariantMap Metadata READ metadata)
    Q_PROPERTY(double Volume READ volume WRITE setVolume)
    Q_PROPERTY(qlonglong Position READ position)
    Q_PROPERTY(double MinimumRate READ minimumRate)
    Q_PROPERTY(double MaximumRate READ maximumRate)
    Q_PROPERTY(bool CanGoNext READ canGoNext)
    Q_PROPERTY(bool CanGoPrevious READ canGoPrevious)
    Q_PROPERTY(bool CanPlay READ canPlay)
    Q_PROPERTY(bool CanPause READ canPause)
    Q_PROPERTY(bool CanSeek READ canSeek)
    Q_PROPERTY(bool CanControl READ canControl)

public:
    explicit MprisPlayerAdaptor(MprisService *service);

    QString playbackStatus() const { return m_service->current().playbackStatus; }
    double rate() const { return m_service->current().rate; }
    void setRate(double value) { m_service->setRate(value); }
    QVariantMap metadata() const { return m_service->metadata(); }
    double volume() const { return m_service->current().volume; }
    void setVolume(double value) { m_service->setVolume(value); }
    qlonglong position() const { return m_service->positionUs(); }
    double minimumRate() const { return Mpris::MinimumRate; }
    double maximumRate() const { return Mpris::MaximumRate; }
    bool canGoNext() const { return m_service->current().canGoNext; }
    bool canGoPrevious() const { return m_service->current().canGoPrevious; }
    bool canPlay() const { return m_service->current().canPlay; }
    bool canPause() const { return m_service->current().canPause; }
    bool canSeek() const { return m_service->current().canSeek; }
    bool canControl() const { return true; }

public slots:
    void Next() { m_service->next(); }
    void Previous() { m_service->previous(); }
    void Pause() { m_service->pause(); }
    void PlayPause() { m_service->playPause(); }
    void Stop() { m_service->stop(); }
    void Play() { m_service->play(); }
    void Seek(qlonglong Offset) { m_service->seekBy(Offset); }
    void SetPosition(const QDBusObjectPath &TrackId, qlonglong Position) { m_service->setPosition(TrackId, Position); }
    // Velix opens torrents, not addresses of media; it lists no schemes, so nothing comes here.
    void OpenUri(const QString &) {}

signals:
    void Seeked(qlonglong Position);

private:
    MprisService *m_service;
};
