#pragma once

#include "media/TorrentFile.h"

#include <QMetaType>
#include <QString>

// The file the player has in hand: a file of one torrent, named by the torrent's id.
struct PlayItem
{
    Q_GADGET
    Q_PROPERTY(QString torrentId MEMBER torrentId)
    Q_PROPERTY(int fileIndex READ fileIndex)
    Q_PROPERTY(QString path READ path)

public:
    QString torrentId;
    TorrentFile file;

    int fileIndex() const { return file.i; }
    QString path() const { return file.path; }

    bool operator==(const PlayItem &) const = default;
};

Q_DECLARE_METATYPE(PlayItem)
