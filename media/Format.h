#pragma once

#include <QLocale>
#include <QString>
#include <QtGlobal>

#include <optional>

// The interface's texts for fractions, times, languages and sizes. Pure functions, any thread.
namespace Format {

// A fraction as a percentage: "9.9%" below 10, whole percents above, and "100%" only from a
// fraction of 1 up. Both ranges round down, so a file at 99.9% never reads as complete.
// "—" when the fraction is not a number.
QString percent(double fraction);

// A time left or taken, in its two largest units: "1 д 2 ч", "1 ч 2 мин", "1 мин 2 с", "2 с".
// "—" for an absent, negative or non-finite value.
QString duration(std::optional<double> seconds);

// A play position: "4:05", "1:04:05". Negative or non-finite gives "0:00".
QString clock(double seconds);

// A language code ("eng", "ja", ...) as its Russian name with a capital first letter
// ("Английский"); the code itself when no name is known. Absent for an absent, empty or
// undetermined ("und") code, so the caller can fall back to a track title.
std::optional<QString> language(const std::optional<QString> &code);

// A byte count in 1024-based units with Russian unit names: "0 байт", "512 байт", "15 КБ",
// "1,5 МБ", "2,25 ГБ". Zero is a number like any other. The number follows the user's locale,
// or Russian when the system locale is the bare C locale.
QString bytes(qint64 count);
QString bytes(qint64 count, const QLocale &locale);

} // namespace Format
