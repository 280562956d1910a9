#include "checking/CheckingLoadSampler.h"

#include <QByteArray>
#include <QList>

#include <algorithm>
#include <cmath>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// Each reading moves the estimate 30 % of the way, so one busy second doesn't swing it.
constexpr double SmoothingKeep = 0.7;
constexpr double SmoothingTake = 0.3;
// A faint background load should not take a hashing thread away: half a core is forgiven and
// the rest rounded down.
constexpr double MarginCores = 0.5;

std::optional<uint64_t> parseCounter(QByteArrayView text)
{
    if (text.isEmpty())
        return std::nullopt;
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::optional<double> ownCpuSeconds()
{
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0)
        return std::nullopt;
    auto seconds = [](const timeval &tv) {
        return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::optional<QByteArray> readFirstLineOfProcStat()
{
    const int fd = ::open("/proc/stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    // The aggregate line comes first and is well under this size.
    char buffer[1024];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (n <= 0)
        return std::nullopt;
    return QByteArray(buffer, static_cast<qsizetype>(n));
}

} // namespace

std::optional<CpuTicks> parseCpuTicks(QByteArrayView procStat)
{
    const qsizetype end = procStat.indexOf('\n');
    const QByteArrayView line = end < 0 ? procStat : procStat.first(end);
    QList<QByteArrayView> fields;
    qsizetype start = -1;
    for (qsizetype i = 0; i <= line.size(); ++i) {
        const bool blank = i == line.size() || line[i] == ' ' || line[i] == '\t';
        if (blank && start >= 0) {
            fields.append(line.sliced(start, i - start));
            start = -1;
        } else if (!blank && start < 0) {
            start = i;
        }
    }
    // "cpu0" and the like are single processors; only the sum over all of them will do.
    if (fields.size() < 5 || fields.first() != QByteArrayView("cpu"))
        return std::nullopt;
    const auto user = parseCounter(fields.at(1));
    const auto nice = parseCounter(fields.at(2));
    const auto system = parseCounter(fields.at(3));
    const auto idle = parseCounter(fields.at(4));
    if (!user || !nice || !system || !idle)
        return std::nullopt;
    return CpuTicks{*user, *nice, *system, *idle};
}

LoadReading loadReading(const CpuTicks &ticks, double ownCPU)
{
    const auto busy = static_cast<uint32_t>(ticks.user + ticks.system + ticks.nice);
    const auto total = static_cast<uint32_t>(busy + static_cast<uint32_t>(ticks.idle));
    return LoadReading{busy, total, ownCPU};
}

std::optional<LoadReading> readLoad()
{
    const auto text = readFirstLineOfProcStat();
    if (!text)
        return std::nullopt;
    const auto ticks = parseCpuTicks(*text);
    const auto own = ownCpuSeconds();
    if (!ticks || !own)
        return std::nullopt;
    return loadReading(*ticks, *own);
}

double CheckingLoadSampler::sample(int processors, double now)
{
    return sample(processors, now, readLoad());
}

double CheckingLoadSampler::sample(int processors, double now, const std::optional<LoadReading> &reading)
{
    if (!reading)
        return m_smoothed;
    if (m_previous && m_previous->time < now) {
        const uint32_t totalDelta = reading->total - m_previous->reading.total;
        if (totalDelta != 0) {
            const uint32_t busyDelta = reading->busy - m_previous->reading.busy;
            const double fraction = static_cast<double>(busyDelta) / static_cast<double>(totalDelta);
            const double own = std::max(0.0, (reading->ownCPU - m_previous->reading.ownCPU) / (now - m_previous->time));
            const double instant = fraction * processors - own;
            m_smoothed = m_smoothed * SmoothingKeep + std::max(0.0, instant) * SmoothingTake;
            m_previous = Previous{*reading, now};
            return std::floor(std::max(0.0, m_smoothed - MarginCores));
        }
    }
    m_previous = Previous{*reading, now};
    return m_smoothed;
}
