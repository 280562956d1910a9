#include "checking/CheckingProgressEstimator.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>

namespace {

const QString Id = QStringLiteral("0123456789abcdef0123456789abcdef01234567");
constexpr int64_t Total = 1600;

std::optional<int64_t> at(CheckingProgressEstimator &estimator, double now, double progress, int64_t total = Total)
{
    return estimator.update(Id, progress, total, true, now);
}

} // namespace

TEST(CheckingProgressEstimatorTest, RateAppearsWithTheFirstRiseAndIsTheSlopeOverTheWindow)
{
    CheckingProgressEstimator estimator;
    EXPECT_EQ(at(estimator, 100.0, 0.0), std::nullopt);
    // 1/8 of 1600 bytes in 0.3 s.
    EXPECT_EQ(at(estimator, 100.3, 0.125), std::optional<int64_t>(666));

    // The window keeps one sample at least 3 s old and no older one than needed.
    CheckingProgressEstimator window;
    at(window, 0, 0);
    at(window, 1, 0.5);
    at(window, 2, 0.625);
    at(window, 3, 0.75);
    // The sample at 1 s is not older than now - 3 s, so the first one stays: 0.875 over 4 s.
    EXPECT_EQ(at(window, 4, 0.875), std::optional<int64_t>(350));
    // Now it is, and the slope runs from the sample at 1 s: (0.9375 - 0.5) over 4 s.
    EXPECT_EQ(at(window, 5, 0.9375), std::optional<int64_t>(175));
}

TEST(CheckingProgressEstimatorTest, CallsCloserThanAFifthOfASecondMoveTheFractionButAddNoSample)
{
    {
        CheckingProgressEstimator estimator;
        at(estimator, 0, 0);
        ASSERT_EQ(at(estimator, 0.3, 0.125), std::optional<int64_t>(666));
        EXPECT_EQ(at(estimator, 0.4, 0.25), std::optional<int64_t>(666));
        // Had 0.4 s been a sample, 0.55 s would be too close to it and repeat 666; instead the
        // slope runs from the start: 0.5 of 1600 over 0.55 s.
        EXPECT_EQ(at(estimator, 0.55, 0.5), std::optional<int64_t>(1454));
    }
    {
        // The close call still counts as the last fraction: a lower one after it is a restart.
        CheckingProgressEstimator estimator;
        at(estimator, 0, 0);
        at(estimator, 0.3, 0.125);
        at(estimator, 0.4, 0.25);
        EXPECT_EQ(at(estimator, 0.45, 0.1875), std::nullopt);
    }
    {
        // ... and as the time of the last rise: 1.95 s later the check has not stalled yet.
        CheckingProgressEstimator estimator;
        at(estimator, 0, 0);
        at(estimator, 0.3, 0.125);
        at(estimator, 0.4, 0.25);
        EXPECT_EQ(at(estimator, 2.35, 0.25), std::optional<int64_t>(170));
    }
}

TEST(CheckingProgressEstimatorTest, TwoFlatSecondsReadAsZeroAndTheNextRiseRestoresARate)
{
    CheckingProgressEstimator estimator;
    at(estimator, 0, 0);
    EXPECT_EQ(at(estimator, 0.5, 0.0625), std::optional<int64_t>(200));
    EXPECT_EQ(at(estimator, 1.0, 0.0625), std::optional<int64_t>(100));
    EXPECT_EQ(at(estimator, 2.4, 0.0625), std::optional<int64_t>(41));
    // Two seconds since the last rise: stalled, although the window still shows one.
    EXPECT_EQ(at(estimator, 2.5, 0.0625), std::optional<int64_t>(0));
    // The samples were kept, so the first rise brings a slope back at once.
    EXPECT_EQ(at(estimator, 2.8, 0.125), std::optional<int64_t>(71));
}

TEST(CheckingProgressEstimatorTest, AFallAGapOrANewTotalStartsOver)
{
    struct Restart
    {
        const char *what;
        double now;
        double progress;
        int64_t total;
    };
    // Each after a track at 0 -> 0.5 over 0 .. 1 s.
    const Restart restarts[] = {
        {"the fraction falls, as in a recheck", 1.5, 0.375, Total},
        {"five seconds without an update", 6.0, 0.75, Total},
        {"time runs backwards", 0.5, 0.75, Total},
        {"the total changes", 1.5, 0.75, Total * 2},
    };
    for (const Restart &r : restarts) {
        CheckingProgressEstimator estimator;
        at(estimator, 0, 0);
        ASSERT_EQ(at(estimator, 1.0, 0.5), std::optional<int64_t>(800)) << r.what;
        EXPECT_EQ(at(estimator, r.now, r.progress, r.total), std::nullopt) << r.what;
        EXPECT_TRUE(estimator.hasTrack(Id)) << r.what;
        // The new track has only the restart sample behind it.
        EXPECT_EQ(at(estimator, r.now + 0.5, r.progress + 0.125, r.total),
                  std::optional<int64_t>(static_cast<int64_t>(0.125 * static_cast<double>(r.total) / 0.5)))
            << r.what;
    }

    // A gap just under five seconds keeps the track: 0.25 of 1600 over the 4.9 s since the
    // sample at 1 s, the start having left the window.
    CheckingProgressEstimator estimator;
    at(estimator, 0, 0);
    at(estimator, 1.0, 0.5);
    EXPECT_EQ(at(estimator, 5.9, 0.75), std::optional<int64_t>(81));
}

TEST(CheckingProgressEstimatorTest, AnInactiveCheckOrABadFigureDropsTheTrack)
{
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Drop
    {
        const char *what;
        double progress;
        int64_t total;
        bool active;
        double now;
    };
    const Drop drops[] = {
        {"not active", 0.75, Total, false, 2},  {"total 0", 0.75, 0, true, 2},
        {"negative total", 0.75, -5, true, 2},  {"infinite fraction", inf, Total, true, 2},
        {"unknown fraction", nan, Total, true, 2}, {"unknown time", 0.75, Total, true, nan},
        {"infinite time", 0.75, Total, true, inf},
    };
    for (const Drop &d : drops) {
        CheckingProgressEstimator estimator;
        at(estimator, 0, 0);
        at(estimator, 1, 0.5);
        EXPECT_EQ(estimator.update(Id, d.progress, d.total, d.active, d.now), std::nullopt) << d.what;
        EXPECT_FALSE(estimator.hasTrack(Id)) << d.what;
    }

    // A torrent that is gone from the report loses its track; the others keep theirs.
    CheckingProgressEstimator estimator;
    const QString other = QStringLiteral("other");
    at(estimator, 0, 0);
    estimator.update(other, 0, Total, true, 0);
    estimator.retain({other});
    EXPECT_FALSE(estimator.hasTrack(Id));
    EXPECT_TRUE(estimator.hasTrack(other));
}

TEST(CheckingProgressEstimatorTest, HugeTotalsNeitherOverflowNorLoseTheirSize)
{
    // A whole 2 GiB torrent within a fifth of a second.
    CheckingProgressEstimator estimator;
    const int64_t twoGiB = int64_t(2) << 30;
    at(estimator, 0, 0, twoGiB);
    EXPECT_EQ(at(estimator, 0.25, 1.0, twoGiB), std::optional<int64_t>(twoGiB * 4));

    // A product beyond int64 is capped at 2^62 before it becomes an integer.
    CheckingProgressEstimator capped;
    const int64_t largest = std::numeric_limits<int64_t>::max();
    at(capped, 0, 0, largest);
    EXPECT_EQ(at(capped, 0.25, 1.0, largest), std::optional<int64_t>(int64_t(1) << 62));

    // A negative fraction counts as none done: the rise to 0.5 is a full half.
    CheckingProgressEstimator negative;
    at(negative, 0, -1);
    EXPECT_EQ(at(negative, 0.5, 0.5), std::optional<int64_t>(1600));
}
