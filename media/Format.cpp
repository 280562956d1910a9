#include "media/Format.h"

#include <unicode/uloc.h>

#include <array>
#include <cmath>

namespace Format {

namespace {

// Rounding down must not lose a step to binary fractions: 0.57 * 100 is 56.999… in a double,
// which would floor to 56%.
constexpr double FloorSlack = 1e-9;

QLocale userLocale()
{
    // Under LANG unset the system locale is C; the interface is Russian, so its numbers are.
    QLocale locale = QLocale::system();
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::Russian, QLocale::Russia);
    return locale;
}

} // namespace

QString percent(double fraction)
{
    const double value = fraction * 100.0;
    if (std::isnan(value))
        return QStringLiteral("—");
    if (value >= 100.0)
        return QStringLiteral("100%");
    if (value < 10.0)
        return QString::asprintf("%.1f%%", std::floor(value * 10.0 + FloorSlack) / 10.0);
    return QString::asprintf("%.0f%%", std::floor(value + FloorSlack));
}

QString duration(std::optional<double> seconds)
{
    if (!seconds || !std::isfinite(*seconds) || *seconds < 0)
        return QStringLiteral("—");
    const auto s = static_cast<qint64>(*seconds);
    if (s >= 86400)
        return QStringLiteral("%1 д %2 ч").arg(s / 86400).arg(s % 86400 / 3600);
    if (s >= 3600)
        return QStringLiteral("%1 ч %2 мин").arg(s / 3600).arg(s % 3600 / 60);
    if (s >= 60)
        return QStringLiteral("%1 мин %2 с").arg(s / 60).arg(s % 60);
    return QStringLiteral("%1 с").arg(s);
}

QString clock(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0)
        return QStringLiteral("0:00");
    const auto s = static_cast<qint64>(seconds);
    if (s < 3600)
        return QString::asprintf("%lld:%02lld", s / 60, s % 60);
    return QString::asprintf("%lld:%02lld:%02lld", s / 3600, s % 3600 / 60, s % 60);
}

std::optional<QString> language(const std::optional<QString> &code)
{
    if (!code || code->isEmpty() || *code == QLatin1String("und"))
        return std::nullopt;

    QString name;
    const QByteArray latin = code->toLatin1();
    std::array<UChar, 128> buffer{};
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = uloc_getDisplayLanguage(latin.constData(), "ru", buffer.data(),
                                                   static_cast<int32_t>(buffer.size()), &status);
    if (U_SUCCESS(status) && length > 0 && length <= static_cast<int32_t>(buffer.size()))
        name = QString::fromUtf16(buffer.data(), length);
    if (name.isEmpty())
        name = *code;
    // Only the first letter: ICU's names are lower-case and the rest stays as ICU gives it.
    name[0] = name.at(0).toUpper();
    return name;
}

QString bytes(qint64 count)
{
    return bytes(count, userLocale());
}

QString bytes(qint64 count, const QLocale &locale)
{
    struct Unit {
        const char16_t *name;
        int decimals;  // more precision as the unit grows, as a size column needs
    };
    static constexpr std::array<Unit, 7> Units{{
        {u"байт", 0}, {u"КБ", 0}, {u"МБ", 1}, {u"ГБ", 2}, {u"ТБ", 2}, {u"ПБ", 2}, {u"ЭБ", 2},
    }};

    const double magnitude = std::abs(static_cast<double>(count));
    std::size_t unit = 0;
    double value = magnitude;
    while (value >= 1024.0 && unit + 1 < Units.size()) {
        value /= 1024.0;
        ++unit;
    }
    double scale = std::pow(10.0, Units[unit].decimals);
    double rounded = std::round(value * scale) / scale;
    // 1023.7 КБ rounds to 1024 КБ, which reads better as the next unit.
    if (rounded >= 1024.0 && unit + 1 < Units.size()) {
        ++unit;
        value /= 1024.0;
        scale = std::pow(10.0, Units[unit].decimals);
        rounded = std::round(value * scale) / scale;
    }

    QString number = locale.toString(count < 0 ? -rounded : rounded, 'f', Units[unit].decimals);
    if (Units[unit].decimals > 0) {
        // "1,50 ГБ" and "2,0 МБ" carry zeros that say nothing.
        const QString point = locale.decimalPoint();
        while (number.endsWith(u'0'))
            number.chop(1);
        if (number.endsWith(point))
            number.chop(point.size());
    }
    return number + u' ' + QString::fromUtf16(Units[unit].name);
}

} // namespace Format
