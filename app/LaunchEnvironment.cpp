#include "app/LaunchEnvironment.h"

#include <QByteArray>

namespace LaunchEnvironment {

bool isBackground(const QByteArray &value)
{
    return value == "1";
}

std::optional<uint16_t> parseControlPort(const QString &text)
{
    QStringView digits(text);
    if (digits.startsWith(u'+'))
        digits = digits.mid(1);
    if (digits.isEmpty() || digits.size() > 5)
        return std::nullopt;
    uint32_t value = 0;
    for (QChar c : digits) {
        if (c < u'0' || c > u'9')
            return std::nullopt;
        value = value * 10 + static_cast<uint32_t>(c.unicode() - u'0');
    }
    if (value > 65535)
        return std::nullopt;
    return static_cast<uint16_t>(value);
}

} // namespace LaunchEnvironment
