#include "checking/CheckingResources.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr uint64_t GiB = uint64_t(1) << 30;
constexpr int BlocksPerMiB = 64; // libtorrent counts check memory in 16 KiB blocks

} // namespace

QString CheckingResources::settings() const
{
    return QStringLiteral("hashing_threads=") + QString::number(threads) + QStringLiteral("\nchecking_mem_usage=")
        + QString::number(blocks);
}

CheckingResources CheckingResources::target(const Hardware &hardware, const Conditions &conditions)
{
    const int p = hardware.processors;
    const int cores = std::clamp(p, 1, 256);
    const int memGiB = hardware.memoryBytes >= 1024 * GiB
        ? 1024
        : std::max(1, static_cast<int>(hardware.memoryBytes / GiB));

    // Hashing threads mostly wait on the disk, so a machine may run up to twice its cores less
    // two; each thread wants its share of memory, so never more than one per GiB.
    int base = 1;
    if (p >= 3) {
        const int byCores = p < 34 ? 2 * (cores - 2) : 64;
        base = memGiB >= 2 ? std::min(memGiB, byCores) : std::min(2, byCores);
    }

    // What other programs keep busy is taken from the allowance, which never goes below two.
    const double reported = std::isfinite(conditions.otherBusyCores) ? conditions.otherBusyCores : 0.0;
    const double busy = std::clamp(reported, 0.0, static_cast<double>(cores));
    const int allowance = static_cast<int>(2 * std::max(1.0, cores - 2 - busy));
    int t = std::min(base, allowance);

    // Each condition only ever lowers the count.
    if (conditions.playbackActive)
        t = std::min(t, p > 3 ? cores / 4 : 1);
    const int halfMachine = p > 1 ? cores / 2 : 1;
    if (conditions.lowPower)
        t = std::min(t, halfMachine);
    if (conditions.interfaceDelayed)
        t = std::min(t, halfMachine);

    switch (conditions.thermalState) {
    case ThermalState::Nominal:
        break;
    case ThermalState::Fair:
        t = std::min(t, std::max(3 * base, 4) / 4);
        break;
    case ThermalState::Serious:
        t = std::min(t, p > 2 ? cores / 3 : 1);
        break;
    case ThermalState::Critical:
        t = 1;
        break;
    }

    switch (conditions.memoryPressure) {
    case MemoryPressure::Normal:
        break;
    case MemoryPressure::Warning:
        t = std::min(t, 4);
        break;
    case MemoryPressure::Critical:
        t = 1;
        break;
    }

    // 16 MiB a thread, but no more than 8 MiB for each GiB of a smaller machine; a large
    // machine with many threads stops at 512 MiB. Memory pressure cuts it further.
    int mib = 16 * t;
    if (memGiB < 64)
        mib = std::min(mib, 8 * memGiB);
    else if (t >= 32)
        mib = 512;
    if (conditions.memoryPressure == MemoryPressure::Warning)
        mib = std::min(mib, 64);
    else if (conditions.memoryPressure == MemoryPressure::Critical)
        mib = std::min(mib, 16);
    mib = std::max(mib, 16);

    return CheckingResources{t, mib * BlocksPerMiB};
}
