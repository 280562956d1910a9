#include "engine/DebouncedSave.h"

#include <QTimer>

#include <algorithm>

using Clock = std::chrono::steady_clock;

Clock::time_point saveDue(Clock::time_point now, Clock::time_point firstUnsaved, std::chrono::milliseconds quiet,
                          std::chrono::milliseconds limit)
{
    return std::max(firstUnsaved, std::min(now + quiet, firstUnsaved + limit));
}

DebouncedSave::DebouncedSave(std::chrono::milliseconds quiet, std::chrono::milliseconds limit,
                             std::chrono::milliseconds retry, std::function<bool()> save, QObject *parent)
    : QObject(parent)
    , m_quiet(quiet)
    , m_limit(limit)
    , m_retry(retry)
    , m_save(std::move(save))
    , m_timer(new QTimer(this))
{
    m_timer->setSingleShot(true);
    // The limit is a promise about the disk; a coarse timer may fire 5 % late.
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &DebouncedSave::run);
}

void DebouncedSave::changed()
{
    const Clock::time_point now = Clock::now();
    if (!m_firstUnsaved)
        m_firstUnsaved = now;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(saveDue(now, *m_firstUnsaved, m_quiet, m_limit) - now);
    m_timer->start(std::max<std::chrono::milliseconds>(wait, std::chrono::milliseconds(0)));
}

void DebouncedSave::flush()
{
    if (m_firstUnsaved)
        run();
}

void DebouncedSave::cancel()
{
    m_timer->stop();
    m_firstUnsaved.reset();
}

void DebouncedSave::run()
{
    m_timer->stop();
    if (m_save()) {
        m_firstUnsaved.reset();
        return;
    }
    // Still pending, counted from this try: changes that keep coming try again at the usual
    // pace rather than at every change, and without them the retry brings the file up to date
    // once the disk has room again.
    m_firstUnsaved = Clock::now();
    m_timer->start(m_retry);
}
