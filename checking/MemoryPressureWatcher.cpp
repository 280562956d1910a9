#include "checking/MemoryPressureWatcher.h"

#include "core/MainThread.h"

#include <QFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr double QuietSeconds = 10.0;
// Windows must be multiples of 2 s for a process without CAP_SYS_RESOURCE.
constexpr const char *SomeTrigger = "some 150000 2000000";
constexpr const char *FullTrigger = "full 150000 2000000";

double clockSeconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// A descriptor with the trigger installed, or -1. The kernel wants the terminating zero too.
int openTrigger(const QString &path, const char *trigger)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    const size_t length = std::strlen(trigger) + 1;
    if (::write(fd, trigger, length) != static_cast<ssize_t>(length)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Milliseconds until the later of the two events is 10 s old, when that lies ahead; else -1,
// which makes poll() wait for the next event only.
int msUntilQuiet(std::optional<double> lastSome, std::optional<double> lastFull, double now)
{
    std::optional<double> last;
    for (const auto &event : {lastSome, lastFull}) {
        if (event && (!last || *event > *last))
            last = event;
    }
    if (!last)
        return -1;
    const double left = *last + QuietSeconds - now;
    if (left <= 0)
        return -1;
    return static_cast<int>(std::ceil(left * 1000));
}

} // namespace

MemoryPressure memoryPressureLevel(std::optional<double> lastSome, std::optional<double> lastFull, double now)
{
    if (lastFull && now - *lastFull < QuietSeconds)
        return MemoryPressure::Critical;
    if (lastSome && now - *lastSome < QuietSeconds)
        return MemoryPressure::Warning;
    return MemoryPressure::Normal;
}

MemoryPressureWatcher::MemoryPressureWatcher(QObject *parent, const QString &pressureFile)
    : QObject(parent)
{
    const int someFd = openTrigger(pressureFile, SomeTrigger);
    const int fullFd = openTrigger(pressureFile, FullTrigger);
    if (someFd < 0 && fullFd < 0)
        return;
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC);
    if (m_wakeFd < 0) {
        for (const int fd : {someFd, fullFd}) {
            if (fd >= 0)
                ::close(fd);
        }
        return;
    }
    m_thread = std::thread([this, someFd, fullFd] { run(someFd, fullFd); });
}

MemoryPressureWatcher::~MemoryPressureWatcher()
{
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_wakeFd, &one, sizeof one);
        m_thread.join();
    }
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
}

void MemoryPressureWatcher::run(int someFd, int fullFd)
{
    pthread_setname_np(pthread_self(), "velix.pressure");
    std::array<pollfd, 3> fds{{{m_wakeFd, POLLIN, 0}, {someFd, POLLPRI, 0}, {fullFd, POLLPRI, 0}}};
    std::optional<double> lastSome;
    std::optional<double> lastFull;
    MemoryPressure level = MemoryPressure::Normal;
    // poll() skips negative descriptors; the loop ends when a stop is asked or no trigger is left.
    while (fds[1].fd >= 0 || fds[2].fd >= 0) {
        const double now = clockSeconds();
        const MemoryPressure next = memoryPressureLevel(lastSome, lastFull, now);
        if (next != level) {
            level = next;
            postToMain(this, [this, next] { publish(next); });
        }
        const int ready = ::poll(fds.data(), fds.size(), msUntilQuiet(lastSome, lastFull, now));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0 || fds[0].revents != 0)
            break;
        const double seen = clockSeconds();
        if (fds[1].revents & POLLPRI)
            lastSome = seen;
        if (fds[2].revents & POLLPRI)
            lastFull = seen;
        // A trigger the kernel has dropped would report an error on every wait from now on.
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].fd >= 0 && (fds[i].revents & (POLLERR | POLLNVAL | POLLHUP))) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
    }
    for (size_t i = 1; i < fds.size(); ++i) {
        if (fds[i].fd >= 0)
            ::close(fds[i].fd);
    }
}

void MemoryPressureWatcher::publish(MemoryPressure level)
{
    if (level == m_level)
        return;
    m_level = level;
    emit levelChanged(level);
}
