#include "core/NaturalCompare.h"

#include <QCollator>
#include <QLocale>

namespace {

QLocale collationLocale()
{
    // A collator made for the C or POSIX locale (LANG unset, as under CI) ignores numeric
    // mode without a word, so names would sort "10" before "2".
    QLocale locale = QLocale::system();
    if (locale.language() == QLocale::C || locale.name() == QLatin1String("C")
        || locale.name() == QLatin1String("POSIX"))
        locale = QLocale(QLocale::Russian, QLocale::Russia);
    return locale;
}

QCollator &threadCollator()
{
    // QCollator is not safe to share between threads; one per thread costs little.
    thread_local QCollator collator = [] {
        QCollator c(collationLocale());
        c.setNumericMode(true);
        c.setCaseSensitivity(Qt::CaseInsensitive);
        c.setIgnorePunctuation(false);
        return c;
    }();
    return collator;
}

} // namespace

int localizedStandardCompare(const QString &a, const QString &b)
{
    const int result = threadCollator().compare(a, b);
    return result < 0 ? -1 : (result > 0 ? 1 : 0);
}
