#pragma once

#include <QString>

// Path text rules for torrent paths, which always use "/". They work on text only and never
// touch the disk, so they are safe on any thread.
namespace PathText {

// "a/b/c.mkv" -> "c.mkv"; a trailing "/" is ignored; "/" stays "/".
QString lastPathComponent(const QString &path);
// Extension of the last component without its dot; empty when there is none. A leading dot
// (".hidden") does not start an extension.
QString pathExtension(const QString &path);
// "a/b.c.mkv" -> "a/b.c"; a path without an extension is returned as it is.
QString stringByDeletingPathExtension(const QString &path);
// "a/b/c" -> "a/b"; "c" -> ""; "/c" -> "/".
QString stringByDeletingLastPathComponent(const QString &path);

} // namespace PathText
