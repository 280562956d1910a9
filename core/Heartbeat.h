#pragma once

#include <QObject>

#include <chrono>
#include <vector>

class QTimer;

// A 1 ms timer on the thread it lives on, which measures how late each tick comes: a tick late
// by 40 ms is a 40 ms stall of that thread's event loop. Once a second it writes the ticks of
// that second to standard error as one line, with the monotonic time, so a benchmark can cut
// the figures of the moments it drives:
//
//     heartbeat at_ms=123456.789 ticks=812 p99_ms=3.104 max_ms=17.220
//
// Made only on request (VELIX_HEARTBEAT_LOG=1): the timer itself costs a wake-up a millisecond.
class Heartbeat : public QObject
{
public:
    explicit Heartbeat(QObject *parent = nullptr);
    static bool requested();

private:
    void tick();
    void report();

    QTimer *m_timer = nullptr;
    std::chrono::steady_clock::time_point m_last;
    std::chrono::steady_clock::time_point m_reported;
    std::vector<double> m_stalls;
};
