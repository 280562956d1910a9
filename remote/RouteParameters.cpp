#include "remote/RouteParameters.h"

#include <limits>

namespace RouteParameters {

QList<int> indexList(const QString &text)
{
    QList<int> indices;
    for (const QString &piece : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        bool valid = false;
        const int index = piece.trimmed().toInt(&valid);
        if (valid && index >= 0)
            indices << index;
    }
    return indices;
}

FilePriority priorityForLevel(const QString &text)
{
    bool valid = false;
    const int level = text.toInt(&valid);
    if (!valid)
        return FilePriority::normal;
    if (level <= 0)
        return FilePriority::skip;
    if (level <= 3)
        return FilePriority::low;
    if (level <= 5)
        return FilePriority::normal;
    return FilePriority::high;
}

qint32 clampedInt32(const QString &text, qint64 factor)
{
    bool valid = false;
    const qint64 value = text.toLongLong(&valid);
    if (!valid || factor < 1)
        return 0;
    constexpr qint64 Max = std::numeric_limits<qint32>::max();
    constexpr qint64 Min = std::numeric_limits<qint32>::min();
    if (value > Max / factor)
        return static_cast<qint32>(Max);
    if (value < Min / factor)
        return static_cast<qint32>(Min);
    return static_cast<qint32>(value * factor);
}

} // namespace RouteParameters
