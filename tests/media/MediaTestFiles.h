#pragma once

// File lists written the way the bridge reports them, and readable failure messages for the
// Qt values the media rules return.

#include "media/TorrentFile.h"

#include <QList>
#include <QString>

#include <initializer_list>
#include <ostream>
#include <vector>

inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace mediatest {

// One record per path, indexed in list order. Paths under ".pad/" are padding, as libtorrent
// names its pad files.
inline QList<TorrentFile> torrentFiles(std::initializer_list<const char *> paths)
{
    QList<TorrentFile> files;
    for (const char *path : paths) {
        TorrentFile file;
        file.i = static_cast<int>(files.size());
        file.path = QString::fromUtf8(path);
        file.pad = file.path.startsWith(QLatin1String(".pad/"));
        files.append(file);
    }
    return files;
}

inline std::vector<int> indices(const QList<TorrentFile> &files)
{
    std::vector<int> list;
    for (const TorrentFile &file : files)
        list.push_back(file.i);
    return list;
}

inline std::optional<QString> text(const char *utf8)
{
    return utf8 ? std::optional<QString>(QString::fromUtf8(utf8)) : std::nullopt;
}

} // namespace mediatest
