#pragma once

#include "engine/TorrentReports.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QtGlobal>

#include <optional>

// How the control routes read their query parameters. Query strings come from anyone who can
// reach the port, so every reader has a meaning for malformed text rather than a failure.
namespace RouteParameters {

// The query of a request target ("/add?path=a+b" gives "path" = "a b"), decoded as forms are:
// "+" is a space and "%2B" a plus, so that scripts, shells and browsers all reach the same value.
// A later repeat of a name replaces an earlier one, and a name without "=" has an empty value.
// None when a percent sign starts no escape or the bytes decode to no UTF-8: a value that
// names a file must not be guessed at.
std::optional<QMap<QString, QString>> formQuery(const QString &target);

// Comma-separated file indices ("1,foo,3"); pieces that are not whole non-negative numbers are
// dropped and the rest kept in order.
QList<int> indexList(const QString &text);

// A level on libtorrent's 0..7 scale as one of the four priorities a user picks: 0 and below
// skip, 1 to 3 low, 4 and 5 normal, 6 and up high. Text that is no integer means normal.
FilePriority priorityForLevel(const QString &text);

// An integer parameter times `factor` (1024 for KiB), held to the bridge's 32-bit signed range;
// missing or malformed text is 0.
qint32 clampedInt32(const QString &text, qint64 factor = 1);

} // namespace RouteParameters
