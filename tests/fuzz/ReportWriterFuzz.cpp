// The bridge writes its reports by hand and the engine reads them with Qt's JSON parser. Any
// bytes a torrent or a peer brings (file names, client names, tracker messages) must come out
// as a JSON string that parser takes, or one odd name would blank the whole report. The first
// eight bytes also go in as a number, the way rates and progress are written.

#include "FuzzSupport.h"

#include "bridge/BridgeJson.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QStringDecoder>

#include <cmath>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    double number = 0;
    if (size >= sizeof number)
        std::memcpy(&number, data, sizeof number);

    std::string out;
    {
        tb::Obj o(out);
        o.s("name", text);
        o.d("rate", number);
        tb::Arr list(o.key("list"));
        list.s(text);
    }

    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(out), &error);
    Fuzz::require(error.error == QJsonParseError::NoError && document.isObject(), "a report always parses");
    const QJsonObject object = document.object();
    const QString name = object.value(QLatin1String("name")).toString();
    Fuzz::require(object.value(QLatin1String("list")).toArray().first().toString() == name, "the same text reads the same");
    Fuzz::require(object.value(QLatin1String("rate")).isDouble(), "a number stays a number");
    if (std::isfinite(number) && std::abs(number) < 1e300 && std::abs(number) > 1e-300) {
        const double back = object.value(QLatin1String("rate")).toDouble();
        Fuzz::require(std::abs(back - number) <= std::abs(number) * 1e-5, "a number keeps six digits");
    }

    // Text that is UTF-8 arrives unchanged. In other text each byte that is not part of a
    // well-formed sequence becomes U+FFFD, and every well-formed one is kept: without the marks
    // the name reads as Qt's own decoder reads the same bytes without its marks.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString decoded = decoder.decode(QByteArrayView(text.data(), qsizetype(size)));
    if (!decoder.hasError()) {
        Fuzz::require(name == decoded, "UTF-8 text arrives unchanged");
    } else {
        QString kept = name;
        kept.remove(QChar::ReplacementCharacter);
        decoded.remove(QChar::ReplacementCharacter);
        Fuzz::require(kept == decoded, "a badly encoded name keeps every well-formed character");
    }
    return 0;
}
