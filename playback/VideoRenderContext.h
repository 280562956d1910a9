#pragma once

#include <QMap>
#include <QSize>
#include <QString>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

class QOffscreenSurface;
class QOpenGLContext;
class QThread;
class RenderSignal;
struct mpv_handle;
struct mpv_render_context;

// Frames drawn on the render-update thread, handed to the window's scene graph, which copies
// the newest one into the video item. Three slots, so that the drawing side always finds one
// that is neither shown nor being copied; GL fences order the two contexts' work on a slot.
// The lock guards only indices and handles: no GL call is made under it.
class VideoFrames
{
public:
    struct Frame
    {
        int slot = -1;
        unsigned texture = 0;
        QSize size;
        void *drawn = nullptr; // fence after the drawing, waited on before the copy
    };

    // The scene graph's side, on its render thread: the newest frame, held until release().
    std::optional<Frame> acquire();
    void release(int slot, void *copied);

    // The drawing side.
    struct Slot
    {
        unsigned framebuffer = 0;
        unsigned texture = 0;
        QSize size;
        void *drawn = nullptr;
        void *copied = nullptr;
    };
    // A slot that is neither the newest frame nor being copied; takes its pending fences.
    int takeFreeSlot(void *&copied, void *&drawn);
    void publish(int slot, void *drawn);
    std::array<Slot, 3> &slotList() { return m_slots; }
    // No frame is handed out after this; waits for a copy in progress to end.
    void retire();

private:
    std::mutex m_lock;
    std::condition_variable m_copyEnded;
    std::array<Slot, 3> m_slots;
    int m_front = -1;
    int m_reading = -1;
    bool m_retired = false;
};

// libmpv's render context over a GL context of its own. The GL context is made on the
// scene graph's render thread, sharing objects with the scene graph's context, and then
// handed to the RenderSignal's thread: from there on, every call on the render context runs
// on that thread with the GL context current on an offscreen surface. The scene graph can
// stop drawing (a hidden or minimised window) and frames are still taken.
class VideoRenderContext
{
public:
    // On the thread where the scene graph's GL context is current. Null when no GL context
    // is current, a GL context can't be made, or libmpv refuses the render context. The
    // result is still owned by the calling thread: either free it there, or moveTo() the
    // signal's thread.
    static std::unique_ptr<VideoRenderContext> create(mpv_handle *handle, RenderSignal *signal,
                                                      QOffscreenSurface *surface);
    // Frees the render context, clearing its update callback first, with the GL context current;
    // on the thread that owns the context.
    ~VideoRenderContext();
    void moveTo(QThread *thread);

    // On the owning thread: takes the frame that libmpv has ready. A visible video with a
    // size of at least one pixel each way is drawn into a free slot (true: show it). Otherwise
    // the frame is consumed without drawing, so playback never waits for a window nobody
    // sees; only the frames of an unseen window count as skipped.
    bool update(bool visible, QSize pixelSize);
    // Renders the current frame into the bound framebuffer at its viewport; nothing for a
    // viewport under one pixel. Needs the GL context current.
    bool draw();
    // A 960 by 540 PNG of the current frame; false and no file on any failure. Owning thread.
    bool writeSnapshot(const QString &path);

    std::shared_ptr<VideoFrames> frames() const { return m_frames; }
    uint64_t rendered() const { return m_rendered.load(); }
    uint64_t skipped() const { return m_skipped.load(); }

private:
    VideoRenderContext() = default;
    bool makeCurrent();
    void doneCurrent();
    bool prepareSlot(VideoFrames::Slot &slot, QSize size);

    QOpenGLContext *m_gl = nullptr;
    QOffscreenSurface *m_surface = nullptr;
    mpv_render_context *m_mpv = nullptr;
    RenderSignal *m_signal = nullptr;
    std::shared_ptr<VideoFrames> m_frames = std::make_shared<VideoFrames>();
    std::atomic<uint64_t> m_rendered{0};
    std::atomic<uint64_t> m_skipped{0};
};
