// Request heads as any local process may send them to the control server.

#include "FuzzSupport.h"

#include "remote/HttpRequest.h"
#include "remote/RouteParameters.h"

#include <QUrl>
#include <QUrlQuery>

#include <algorithm>
#include <limits>

namespace {

void judge(const HttpRequest &request)
{
    // Each header value also goes through the loopback checks, whatever its name.
    for (const auto &[name, value] : request.headers) {
        const QString text = QString::fromUtf8(value);
        isLoopbackHost(text);
        isLoopbackOrigin(text);
        Fuzz::require(request.header(name).has_value(), "every parsed header can be looked up");
    }
    isForeignRequest(request);
    resolveRange(request.header("range"), 1 << 20);

    // Every query value through every reader the routes have for one.
    const QUrl url(request.target);
    for (const auto &[name, value] : QUrlQuery(url).queryItems(QUrl::FullyDecoded)) {
        const QList<int> indices = RouteParameters::indexList(value);
        Fuzz::require(std::all_of(indices.begin(), indices.end(), [](int i) { return i >= 0; }),
                      "file indices are never negative");
        RouteParameters::priorityForLevel(value);
        const qint32 kib = RouteParameters::clampedInt32(value, 1024);
        Fuzz::require(kib % 1024 == 0 || kib == std::numeric_limits<qint32>::max() || kib == std::numeric_limits<qint32>::min(),
                      "a limit in KiB is a whole number of KiB or held at the range's end");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = Fuzz::bytes(data, size);
    const std::optional<HttpRequest> request = parseHttpRequest(bytes);
    if (!request) {
        Fuzz::require(bytes.isEmpty() || !bytes.isValidUtf8(), "only empty or non-UTF-8 bytes are refused");
        return 0;
    }
    judge(*request);

    // The same bytes cut short, as a read that stopped early sees them. A head that was whole
    // in the shorter read is the head: nothing after its blank line may change it. And a cut
    // must never make up a header the whole head doesn't have in the same place.
    const qsizetype cut = bytes.size() * static_cast<unsigned char>(bytes.at(0)) / 256;
    const std::optional<HttpRequest> early = parseHttpRequest(bytes.left(cut));
    if (!early)
        return 0;
    if (early->headComplete)
        Fuzz::require(*early == *request, "a whole head does not change with the bytes after it");
    Fuzz::require(early->headers.size() <= request->headers.size()
                      && std::equal(early->headers.begin(), early->headers.end(), request->headers.begin()),
                  "a cut head holds a prefix of the whole head's headers");
    Fuzz::require(request->headComplete || !early->headComplete, "more bytes never undo a whole head");
    return 0;
}
