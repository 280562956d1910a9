#include "playback/RenderSignal.h"

#include "core/SerialQueue.h"

RenderSignal::RenderSignal()
    : m_queue(std::make_unique<SerialQueue>(QStringLiteral("velix.mpv.render-updates")))
{
}

RenderSignal::~RenderSignal()
{
    // Work still posted touches m_handler; the queue stops before the members go.
    m_queue.reset();
}

void RenderSignal::notify()
{
    ++m_notifications;
    if (m_pending.exchange(true))
        return;
    m_queue->post([this] {
        // Cleared before the run: a frame announced while the handler works gets a run of its own.
        m_pending.store(false);
        ++m_runs;
        if (m_handler)
            m_handler();
    });
}

void RenderSignal::onRenderUpdate(void *context)
{
    // libmpv's thread: no libmpv call may be made from here.
    static_cast<RenderSignal *>(context)->notify();
}
