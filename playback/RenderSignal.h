#pragma once

#include <QString>

#include <atomic>
#include <functional>
#include <memory>

class SerialQueue;

// A coalescing "a frame is ready" signal with its own thread, "velix.mpv.render-updates".
// notify() may be called from any thread, libmpv's own included, and does nothing but set a
// flag and, when the flag was clear, post one run of the handler: however many frames libmpv
// announces while the handler is pending, the handler runs once for all of them.
//
// The thread is also where the video's GL context lives, so every call on libmpv's render
// context is posted here.
class RenderSignal
{
public:
    RenderSignal();
    ~RenderSignal();
    RenderSignal(const RenderSignal &) = delete;
    RenderSignal &operator=(const RenderSignal &) = delete;

    // Set before the first notify(); runs on the signal's thread.
    void setHandler(std::function<void()> handler) { m_handler = std::move(handler); }
    void notify();

    SerialQueue &queue() { return *m_queue; }
    // How many notifications came, and how many handler runs they caused.
    uint64_t notifications() const { return m_notifications.load(); }
    uint64_t runs() const { return m_runs.load(); }

    // The C callback that libmpv's render context calls; `context` is the RenderSignal.
    static void onRenderUpdate(void *context);

private:
    std::unique_ptr<SerialQueue> m_queue;
    std::function<void()> m_handler;
    std::atomic<bool> m_pending{false};
    std::atomic<uint64_t> m_notifications{0};
    std::atomic<uint64_t> m_runs{0};
};
