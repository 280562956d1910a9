#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <memory>

class AppActions;
class AppCommands;
class MainUIState;
class MainViewModel;
class MprisService;
class PlayerModel;
class QQmlApplicationEngine;
class SingleInstance;
class QQuickWindow;
class TorrentEngine;
class TrayIcon;
class WindowOpener;

// The program's windows and everything around them that the desktop sees: the main window
// with its menu bar, the player window, the commands and their keys, the tray icon and the
// media controls on the session bus. The services it shows (engine, player, interface state)
// are made before it and outlive it.
//
// Main thread only. In background mode the windows are made but never shown, and neither a
// tray icon nor media controls appear.
class AppFrame : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        bool background = false;
        // Whether the frame shows a tray icon and registers media controls; tests that drive
        // windows only leave them out.
        bool tray = true;
        bool mpris = true;
        // The ordered stop of the program.
        std::function<void()> quit;
    };

    // Where the two windows' views are; the player's and the library's come with their own
    // modules and may be absent from a build.
    static const QUrl MainWindowUrl;
    static const QUrl MainViewUrl;
    static const QUrl PlayerWindowUrl;

    AppFrame(TorrentEngine *engine, PlayerModel *player, MainUIState *ui, Options options, QObject *parent = nullptr);
    ~AppFrame() override;

    // Makes the windows; shows the main one unless in background mode. False when the main
    // window's view could not be made (a broken build).
    bool start();
    // Orders every window out, as the first visible step of the program's stop.
    void hideWindows();
    // A later launch of the program brings the main window forward.
    void showMainOn(SingleInstance *instance);

    WindowOpener *windows() const { return m_windows; }
    AppCommands *commands() const { return m_commands; }
    AppActions *actions() const { return m_actions; }
    QQmlApplicationEngine *qmlEngine() const { return m_qml.get(); }
    QQuickWindow *window(const QString &id) const;
    MprisService *mpris() const { return m_mpris; }
    TrayIcon *tray() const { return m_tray; }
    // Warnings from loading the views, for tests and the log.
    QStringList warnings() const { return m_warnings; }

private:
    QQuickWindow *createWindow(const QUrl &url, const QString &id);

    QPointer<TorrentEngine> m_engine;
    QPointer<PlayerModel> m_player;
    QPointer<MainUIState> m_ui;
    Options m_options;
    WindowOpener *m_windows = nullptr;
    AppActions *m_actions = nullptr;
    AppCommands *m_commands = nullptr;
    std::unique_ptr<QQmlApplicationEngine> m_qml;
    MprisService *m_mpris = nullptr;
    MainViewModel *m_library = nullptr;
    TrayIcon *m_tray = nullptr;
    // The windows are the frame's: made without a parent so the engine leaves them alone.
    QList<QQuickWindow *> m_ownedWindows;
    QStringList m_warnings;
};
