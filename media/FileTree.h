#pragma once

#include "media/FileNode.h"
#include "media/TorrentFile.h"

#include <QList>
#include <QSet>
#include <QString>

// Turns a torrent's flat file list into the tree that the add dialog and the files view show.
// Pure functions of their arguments: no I/O, nothing kept between calls, any thread.
struct FileTree {
    // The top-level nodes. Padding files are dropped. When every path begins with the same
    // top directory and has something below it, that directory is stripped once, so the tree
    // starts inside it. `filter` (trimmed, case-insensitive) keeps files whose whole path
    // holds it, top directory included; a folder exists only for a file that passed.
    // On each level folders come before files, each sorted by name in natural order.
    // `rootName` is taken for callers that know the torrent's name, but the root is worked
    // out from the paths alone: a torrent may be named differently from its top directory.
    static QList<FileNode> build(const QList<TorrentFile> &files, const QString &rootName = {},
                                 const QString &filter = {});

    // Every node, depth first, each directly before its descendants.
    static QList<FileNode> flatten(const QList<FileNode> &nodes);

    // The nodes of `flatten(nodes)` whose id is in `ids`, in that order.
    static QList<FileNode> find(const QSet<QString> &ids, const QList<FileNode> &nodes);
};
