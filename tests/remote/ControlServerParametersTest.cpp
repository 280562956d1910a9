#include "remote/RouteParameters.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

using namespace RouteParameters;

TEST(ControlServerParametersTest, LevelsMapToTheFourPriorities)
{
    struct Row
    {
        const char *level;
        FilePriority priority;
    };
    const std::vector<Row> rows{
        {"-2", FilePriority::skip}, {"0", FilePriority::skip}, {"1", FilePriority::low},
        {"3", FilePriority::low},   {"4", FilePriority::normal},  {"5", FilePriority::normal},
        {"6", FilePriority::high},  {"9", FilePriority::high},    {"", FilePriority::normal},
        {"two", FilePriority::normal}, {"4x", FilePriority::normal},
    };
    for (const Row &row : rows)
        EXPECT_EQ(priorityForLevel(QString::fromUtf8(row.level)), row.priority) << row.level;
}

TEST(ControlServerParametersTest, LimitsAreScaledAndHeldTo32Bits)
{
    constexpr qint32 Max = std::numeric_limits<qint32>::max();
    constexpr qint32 Min = std::numeric_limits<qint32>::min();
    struct Row
    {
        const char *text;
        qint64 factor;
        qint32 value;
    };
    const std::vector<Row> rows{
        {"100", 1024, 102400},     {"", 1024, 0},           {"abc", 1024, 0},
        {"-5", 1024, -5120},       {"2097151", 1024, 2147482624},
        {"2097152", 1024, Max},    {"-2097153", 1024, Min}, {"99999999999999999999", 1024, 0},
        {"9223372036854775807", 1024, Max}, {"20", 1, 20},  {"3000000000", 1, Max},
    };
    for (const Row &row : rows)
        EXPECT_EQ(clampedInt32(QString::fromUtf8(row.text), row.factor), row.value) << row.text;
}

} // namespace
