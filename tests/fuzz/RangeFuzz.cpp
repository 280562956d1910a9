// Range headers of stream requests, over files of any size. An input is the file's size in
// decimal, then a newline and the header's value; without the newline there is no header.

#include "FuzzSupport.h"

#include "remote/HttpRequest.h"

#include <limits>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = Fuzz::bytes(data, size);
    const qsizetype newline = bytes.indexOf('\n');
    bool ok = false;
    qint64 fileSize = bytes.left(newline).toLongLong(&ok);
    if (!ok || fileSize < 0)
        fileSize = 0;
    std::optional<QByteArray> header;
    if (newline >= 0)
        header = bytes.mid(newline + 1);

    const RangeAnswer answer = resolveRange(header, fileSize);
    const ByteRange &range = answer.range;
    switch (answer.status) {
    case 200:
        Fuzz::require(range == ByteRange{0, fileSize}, "200 carries the whole file");
        break;
    case 206:
        Fuzz::require(header.has_value(), "a part is only sent when asked for");
        Fuzz::require(range.first >= 0 && range.length >= 1, "a part starts in the file and is not empty");
        Fuzz::require(range.first < fileSize && range.length <= fileSize - range.first, "a part ends inside the file");
        break;
    case 416:
        Fuzz::require(header.has_value(), "416 answers a Range header only");
        Fuzz::require(range == ByteRange{}, "416 carries no bytes");
        break;
    default:
        Fuzz::require(false, "the status is 200, 206 or 416");
    }
    return 0;
}
