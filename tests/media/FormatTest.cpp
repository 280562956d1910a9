#include "media/Format.h"

#include "MediaTestFiles.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using mediatest::text;

constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr double NotANumber = std::numeric_limits<double>::quiet_NaN();

TEST(FormatTest, PercentNeverRoundsUpToComplete)
{
    // 0.011 and 0.57 are a hair below 1.1% and 57% as doubles.
    const std::vector<std::pair<double, const char *>> rows{
        {0.0, "0.0%"},  {0.0005, "0.0%"}, {0.011, "1.1%"}, {0.09999, "9.9%"},  {0.1, "10%"},
        {0.57, "57%"},  {0.9999, "99%"},  {1.0, "100%"},   {1.2, "100%"},      {NotANumber, "—"},
    };
    for (const auto &[fraction, expected] : rows)
        EXPECT_EQ(Format::percent(fraction), QString::fromUtf8(expected)) << fraction;
}

TEST(FormatTest, DurationInItsTwoLargestUnits)
{
    const std::vector<std::pair<std::optional<double>, const char *>> rows{
        {std::nullopt, "—"},      {Infinity, "—"},          {NotANumber, "—"},
        {-1.0, "—"},              {0.0, "0 с"},             {59.9, "59 с"},
        {60.0, "1 мин 0 с"},      {3599.0, "59 мин 59 с"},  {3600.0, "1 ч 0 мин"},
        {86399.0, "23 ч 59 мин"}, {86400.0, "1 д 0 ч"},     {93784.0, "1 д 2 ч"},
    };
    for (const auto &[seconds, expected] : rows)
        EXPECT_EQ(Format::duration(seconds), QString::fromUtf8(expected)) << seconds.value_or(-99);
}

TEST(FormatTest, ClockShowsHoursOnlyWhenThereAreAny)
{
    const std::vector<std::pair<double, const char *>> rows{
        {-1.0, "0:00"},  {NotANumber, "0:00"}, {Infinity, "0:00"},    {5.9, "0:05"},
        {65.0, "1:05"},  {3599.99, "59:59"},   {3600.0, "1:00:00"},   {36125.0, "10:02:05"},
    };
    for (const auto &[seconds, expected] : rows)
        EXPECT_EQ(Format::clock(seconds), QString::fromUtf8(expected)) << seconds;
}

TEST(FormatTest, LanguageNamesInRussian)
{
    const std::vector<std::pair<std::optional<QString>, const char *>> rows{
        {std::nullopt, nullptr},
        {QString(), nullptr},
        {QStringLiteral("und"), nullptr},
        {QStringLiteral("eng"), "Английский"},
        {QStringLiteral("en"), "Английский"},
        // The matcher's bibliographic codes have names too.
        {QStringLiteral("ger"), "Немецкий"},
        {QStringLiteral("chi"), "Китайский"},
        // No name known: the code itself, first letter raised.
        {QStringLiteral("qaa"), "Qaa"},
    };
    for (const auto &[code, name] : rows)
        EXPECT_EQ(Format::language(code), text(name)) << code.value_or(QStringLiteral("none")).toStdString();
}

TEST(FormatTest, BytesIn1024BasedUnits)
{
    constexpr qint64 KiB = 1024;
    constexpr qint64 MiB = KiB * 1024;
    constexpr qint64 GiB = MiB * 1024;
    const std::vector<std::pair<qint64, const char *>> rows{
        {1023, "1023 байт"},
        {KiB + 512, "2 КБ"},
        {MiB - 1, "1 МБ"},  // not "1024 КБ"
        {MiB + MiB / 2, "1.5 МБ"},
        {GiB + GiB / 4, "1.25 ГБ"},
        {GiB * 1024 * 3, "3 ТБ"},  // no ".00"
        {-2 * KiB, "-2 КБ"},
        {std::numeric_limits<qint64>::max(), "8 ЭБ"},
    };
    for (const auto &[count, expected] : rows)
        EXPECT_EQ(Format::bytes(count, QLocale::c()), QString::fromUtf8(expected)) << count;
    EXPECT_EQ(Format::bytes(MiB + MiB / 2, QLocale(QLocale::Russian)), QString::fromUtf8("1,5 МБ"));
}

} // namespace
