#pragma once

#include <QJsonObject>

class MainUIState;
class PlayerModel;
class TorrentEngine;

// The whole program's state as one JSON document: the session, every torrent, the main window,
// the player, the tracker lists and the toast. The control server's /state and the automation
// tool get_state both hand it out, so it lives apart from either server; the control server
// exists only when a port was given.
//
// Any of the three may be null: its part then reads as empty (no torrents, the window at its
// defaults, an idle player). Absent optional values are JSON null. Main thread only.
QJsonObject stateDocument(const TorrentEngine *engine, const PlayerModel *player, const MainUIState *ui);
