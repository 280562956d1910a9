#pragma once

#include "media/MediaKind.h"
#include "media/TorrentFile.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>

#include <optional>

// The tick state of a row in the add dialog and the files view.
enum class CheckState { on, off, mixed };

// One row of a torrent's file tree: a folder (no `file`, at least one child) or a file (a
// `file`, no children). Folders carry the sums and unions of everything below them so a view
// can draw a folder row without walking it.
struct FileNode {
    // "d:" + folder path from the top ("d:/Season 1/Extras"), or "f:" + file index ("f:12").
    // Folder ids stay the same when a filter hides siblings, so a selection survives typing.
    QString id;
    QString name;
    std::optional<TorrentFile> file;
    QList<FileNode> children;   // sorted, folders first; empty for a file
    qint64 size = 0;            // bytes
    qint64 done = 0;            // bytes
    QList<int> indices;         // file indices below, in child order
    QSet<int> priorities;       // the distinct priorities below
    std::optional<MediaKind> kind;  // files only

    bool isFolder() const { return !file.has_value(); }

    // Read from `priorities` alone: anything above 0 turns the row on, a 0 beside it makes it
    // mixed. A negative priority never turns a row on.
    CheckState check() const;

    // A row is redrawn exactly when its progress or its priorities change, so size, name,
    // indices and kind take no part: they follow from the id.
    bool operator==(const FileNode &other) const;
};

// Nodes are identified by id alone, which is what a selection of rows stores.
inline size_t qHash(const FileNode &node, size_t seed = 0)
{
    return qHash(node.id, seed);
}
