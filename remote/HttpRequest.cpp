#include "remote/HttpRequest.h"

#include <QHostAddress>
#include <QStringDecoder>
#include <QUrl>

#include <algorithm>
#include <limits>

std::optional<QByteArray> HttpRequest::header(const QByteArray &lowerCaseName) const
{
    for (const auto &[name, value] : headers) {
        if (name == lowerCaseName)
            return value;
    }
    return std::nullopt;
}

HeadScan scanHead(QByteArrayView data)
{
    // The blank line may end at most at MaxHeadBytes; a search past that would only find a
    // head that is too big anyway.
    const qsizetype end = data.first(std::min(data.size(), MaxHeadBytes)).indexOf(QByteArrayView("\r\n\r\n"));
    if (end >= 0)
        return {HeadScan::State::complete, end + 4};
    if (data.size() >= MaxHeadBytes)
        return {HeadScan::State::tooBig, 0};
    return {};
}

std::optional<HttpRequest> parseHttpRequest(const QByteArray &data)
{
    if (data.isEmpty())
        return std::nullopt;
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(data);
    if (decoder.hasError())
        return std::nullopt;

    HttpRequest request;
    const QLatin1String lineEnd("\r\n");
    qsizetype end = text.indexOf(lineEnd);
    const QStringList words = text.left(end < 0 ? text.size() : end).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    request.method = words.value(0);
    request.target = words.size() >= 2 ? words.at(1) : QStringLiteral("/");
    if (end < 0)
        return request;

    // Only lines that ended within the read count: a cut line could be the prefix of anything,
    // "Host: 127.0.0.1" of "Host: 127.0.0.1.example.net" among others.
    qsizetype start = end + lineEnd.size();
    while ((end = text.indexOf(lineEnd, start)) >= 0) {
        const QStringView line = QStringView(text).mid(start, end - start);
        start = end + lineEnd.size();
        if (line.isEmpty()) {
            request.headComplete = true;
            break;
        }
        const qsizetype colon = line.indexOf(QLatin1Char(':'));
        if (colon <= 0)
            continue;
        request.headers.append({line.left(colon).trimmed().toUtf8().toLower(), line.mid(colon + 1).trimmed().toUtf8()});
    }
    return request;
}

bool isLoopbackHost(const QString &host)
{
    QString name = host.trimmed().toLower();
    if (name.startsWith(QLatin1Char('['))) {
        const qsizetype close = name.indexOf(QLatin1Char(']'));
        if (close < 0)
            return false;
        const QString rest = name.mid(close + 1);
        if (!rest.isEmpty() && !rest.startsWith(QLatin1Char(':')))
            return false;
        name = name.mid(1, close - 1);
    } else if (name.count(QLatin1Char(':')) == 1) {
        name = name.left(name.indexOf(QLatin1Char(':')));
    }
    if (name.endsWith(QLatin1Char('.')))
        name.chop(1);
    if (name.isEmpty())
        return false;
    if (name == QLatin1String("localhost") || name.endsWith(QLatin1String(".localhost")))
        return true;
    QHostAddress address;
    return address.setAddress(name) && address.isLoopback();
}

bool isLoopbackOrigin(const QString &origin)
{
    const QUrl url(origin.trimmed(), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return false;
    return isLoopbackHost(url.host());
}

bool isForeignRequest(const HttpRequest &request)
{
    if (!request.headComplete)
        return true;
    if (const auto host = request.header("host"); host && !isLoopbackHost(QString::fromUtf8(*host)))
        return true;
    if (const auto origin = request.header("origin"); origin && !isLoopbackOrigin(QString::fromUtf8(*origin)))
        return true;
    if (const auto referer = request.header("referer"); referer && !isLoopbackOrigin(QString::fromUtf8(*referer)))
        return true;
    if (const auto site = request.header("sec-fetch-site")) {
        const QByteArray value = site->toLower();
        if (value == "cross-site" || value == "same-site")
            return true;
    }
    return false;
}

namespace {

// A run of decimal digits that fits in qint64; none for anything else, signs included.
std::optional<qint64> digits(QByteArrayView text)
{
    if (text.isEmpty() || text.size() > 18)
        return std::nullopt;
    qint64 value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

} // namespace

RangeAnswer resolveRange(const std::optional<QByteArray> &rangeHeader, qint64 size)
{
    const RangeAnswer whole{200, {0, size}};
    const RangeAnswer nothing{416, {0, 0}};
    if (!rangeHeader)
        return whole;
    const QByteArray text = rangeHeader->trimmed();
    const QByteArray unit = "bytes=";
    if (!text.toLower().startsWith(unit))
        return whole;
    const QByteArrayView ranges = QByteArrayView(text).sliced(unit.size()).trimmed();
    if (ranges.contains(',') || ranges.isEmpty())
        return whole;
    const qsizetype dash = ranges.indexOf('-');
    if (dash < 0)
        return whole;
    const QByteArrayView left = ranges.first(dash).trimmed();
    const QByteArrayView right = ranges.sliced(dash + 1).trimmed();

    if (left.isEmpty()) {
        const auto suffix = digits(right);
        if (!suffix)
            return whole;
        if (*suffix == 0 || size == 0)
            return nothing;
        const qint64 length = std::min(*suffix, size);
        return {206, {size - length, length}};
    }
    const auto first = digits(left);
    if (!first)
        return whole;
    std::optional<qint64> last;
    if (!right.isEmpty()) {
        last = digits(right);
        // An end before the start makes the header invalid, and an invalid header is ignored.
        if (!last || *last < *first)
            return whole;
    }
    if (*first >= size)
        return nothing;
    const qint64 end = std::min(last.value_or(size - 1), size - 1);
    return {206, {*first, end - *first + 1}};
}

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 206: return "Partial Content";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 416: return "Range Not Satisfiable";
    case 503: return "Service Unavailable";
    default: return "Unknown";
    }
}
