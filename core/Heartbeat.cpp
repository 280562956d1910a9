#include "core/Heartbeat.h"

#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>

Heartbeat::Heartbeat(QObject *parent)
    : QObject(parent)
    , m_timer(new QTimer(this))
{
    m_timer->setTimerType(Qt::PreciseTimer);
    m_timer->setInterval(1);
    connect(m_timer, &QTimer::timeout, this, &Heartbeat::tick);
    m_last = m_reported = std::chrono::steady_clock::now();
    m_stalls.reserve(1200);
    m_timer->start();
}

bool Heartbeat::requested()
{
    return qEnvironmentVariableIntValue("VELIX_HEARTBEAT_LOG") == 1;
}

void Heartbeat::tick()
{
    const auto now = std::chrono::steady_clock::now();
    // The time beyond the timer's own millisecond is time the loop was busy elsewhere.
    m_stalls.push_back(std::max(0.0, std::chrono::duration<double, std::milli>(now - m_last).count() - 1.0));
    m_last = now;
    if (now - m_reported >= std::chrono::seconds(1)) {
        m_reported = now;
        report();
    }
}

void Heartbeat::report()
{
    if (m_stalls.empty())
        return;
    std::sort(m_stalls.begin(), m_stalls.end());
    const size_t at = std::min(m_stalls.size() - 1, static_cast<size_t>(static_cast<double>(m_stalls.size()) * 0.99));
    timespec clock{};
    ::clock_gettime(CLOCK_MONOTONIC, &clock);
    std::fprintf(stderr, "heartbeat at_ms=%.3f ticks=%zu p99_ms=%.3f max_ms=%.3f\n",
                 static_cast<double>(clock.tv_sec) * 1e3 + static_cast<double>(clock.tv_nsec) / 1e6, m_stalls.size(),
                 m_stalls[at], m_stalls.back());
    m_stalls.clear();
}
