#pragma once

#include "checking/CheckingResources.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <optional>
#include <thread>

// The level that the last pressure events call for at `now` (seconds): a full stall within the
// last 10 seconds is Critical, a partial one Warning, and 10 quiet seconds bring Normal back.
// The kernel repeats a trigger at most once per window while the stall lasts, so quiet for
// longer than a few windows means the stall is over.
MemoryPressure memoryPressureLevel(std::optional<double> lastSome, std::optional<double> lastFull, double now);

// Watches the kernel's memory pressure stall information (/proc/pressure/memory) with two
// triggers: tasks stalled on memory for 150 ms out of 2 s raise Warning, all tasks stalled that
// long raise Critical. Without that file, or where the kernel refuses the triggers, it reports
// nothing and the level stays Normal.
//
// The wait on the triggers blocks, so it runs on a thread of its own; levelChanged is emitted on
// the thread this object lives on (the main thread), and only on a change. The destructor wakes
// and joins that thread.
class MemoryPressureWatcher : public QObject
{
    Q_OBJECT

public:
    explicit MemoryPressureWatcher(QObject *parent = nullptr,
                                   const QString &pressureFile = QStringLiteral("/proc/pressure/memory"));
    ~MemoryPressureWatcher() override;

    // True when the triggers were accepted and the thread waits on them.
    bool isWatching() const { return m_thread.joinable(); }
    MemoryPressure level() const { return m_level; }

signals:
    void levelChanged(MemoryPressure level);

private:
    void run(int someFd, int fullFd);
    void publish(MemoryPressure level);

    std::thread m_thread;
    int m_wakeFd = -1;
    MemoryPressure m_level = MemoryPressure::Normal;
};
