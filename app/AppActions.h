#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QQmlEngine>
#include <QStringList>
#include <QUrl>

class MainUIState;
class TorrentEngine;
class WindowOpener;

// The two ways to bring torrents in from a menu: a file chooser for .torrent files and the
// magnet link on the clipboard. Both end where the desktop's own open requests end, in the
// engine's pendingOpen or the main window's magnet sheet. Main thread only.
class AppActions : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(QUrl torrentPanelFolder READ torrentPanelFolder CONSTANT)
    Q_PROPERTY(QStringList torrentPanelFilters READ torrentPanelFilters CONSTANT)
    Q_PROPERTY(QString torrentPanelTitle READ torrentPanelTitle CONSTANT)

public:
    AppActions(TorrentEngine *engine, MainUIState *ui, WindowOpener *windows, QObject *parent = nullptr);
    ~AppActions() override;

    static AppActions *create(QQmlEngine *, QJSEngine *);
    static AppActions *instance();

    // The main window comes forward and asks its file chooser to open (torrentPanelRequested);
    // what the user picks comes back through chooseTorrents, a cancel through nothing.
    Q_INVOKABLE void openTorrentPanel();
    Q_INVOKABLE void chooseTorrents(const QList<QUrl> &files);
    // A "magnet:" text on the clipboard fills the magnet sheet; anything else opens it empty.
    Q_INVOKABLE void openMagnet();

    // The user's Downloads folder, where the chooser starts.
    QUrl torrentPanelFolder() const;
    QStringList torrentPanelFilters() const;
    QString torrentPanelTitle() const { return QStringLiteral("Открыть торрент"); }

    // The magnet sheet's text for what the clipboard holds.
    static QString magnetTextFrom(const QString &clipboard);

signals:
    void torrentPanelRequested();

private:
    QPointer<TorrentEngine> m_engine;
    QPointer<MainUIState> m_ui;
    QPointer<WindowOpener> m_windows;
};
