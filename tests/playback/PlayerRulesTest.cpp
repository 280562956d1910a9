// The player's arithmetic at its boundaries: what is remembered, how far the demuxer may read,
// where seeks land, how option values survive the option list.

#include "playback/PlayerRules.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace PlayerRules;

TEST(PlayerRulesTest, TheFirstSecondsKeepAndTheLastMinutesForget)
{
    struct Row { double position, duration; PositionUpdate expected; };
    const std::vector<Row> rows{
        {30.0, 7200.0, PositionUpdate::Keep},
        {30.1, 7200.0, PositionUpdate::Store},
        {7109.9, 7200.0, PositionUpdate::Store},
        {7110.0, 7200.0, PositionUpdate::Forget},
        // In a file shorter than the watched tail every position is near its end.
        {0.0, 60.0, PositionUpdate::Forget},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.position << " of " << row.duration);
        EXPECT_EQ(positionUpdate(row.position, row.duration), row.expected);
    }
}

TEST(PlayerRulesTest, ReadaheadStopsShortOfTheFirstHole)
{
    struct Row { QString map; double position, duration, expected; };
    const QString far = QString(90, QLatin1Char('1')) + QString(10, QLatin1Char('0'));
    const std::vector<Row> rows{
        {QString(), 10.0, 100.0, 10.0},
        {QStringLiteral("1111"), 10.0, 0.0, 10.0},
        {QStringLiteral("1111"), 0.0, 100.0, 120.0},
        {QStringLiteral("1100"), 0.0, 100.0, 45.0},
        {QStringLiteral("0011"), 60.0, 100.0, 120.0},
        // A hole right at the position leaves the least.
        {QStringLiteral("1101"), 60.0, 100.0, 3.0},
        {QStringLiteral("0111"), -5.0, 100.0, 3.0},
        // A position past the end looks at the last slice.
        {QStringLiteral("1110"), 150.0, 100.0, 3.0},
        {far, 10.0, 1000.0, 120.0},
        {far, 800.0, 1000.0, 95.0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.map.left(8).toStdString() << " at " << row.position << " of "
                                        << row.duration);
        EXPECT_DOUBLE_EQ(readaheadSeconds(row.map, row.position, row.duration), row.expected);
    }
}

TEST(PlayerRulesTest, ValuesStayInTheirRangesAndSurviveTheOptionList)
{
    EXPECT_EQ(seekTarget(50.0, 0.0), std::nullopt) << "no seek before the duration is known";
    EXPECT_EQ(seekTarget(-5.0, 100.0), 0.0);
    EXPECT_EQ(seekTarget(150.0, 100.0), 99.0);
    EXPECT_EQ(seekTarget(10.0, 0.5), 0.0);
    EXPECT_EQ(volumeValue(250.0), 200);
    EXPECT_EQ(volumeValue(std::nan("")), 0);
    // Cyrillic letters take two bytes each.
    EXPECT_EQ(escapeOptionValue(QStringLiteral("Серия 1, часть=2.mkv")), QStringLiteral("%30%Серия 1, часть=2.mkv"));
    EXPECT_EQ(fixed(1234.5678, 3), QStringLiteral("1234.568"));
}
