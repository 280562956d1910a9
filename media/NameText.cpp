#include "media/NameText.h"

namespace NameText {

QString trimmed(const QString &text, QStringView characters)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && characters.contains(text.at(begin)))
        ++begin;
    while (end > begin && characters.contains(text.at(end - 1)))
        --end;
    return text.mid(begin, end - begin);
}

QStringList split(const QString &text, QStringView separators)
{
    QStringList pieces;
    qsizetype start = 0;
    for (qsizetype n = 0; n <= text.size(); ++n) {
        if (n == text.size() || separators.contains(text.at(n))) {
            if (n > start)
                pieces.append(text.mid(start, n - start));
            start = n + 1;
        }
    }
    return pieces;
}

} // namespace NameText
