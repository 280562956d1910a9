#pragma once

#include <QString>

// The natural order of names used by file trees, episode lists and track lists: digit runs
// compare by value ("Серия 2" before "Серия 10"), case is ignored, letters follow the user's
// locale. Returns <0, 0 or >0. Safe on any thread.
int localizedStandardCompare(const QString &a, const QString &b);

inline bool localizedStandardLess(const QString &a, const QString &b)
{
    return localizedStandardCompare(a, b) < 0;
}
