#include "remote/RouteParameters.h"

#include <QByteArrayView>
#include <QStringDecoder>

#include <limits>

namespace RouteParameters {

namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<QString> formDecoded(QByteArrayView text)
{
    QByteArray bytes;
    bytes.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char c = text.at(i);
        if (c == '+') {
            bytes += ' ';
        } else if (c == '%') {
            const int high = i + 2 < text.size() ? hexDigit(text.at(i + 1)) : -1;
            const int low = high >= 0 ? hexDigit(text.at(i + 2)) : -1;
            if (low < 0)
                return std::nullopt;
            bytes += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            bytes += c;
        }
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString decoded = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return decoded;
}

} // namespace

std::optional<QMap<QString, QString>> formQuery(const QString &target)
{
    QMap<QString, QString> items;
    const qsizetype mark = target.indexOf(QLatin1Char('?'));
    if (mark < 0)
        return items;
    QByteArray query = target.mid(mark + 1).toUtf8();
    if (const qsizetype hash = query.indexOf('#'); hash >= 0)
        query.truncate(hash);
    for (const QByteArray &piece : query.split('&')) {
        const QByteArrayView item(piece);
        if (item.isEmpty())
            continue;
        const qsizetype equals = item.indexOf('=');
        const auto name = formDecoded(equals < 0 ? item : item.first(equals));
        const auto value = formDecoded(equals < 0 ? QByteArrayView() : item.sliced(equals + 1));
        if (!name || !value)
            return std::nullopt;
        items.insert(*name, *value);
    }
    return items;
}

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
