#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QPair>
#include <QString>

#include <optional>

// The little of HTTP/1.1 the control server speaks: one request head, gathered over as many
// segments as the client sends it in, and answers that close the connection. Requests come from
// anything that can reach the port, so parsing never trusts a length, an order or an encoding it
// was given.

// The most a request head may take, its blank line included.
inline constexpr qsizetype MaxHeadBytes = 64 * 1024;

struct HeadScan
{
    enum class State { incomplete, complete, tooBig };
    State state = State::incomplete;
    qsizetype length = 0; // with complete: the head's bytes, blank line included
    bool operator==(const HeadScan &) const = default;
};

// Where the head ends in the bytes that have arrived so far: complete once "\r\n\r\n" stands
// within the first MaxHeadBytes; tooBig once that many bytes have come without it; incomplete
// before. Whatever follows the blank line is a body and is never looked at.
HeadScan scanHead(QByteArrayView data);

struct HttpRequest
{
    QString method;
    // The second word of the request line; "/" when the line has fewer than two words.
    QString target;
    // Header lines that arrived whole, names lower-cased, values trimmed, in their order.
    QList<QPair<QByteArray, QByteArray>> headers;
    // The blank line that ends the head arrived within the read.
    bool headComplete = false;

    // The first value of a header, or none.
    std::optional<QByteArray> header(const QByteArray &lowerCaseName) const;

    bool operator==(const HttpRequest &) const = default;
};

// None when the data is empty or not valid UTF-8: such a request is a bad one.
std::optional<HttpRequest> parseHttpRequest(const QByteArray &data);

// Whether a request may have come from a web page rather than a script, and so must not act.
// A page can reach 127.0.0.1 through the user's browser: under a rebound DNS name (its Host is
// not a loopback name), from another origin (Origin or Referer not loopback, Sec-Fetch-Site
// cross-site or same-site). A head cut short by the read can't be judged and is refused too:
// what follows the cut could be any of those headers. Scripts and command-line tools send
// whole heads without these headers and pass.
bool isForeignRequest(const HttpRequest &request);

// "localhost", "*.localhost", 127.0.0.0/8 and ::1, with or without a port; brackets around
// IPv6. Case is ignored.
bool isLoopbackHost(const QString &host);
// A serialised origin or a referrer URL whose host is loopback; "null" is not.
bool isLoopbackOrigin(const QString &origin);

// The part of a file one answer carries.
struct ByteRange
{
    qint64 first = 0;
    qint64 length = 0;
    bool operator==(const ByteRange &) const = default;
};

struct RangeAnswer
{
    int status = 200; // 200 whole file, 206 a part, 416 nothing of the file
    ByteRange range;
    bool operator==(const RangeAnswer &) const = default;
};

// The answer to a Range header over a file of `size` bytes. No header, another unit, a list of
// ranges or a malformed one: the whole file (a server may always ignore Range). A range that
// starts past the end, or an empty suffix: 416. An end past the file is cut to the file, and a
// suffix longer than the file is the whole file as a part.
RangeAnswer resolveRange(const std::optional<QByteArray> &rangeHeader, qint64 size);

// The status line's reason phrase for the codes the server sends.
QByteArray reasonPhrase(int status);
