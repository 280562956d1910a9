#pragma once

#include "engine/TorrentStatus.h"

#include <QList>
#include <QString>

#include <optional>

// What the library says about one torrent: the share it shows, the status line and symbol and
// the time left; the check speed is TorrentStatus::checkingSpeedText. Pure functions of the
// published status, any thread.

// 0..1. A check shows the check's own progress; a torrent without wanted bytes counts as
// complete once its metadata is there; otherwise the share of the wanted bytes that are done.
double displayProgress(const TorrentStatus &t);

// The Russian status line. The order of the tests is the meaning: a missing file outranks an
// error, which outranks a move, and so on down to "Готово".
QString statusText(const TorrentStatus &t);

// A symbol name for the status. Missing files have none of their own and read as the rest do.
QString statusSymbol(const TorrentStatus &t);

// The title of the resume command over a set of torrents: torrents whose files went missing are
// restarted rather than resumed, and a mix is started.
QString resumeTitle(const QList<TorrentStatus> &statuses);

// Seconds until the wanted bytes are in at the current rate; none while paused, idle or done.
std::optional<double> downloadTimeLeft(const TorrentStatus &t);

// The "Осталось" text: a running check shows its estimate ("≈ 2 мин 5 с"), a download its time
// left, and anything else "—".
QString timeLeftText(const TorrentStatus &t);
