#pragma once

#include "media/TorrentFile.h"
#include "playback/TrackOption.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <optional>

class PlayerModel;

// What the player screen shows, as texts and choices worked out from the player's state. Pure
// functions, any thread; PlayerScreen publishes them to the view.
namespace PlayerScreenRules {

enum class Overlay { None, Status, Error };
Overlay overlay(bool hasError, bool loaded, bool buffering, bool waitingAfterSeek);

// "Открытие", "Перемотка" or "Буферизация", then the waited-for piece in whole percent, then the
// download rate, joined with " · ".
QString statusText(bool loaded, bool buffering, bool waitingAfterSeek, std::optional<double> bufferProgress,
                   qint64 downloadRate);

QString playPauseLabel(bool playing);
QString timeText(double position, double duration);
QString seekValueText(double position, double duration);
QString volumeText(double volume);

struct MenuRow
{
    QString id;
    QString label;
    QString detail;
    bool checked = false;
    bool operator==(const MenuRow &) const = default;
};

// "1×" for normal speed, "%g×" otherwise.
QString speedLabel(double speed);
inline constexpr double Speeds[] = {0.5, 0.75, 1.0, 1.25, 1.5, 2.0};
// One row per speed, checked within 0.01 of the current one; the id is the value as libmpv
// takes it.
QList<MenuRow> speedRows(double speed);
QList<MenuRow> trackRows(const QList<TrackOption> &options);
// The menu's one line while the file's tracks are still being read, else empty.
QString tracksPlaceholder(const QList<TrackOption> &options, bool loaded);
// The torrent's videos in episode order; the id is the file index.
QList<MenuRow> episodeRows(const QList<TorrentFile> &files, std::optional<int> current);

} // namespace PlayerScreenRules

// The player screen's view model: every text, tip, check mark and overlay choice of the screen,
// bound to a PlayerModel. The view only lays these out and calls back. Main thread.
class PlayerScreen : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(PlayerModel *player READ player WRITE setPlayer NOTIFY playerChanged)
    Q_PROPERTY(QString overlay READ overlayName NOTIFY changed)
    Q_PROPERTY(QString errorText READ errorText NOTIFY changed)
    Q_PROPERTY(QString statusText READ statusText NOTIFY changed)
    Q_PROPERTY(QString title READ title NOTIFY changed)
    Q_PROPERTY(QString playPauseLabel READ playPauseLabel NOTIFY changed)
    Q_PROPERTY(QString playPauseSymbol READ playPauseSymbol NOTIFY changed)
    Q_PROPERTY(QString timeText READ timeText NOTIFY changed)
    Q_PROPERTY(bool nextVisible READ nextVisible NOTIFY changed)
    Q_PROPERTY(QString muteSymbol READ muteSymbol NOTIFY changed)
    Q_PROPERTY(QString muteLabel READ muteLabel NOTIFY changed)
    Q_PROPERTY(QString volumeText READ volumeText NOTIFY changed)
    Q_PROPERTY(QString speedTitle READ speedTitle NOTIFY changed)
    Q_PROPERTY(QVariantList speedRows READ speedRows NOTIFY changed)
    Q_PROPERTY(QVariantList audioRows READ audioRows NOTIFY changed)
    Q_PROPERTY(QString audioPlaceholder READ audioPlaceholder NOTIFY changed)
    Q_PROPERTY(QVariantList subtitleRows READ subtitleRows NOTIFY changed)
    Q_PROPERTY(QString subtitlePlaceholder READ subtitlePlaceholder NOTIFY changed)
    Q_PROPERTY(QVariantList episodeRows READ episodeRows NOTIFY changed)
    Q_PROPERTY(bool seekEnabled READ seekEnabled NOTIFY changed)
    Q_PROPERTY(QVariantList downloadedRanges READ downloadedRanges NOTIFY changed)
    Q_PROPERTY(QString seekValueText READ seekValueText NOTIFY changed)
    Q_PROPERTY(bool cursorHidden READ cursorHidden NOTIFY cursorHiddenChanged)

    // Fixed texts of the screen, here so that every text the user reads has one home.
    Q_PROPERTY(QString windowTitle READ windowTitle CONSTANT)
    Q_PROPERTY(QString errorSymbol READ errorSymbol CONSTANT)
    Q_PROPERTY(double errorOpacity READ errorOpacity CONSTANT)
    Q_PROPERTY(QString playPauseTip READ playPauseTip CONSTANT)
    Q_PROPERTY(QString backLabel READ backLabel CONSTANT)
    Q_PROPERTY(QString forwardLabel READ forwardLabel CONSTANT)
    Q_PROPERTY(QString nextLabel READ nextLabel CONSTANT)
    Q_PROPERTY(QString nextTip READ nextTip CONSTANT)
    Q_PROPERTY(QString volumeLabel READ volumeLabel CONSTANT)
    Q_PROPERTY(QString volumeTip READ volumeTip CONSTANT)
    Q_PROPERTY(QString speedLabel READ speedLabel CONSTANT)
    Q_PROPERTY(QString speedTip READ speedTip CONSTANT)
    Q_PROPERTY(QString audioLabel READ audioLabel CONSTANT)
    Q_PROPERTY(QString audioTip READ audioTip CONSTANT)
    Q_PROPERTY(QString subtitleLabel READ subtitleLabel CONSTANT)
    Q_PROPERTY(QString subtitleTip READ subtitleTip CONSTANT)
    Q_PROPERTY(QString episodesLabel READ episodesLabel CONSTANT)
    Q_PROPERTY(QString fullScreenLabel READ fullScreenLabel CONSTANT)
    Q_PROPERTY(QString fullScreenTip READ fullScreenTip CONSTANT)
    Q_PROPERTY(QString seekLabel READ seekLabel CONSTANT)

public:
    explicit PlayerScreen(QObject *parent = nullptr);

    PlayerModel *player() const;
    void setPlayer(PlayerModel *player);

    QString overlayName() const;
    PlayerScreenRules::Overlay overlay() const;
    QString errorText() const;
    QString statusText() const;
    QString title() const;
    QString playPauseLabel() const;
    QString playPauseSymbol() const;
    QString timeText() const;
    bool nextVisible() const;
    QString muteSymbol() const;
    QString muteLabel() const;
    QString volumeText() const;
    QString speedTitle() const;
    QVariantList speedRows() const;
    QVariantList audioRows() const;
    QString audioPlaceholder() const;
    QVariantList subtitleRows() const;
    QString subtitlePlaceholder() const;
    QVariantList episodeRows() const;
    bool seekEnabled() const;
    // {start, end} fractions of the file that are there.
    QVariantList downloadedRanges() const;
    QString seekValueText() const;
    bool cursorHidden() const { return m_cursorHidden; }

    static QString windowTitle() { return QStringLiteral("Плеер"); }
    static QString errorSymbol() { return QStringLiteral("exclamationmark.triangle"); }
    static double errorOpacity() { return 0.85; }
    static QString playPauseTip() { return QStringLiteral("Пауза (пробел)"); }
    static QString backLabel() { return QStringLiteral("Назад на 10 с (←)"); }
    static QString forwardLabel() { return QStringLiteral("Вперёд на 10 с (→)"); }
    static QString nextLabel() { return QStringLiteral("Следующая серия"); }
    static QString nextTip() { return QStringLiteral("Следующая серия (N)"); }
    static QString volumeLabel() { return QStringLiteral("Громкость"); }
    static QString volumeTip() { return QStringLiteral("Громкость (↑/↓ или прокрутка над видео)"); }
    static QString speedLabel() { return QStringLiteral("Скорость"); }
    static QString speedTip() { return QStringLiteral("Скорость воспроизведения"); }
    static QString audioLabel() { return QStringLiteral("Аудиодорожка"); }
    static QString audioTip() { return QStringLiteral("Аудиодорожка (A)"); }
    static QString subtitleLabel() { return QStringLiteral("Субтитры"); }
    static QString subtitleTip() { return QStringLiteral("Субтитры (S)"); }
    static QString episodesLabel() { return QStringLiteral("Список серий"); }
    static QString fullScreenLabel() { return QStringLiteral("Полный экран"); }
    static QString fullScreenTip() { return QStringLiteral("Полный экран (F)"); }
    static QString seekLabel() { return QStringLiteral("Позиция"); }

    // The clock text at a fraction of the file, for the seek bar's hover label.
    Q_INVOKABLE QString clockAt(double fraction) const;
    // Seconds at a fraction of the file.
    Q_INVOKABLE double timeAt(double fraction) const;
    Q_INVOKABLE void chooseSpeed(const QString &id);
    Q_INVOKABLE void chooseTrack(const QString &id, bool audio);
    Q_INVOKABLE void chooseEpisode(const QString &id);
    Q_INVOKABLE void seekBy(double seconds);
    Q_INVOKABLE void toggleMute();
    // The pointer is at (x, y) over the screen. When it really moved, controls come back, and
    // the cursor with them: the scene re-sends hover events at a standing pointer.
    Q_INVOKABLE void pointerAt(double x, double y);
    // The window was closed: playback stops (its position is kept for the next play).
    Q_INVOKABLE void windowClosed();

signals:
    void playerChanged();
    void changed();
    void cursorHiddenChanged();

private:
    void setCursorHidden(bool hidden);

    QPointer<PlayerModel> m_player;
    bool m_cursorHidden = false;
    std::optional<std::pair<double, double>> m_pointer;
};
