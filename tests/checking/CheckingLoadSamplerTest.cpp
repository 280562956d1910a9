#include "checking/CheckingLoadSampler.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

TEST(CheckingLoadSamplerTest, OnlyTheAggregateFirstLineOfProcStatIsRead)
{
    struct Row
    {
        const char *text;
        std::optional<CpuTicks> ticks;
    };
    const Row rows[] = {
        {"cpu  10 20 30 40 50 60 70 80 0 0\ncpu0 5 10 15 20 25 30 35 40 0 0\n", CpuTicks{10, 20, 30, 40}},
        {"cpu 1 2 3 4", CpuTicks{1, 2, 3, 4}},
        {"cpu\t1\t2 3  4\n", CpuTicks{1, 2, 3, 4}},
        {"cpu 18446744073709551615 0 0 0\n", CpuTicks{UINT64_MAX, 0, 0, 0}},
        {"cpu 18446744073709551616 0 0 0\n", std::nullopt},
        {"cpu0 1 2 3 4\n", std::nullopt},
        {"cpu 1 2 3\ncpu0 1 2 3 4\n", std::nullopt},
        {"cpu 1 2 x 4\n", std::nullopt},
        {"cpu -1 2 3 4\n", std::nullopt},
        {"intr 1 2 3 4\ncpu 1 2 3 4\n", std::nullopt},
        {"", std::nullopt},
    };
    for (const Row &row : rows)
        EXPECT_EQ(parseCpuTicks(QByteArrayView(row.text)), row.ticks) << row.text;

    // The real file reads on any Linux system.
    EXPECT_TRUE(readLoad().has_value());
}

TEST(CheckingLoadSamplerTest, TickSumsWrapInThirtyTwoBits)
{
    const uint64_t above = uint64_t(1) << 32;
    EXPECT_EQ(loadReading(CpuTicks{above + 10, 0, 5, 2 * above + 7}, 1.5), (LoadReading{15, 22, 1.5}));
}

TEST(CheckingLoadSamplerTest, OtherLoadIsTheBusyShareLessOwnTimeSmoothedAndRounded)
{
    CheckingLoadSampler sampler;
    // No earlier reading: nothing to compare, the estimate as it stands.
    EXPECT_EQ(sampler.sample(4, 0, LoadReading{0, 0, 0}), 0.0);
    // A fully busy host of 4 cores: 0.3 of 4 is 1.2, and the half-core margin leaves 0.
    EXPECT_EQ(sampler.sample(4, 1, LoadReading{100, 100, 0}), 0.0);
    EXPECT_DOUBLE_EQ(sampler.smoothed(), 1.2);
    EXPECT_EQ(sampler.sample(4, 2, LoadReading{200, 200, 0}), 1.0); // 2.04
    EXPECT_EQ(sampler.sample(4, 3, LoadReading{300, 300, 0}), 2.0); // 2.628
    // Two of the busy cores were this process's own: 4 - 2 = 2 others.
    EXPECT_EQ(sampler.sample(4, 4, LoadReading{400, 400, 2.0}), 1.0); // 2.4396

    // A failed read leaves the estimate and the last reading as they were.
    EXPECT_DOUBLE_EQ(sampler.sample(4, 5, std::nullopt), 2.4396);
    // So the next one compares with the reading at 4 s, over 2 s.
    EXPECT_EQ(sampler.sample(4, 6, LoadReading{500, 500, 2.0}), 2.0);
    EXPECT_DOUBLE_EQ(sampler.smoothed(), 2.90772);

    // No ticks passed, or no time: the reading is kept and the estimate returned unrounded.
    EXPECT_DOUBLE_EQ(sampler.sample(4, 7, LoadReading{500, 500, 2.0}), 2.90772);
    EXPECT_DOUBLE_EQ(sampler.sample(4, 7, LoadReading{600, 600, 2.0}), 2.90772);
    // Compared with the reading at 7 s: half busy, 2 cores, all of them others'.
    EXPECT_EQ(sampler.sample(4, 8, LoadReading{650, 700, 2.0}), 2.0);
    EXPECT_DOUBLE_EQ(sampler.smoothed(), 2.90772 * 0.7 + 0.6);

    // More own time than the host was busy (counters of different grain) is no load, not less.
    CheckingLoadSampler own;
    own.sample(4, 0, LoadReading{0, 0, 0});
    EXPECT_EQ(own.sample(4, 1, LoadReading{25, 100, 3.0}), 0.0);
    EXPECT_EQ(own.smoothed(), 0.0);

    // Counters that wrap between two readings still give a sane difference.
    CheckingLoadSampler wrapping;
    wrapping.sample(4, 0, LoadReading{UINT32_MAX - 49, UINT32_MAX - 49, 0});
    wrapping.sample(4, 1, LoadReading{50, 50, 0});
    EXPECT_DOUBLE_EQ(wrapping.smoothed(), 1.2);
}
