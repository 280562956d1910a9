#pragma once

#include "engine/AppSettings.h"
#include "remote/AutomationError.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QPointer>
#include <QString>

#include <QCoroTask>

#include <optional>
#include <variant>

class ControlWindows;
class MainUIState;
class PlayerModel;
class TorrentEngine;

// What an agent's tool call does. It acts on the engine and the player as a user would, and is
// the one place that decides what an automated caller may do: every path from outside is made
// absolute and clean, deleting data takes the torrent's name as confirmation, and one command
// runs at a time.
//
// Main thread only. call() suspends at the engine's reports and commands; a second call that
// arrives meanwhile is refused at once, not queued, so an agent never acts on state that changed
// under it: it is told to read the state again and retry.
class AutomationAPI : public QObject
{
    Q_OBJECT

public:
    // The process-wide API over the shared engine, player and main window state, made at first
    // use. It opens windows once the application frame has given it its windows.
    static AutomationAPI *shared();

    // None of them is owned. `player` and `ui` may be null: the player's tools then find
    // nothing open, and get_state shows an idle player and a window at its defaults.
    AutomationAPI(TorrentEngine *engine, PlayerModel *player, MainUIState *ui, QObject *parent = nullptr);

    // The application frame's windows; play_file opens "player" through them. None: no window
    // is opened, and playback goes on all the same.
    void setWindows(ControlWindows *windows) { m_windows = windows; }

    // Runs one tool. In order: the arguments are checked against the tool's schema; a call
    // during another one is refused; a shut-down engine refuses; the engine's state is brought
    // up to date; an `id` argument must name a torrent; then the tool runs. The result is the
    // tool's JSON value or an error whose text goes to the agent as it is.
    QCoro::Task<AutomationOutcome> call(QString name, QJsonObject arguments);

    bool busy() const { return m_busy; }

    // A path from outside, made safe to act on: it must begin with "/" and hold no control
    // character; "." and ".." are resolved and repeated slashes dropped.
    static std::variant<QString, AutomationError> absolutePath(const QString &path);
    // Creates a directory with its parents; the system's words on failure, and a refusal when
    // the directory can't be written to afterwards.
    static std::optional<AutomationError> prepareDirectory(const QString &path);
    // The settings an agent reads and changes, under the tools' key names.
    static QJsonObject settingsView(const AppSettings &settings);
    // control_player takes for each action exactly the one parameter it uses, or none.
    static std::optional<AutomationError> checkPlayerParameters(const QJsonObject &arguments);

private:
    QCoro::Task<AutomationOutcome> run(QString name, QJsonObject arguments);
    AutomationOutcome runAtOnce(const QString &name, const QJsonObject &arguments);
    QCoro::Task<AutomationOutcome> torrentDetails(QString id);
    QCoro::Task<AutomationOutcome> previewTorrent(QJsonObject arguments);
    QCoro::Task<AutomationOutcome> addTorrent(QJsonObject arguments);
    QCoro::Task<AutomationOutcome> torrentAction(QString id, QJsonObject arguments);
    QCoro::Task<AutomationOutcome> setFilePriority(QString id, QJsonObject arguments);
    QCoro::Task<AutomationOutcome> setTorrentLimits(QString id, QJsonObject arguments);
    QCoro::Task<AutomationOutcome> removeTorrent(QString id, QJsonObject arguments);
    AutomationOutcome updateSettings(const QJsonObject &arguments);
    QCoro::Task<AutomationOutcome> playFile(QString id, QJsonObject arguments);
    AutomationOutcome controlPlayer(const QJsonObject &arguments);

    QPointer<TorrentEngine> m_engine;
    QPointer<PlayerModel> m_player;
    QPointer<MainUIState> m_ui;
    ControlWindows *m_windows = nullptr;
    bool m_busy = false;
};
