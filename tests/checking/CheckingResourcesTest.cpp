#include "checking/CheckingResourceController.h"
#include "checking/CheckingResources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <ostream>
#include <vector>

namespace {

constexpr uint64_t GiB = uint64_t(1) << 30;

CheckingResources::Hardware machine(int processors, double gib)
{
    return CheckingResources::Hardware{processors, static_cast<uint64_t>(gib * static_cast<double>(GiB))};
}

struct TargetRow
{
    const char *what;
    CheckingResources::Hardware hardware;
    CheckingResources::Conditions conditions;
    int threads;
    int blocks;
};

} // namespace

TEST(CheckingResourcesTest, TargetFollowsTheMachineAndEveryConditionOnlyLowersIt)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<TargetRow> rows{
        // An idle machine: up to twice the cores less two, one thread per GiB, 16 MiB a thread
        // within 8 MiB per GiB, 512 MiB at most on a large machine.
        {"2 cores, 8 GiB", machine(2, 8), {}, 1, 1024},
        {"4 cores, 8 GiB", machine(4, 8), {}, 4, 4096},
        {"8 cores, 16 GiB", machine(8, 16), {}, 12, 8192},
        {"12 cores, 32 GiB", machine(12, 32), {}, 20, 16384},
        {"64 cores, 512 GiB", machine(64, 512), {}, 64, 32768},
        {"12 cores, 64 GiB: fewer than 32 threads keep 16 MiB each", machine(12, 64), {}, 20, 20480},
        {"40 cores, 63 GiB: 8 MiB per GiB below 64 GiB", machine(40, 63), {}, 63, 32256},
        {"33 cores, 64 GiB", machine(33, 64), {}, 62, 32768},
        {"34 cores, 64 GiB: from 34 cores the limit is 64", machine(34, 64), {}, 64, 32768},
        {"300 cores count as 256", machine(300, 512), {}, 64, 32768},
        {"1 core, 512 MiB: memory rounds up to 1 GiB, 8 MiB raised to 16", machine(1, 0.5), {}, 1, 1024},
        {"4 cores, 1 GiB: two threads at most", machine(4, 1), {}, 2, 1024},
        {"no processor count", machine(0, 8), {}, 1, 1024},
        {"no memory reading", machine(8, 0), {}, 2, 1024},
        {"3 cores, 8 GiB", machine(3, 8), {}, 2, 2048},

        // Playback leaves a quarter of the cores, one thread on small machines.
        {"2 cores playing", machine(2, 8), {.playbackActive = true}, 1, 1024},
        {"4 cores playing", machine(4, 8), {.playbackActive = true}, 1, 1024},
        {"8 cores, 8 GiB playing", machine(8, 8), {.playbackActive = true}, 2, 2048},
        {"24 cores playing", machine(24, 64), {.playbackActive = true}, 6, 6144},
        {"64 cores playing", machine(64, 512), {.playbackActive = true}, 16, 16384},

        // Other programs' load comes off the allowance, which never goes below two.
        {"3 busy cores of 8", machine(8, 16), {.otherBusyCores = 3}, 6, 6144},
        {"2.5 busy cores of 8 truncate the allowance", machine(8, 16), {.otherBusyCores = 2.5}, 7, 7168},
        {"more busy cores than the machine has", machine(8, 16), {.otherBusyCores = 100}, 2, 2048},
        {"a negative load is none", machine(8, 16), {.otherBusyCores = -3}, 12, 8192},
        {"an unknown load is none", machine(8, 16), {.otherBusyCores = nan}, 12, 8192},

        // Power saving and a late interface leave half the cores.
        {"low power, 8 cores", machine(8, 16), {.lowPower = true}, 4, 4096},
        {"late interface, 12 cores", machine(12, 32), {.interfaceDelayed = true}, 6, 6144},

        // Heat.
        {"fair: three quarters of the base", machine(8, 16), {.thermalState = ThermalState::Fair}, 9, 8192},
        {"fair, 4 cores", machine(4, 8), {.thermalState = ThermalState::Fair}, 3, 3072},
        {"serious: a third of the cores", machine(12, 32), {.thermalState = ThermalState::Serious}, 4, 4096},
        {"serious, 2 cores", machine(2, 8), {.thermalState = ThermalState::Serious}, 1, 1024},
        {"critical heat on a large machine", machine(64, 512), {.thermalState = ThermalState::Critical}, 1, 1024},

        // Memory pressure cuts threads and memory.
        {"pressure warning, 64 cores", machine(64, 512), {.memoryPressure = MemoryPressure::Warning}, 4, 4096},
        {"pressure critical, 64 cores", machine(64, 512), {.memoryPressure = MemoryPressure::Critical}, 1, 1024},
    };
    for (const TargetRow &row : rows) {
        const CheckingResources got = CheckingResources::target(row.hardware, row.conditions);
        EXPECT_EQ(got.threads, row.threads) << row.what;
        EXPECT_EQ(got.blocks, row.blocks) << row.what;
        EXPECT_EQ(got.blocks % 64, 0) << row.what;
    }

    // Conditions together: each only lowers what the others left.
    CheckingResources::Conditions all{.playbackActive = true};
    all.thermalState = ThermalState::Serious;
    EXPECT_EQ(CheckingResources::target(machine(24, 64), all), (CheckingResources{6, 6144}));
    all.lowPower = true;
    all.otherBusyCores = 16;
    EXPECT_EQ(CheckingResources::target(machine(24, 64), all), (CheckingResources{6, 6144}));
    all.memoryPressure = MemoryPressure::Warning;
    EXPECT_EQ(CheckingResources::target(machine(24, 64), all), (CheckingResources{4, 4096}));
}

TEST(CheckingResourcesTest, SettingsTextNamesBothSessionKeys)
{
    EXPECT_EQ(CheckingResources({3, 3072}).settings(), QStringLiteral("hashing_threads=3\nchecking_mem_usage=3072"));
}

namespace {

struct Step
{
    double now;
    CheckingResources target;
    CheckingResources current;
    std::optional<double> increaseSince;
};

void runSteps(const char *what, CheckingResources start, const std::vector<Step> &steps)
{
    SCOPED_TRACE(what);
    CheckingResourceController controller(start);
    for (const Step &step : steps) {
        const CheckingResources got = controller.update(step.target, step.now);
        EXPECT_EQ(got.threads, step.current.threads) << "at " << step.now;
        EXPECT_EQ(got.blocks, step.current.blocks) << "at " << step.now;
        EXPECT_EQ(controller.current(), got) << "at " << step.now;
        EXPECT_EQ(controller.increaseSince(), step.increaseSince) << "at " << step.now;
    }
}

} // namespace

TEST(CheckingResourcesTest, ControllerFallsAtOnceAndRisesOnlyAfterFiveSteadySeconds)
{
    const CheckingResources low{2, 2048};
    const CheckingResources mid{6, 4096};
    const CheckingResources high{8, 8192};

    runSteps("a fall acts at once, a rise waits five seconds even while its target moves", high,
             {{0, high, high, std::nullopt}, {1, low, low, std::nullopt}, {2, high, low, 2.0}, {4, mid, low, 2.0},
              {6.9, high, low, 2.0}, {7, high, high, std::nullopt}});
    runSteps("a target back at the current value ends the wait; the next rise waits anew", low,
             {{10, high, low, 10.0}, {13, low, low, std::nullopt}, {14, high, low, 14.0}, {18.5, high, low, 14.0},
              {19, high, high, std::nullopt}});
    const CheckingResources fewThreadsMoreBlocks{4, 8192}, fewThreads{4, 4096};
    runSteps("threads fall while blocks would rise: threads now, blocks after their own wait",
             CheckingResources{8, 4096},
             {{0, fewThreadsMoreBlocks, fewThreads, std::nullopt}, {1, fewThreadsMoreBlocks, fewThreads, 1.0},
              {5.5, fewThreadsMoreBlocks, fewThreads, 1.0}, {6, fewThreadsMoreBlocks, fewThreadsMoreBlocks, std::nullopt}});
    const CheckingResources top{16, 16384};
    runSteps("a fall during a wait cancels it", high,
             {{0, top, high, 0.0}, {3, fewThreads, fewThreads, std::nullopt}, {4, top, fewThreads, 4.0},
              {8, top, fewThreads, 4.0}, {9, top, top, std::nullopt}});
}

TEST(CheckingResourcesTest, MemoryPressureOnALargeMachineCutsAtOnceAndItsEndRestoresLater)
{
    const auto hardware = machine(64, 512);
    CheckingResourceController controller(CheckingResources::target(hardware, {}));
    ASSERT_EQ(controller.current(), (CheckingResources{64, 32768}));

    const CheckingResources::Conditions warning{.memoryPressure = MemoryPressure::Warning};
    EXPECT_EQ(controller.update(CheckingResources::target(hardware, warning), 100), (CheckingResources{4, 4096}));
    EXPECT_EQ(controller.update(CheckingResources::target(hardware, {}), 101), (CheckingResources{4, 4096}));
    EXPECT_EQ(controller.update(CheckingResources::target(hardware, {}), 105.9), (CheckingResources{4, 4096}));
    EXPECT_EQ(controller.update(CheckingResources::target(hardware, {}), 106), (CheckingResources{64, 32768}));
}
