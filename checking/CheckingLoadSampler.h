#pragma once

#include <QByteArrayView>

#include <cstdint>
#include <optional>

// The host-wide processor tick counters of the first "cpu" line of /proc/stat.
struct CpuTicks
{
    uint64_t user = 0;
    uint64_t nice = 0;
    uint64_t system = 0;
    uint64_t idle = 0;
    bool operator==(const CpuTicks &) const = default;
};

// The aggregate "cpu" line of a /proc/stat text; none when the text has no such first line or
// it lacks one of the four counters.
std::optional<CpuTicks> parseCpuTicks(QByteArrayView procStat);

// One reading of the machine for the load sampler. The tick sums are kept in 32 bits and their
// differences taken modulo 2^32, so a counter that wraps between two readings still gives the
// right difference.
struct LoadReading
{
    uint32_t busy = 0; // user + nice + system ticks
    uint32_t total = 0; // busy + idle ticks
    double ownCPU = 0; // this process's user plus system time, seconds
    bool operator==(const LoadReading &) const = default;
};

LoadReading loadReading(const CpuTicks &ticks, double ownCPU);

// /proc/stat and getrusage(RUSAGE_SELF) now; none when either can't be read.
std::optional<LoadReading> readLoad();

// Estimates how many cores other processes keep busy: the host's busy share times the core
// count, less what this process used itself, since the session's own hashing must not count
// as load against itself. Smoothed over readings. A plain value, main thread.
class CheckingLoadSampler
{
public:
    // Reads the machine and returns the estimate for `now`, seconds of uptime.
    double sample(int processors, double now);
    // The same step with a reading already taken; none means the read failed, which leaves the
    // last estimate in force and changes nothing.
    double sample(int processors, double now, const std::optional<LoadReading> &reading);

    double smoothed() const { return m_smoothed; }

private:
    struct Previous
    {
        LoadReading reading;
        double time = 0;
    };
    std::optional<Previous> m_previous;
    double m_smoothed = 0;
};
