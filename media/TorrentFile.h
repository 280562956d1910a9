#pragma once

#include <QString>
#include <QtGlobal>

// One file of a torrent as the engine decodes it from the bridge's files report. Paths are
// relative to the save folder, use "/" and usually begin with the torrent's top directory.
struct TorrentFile {
    int i = 0;            // index in the torrent; stream addresses and priority calls use it
    QString path;
    qint64 size = 0;      // bytes
    qint64 done = 0;      // bytes downloaded and verified
    int prio = 4;         // libtorrent priority, 0 = not downloaded
    bool pad = false;     // a padding file, never shown or played
    int first = 0;        // first piece
    int last = 0;         // last piece

    bool operator==(const TorrentFile &) const = default;
};
