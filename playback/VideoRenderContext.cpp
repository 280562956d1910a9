#include "playback/VideoRenderContext.h"

#include "playback/RenderSignal.h"

#include <QFile>
#include <QImage>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLExtraFunctions>
#include <QThread>

#include <mpv/render.h>
#include <mpv/render_gl.h>

namespace {

constexpr int SnapshotWidth = 960;
constexpr int SnapshotHeight = 540;

void *procAddress(void *, const char *name)
{
    QOpenGLContext *context = QOpenGLContext::currentContext();
    if (!name || !context)
        return nullptr;
    return reinterpret_cast<void *>(context->getProcAddress(QByteArray(name)));
}

GLsync syncOf(void *fence)
{
    return static_cast<GLsync>(fence);
}

// Draws libmpv's current frame into `framebuffer` at its size, the picture's top row first;
// `skip` takes the frame without drawing it. The calling thread must never sleep in libmpv: it
// serves every frame.
int render(mpv_render_context *mpv, int framebuffer, int width, int height, bool skip)
{
    mpv_opengl_fbo fbo{framebuffer, width, height, 0};
    int flipY = 0;
    int block = 0;
    int skipRendering = 1;
    mpv_render_param params[] = {
        {MPV_RENDER_PARAM_OPENGL_FBO, &fbo},
        {MPV_RENDER_PARAM_FLIP_Y, &flipY},
        {MPV_RENDER_PARAM_BLOCK_FOR_TARGET_TIME, &block},
        {skip ? MPV_RENDER_PARAM_SKIP_RENDERING : MPV_RENDER_PARAM_INVALID, &skipRendering},
        {MPV_RENDER_PARAM_INVALID, nullptr},
    };
    return mpv_render_context_render(mpv, params);
}

} // namespace

// Frames -----------------------------------------------------------------------------------------

std::optional<VideoFrames::Frame> VideoFrames::acquire()
{
    std::lock_guard lock(m_lock);
    if (m_retired || m_front < 0)
        return std::nullopt;
    m_reading = m_front;
    const Slot &slot = m_slots[static_cast<size_t>(m_front)];
    return Frame{m_front, slot.texture, slot.size, slot.drawn};
}

void VideoFrames::release(int slot, void *copied)
{
    void *stale = nullptr;
    {
        std::lock_guard lock(m_lock);
        Slot &entry = m_slots[static_cast<size_t>(slot)];
        stale = entry.copied;
        entry.copied = copied;
        m_reading = -1;
    }
    m_copyEnded.notify_all();
    // Any context of the share group may delete a fence.
    if (stale && QOpenGLContext::currentContext())
        QOpenGLContext::currentContext()->extraFunctions()->glDeleteSync(syncOf(stale));
}

int VideoFrames::takeFreeSlot(void *&copied, void *&drawn)
{
    std::lock_guard lock(m_lock);
    for (int i = 0; i < static_cast<int>(m_slots.size()); ++i) {
        if (i == m_front || i == m_reading)
            continue;
        Slot &slot = m_slots[static_cast<size_t>(i)];
        copied = slot.copied;
        drawn = slot.drawn;
        slot.copied = nullptr;
        slot.drawn = nullptr;
        return i;
    }
    return -1;
}

void VideoFrames::publish(int slot, void *drawn)
{
    std::lock_guard lock(m_lock);
    m_slots[static_cast<size_t>(slot)].drawn = drawn;
    m_front = slot;
}

void VideoFrames::retire()
{
    std::unique_lock lock(m_lock);
    m_retired = true;
    m_front = -1;
    m_copyEnded.wait(lock, [this] { return m_reading < 0; });
}

// Render context ---------------------------------------------------------------------------------

std::unique_ptr<VideoRenderContext> VideoRenderContext::create(mpv_handle *handle, RenderSignal *signal,
                                                               QOffscreenSurface *surface)
{
    QOpenGLContext *scene = QOpenGLContext::currentContext();
    if (!handle || !signal || !surface || !scene)
        return nullptr;
    QSurface *sceneSurface = scene->surface();

    std::unique_ptr<VideoRenderContext> context(new VideoRenderContext);
    context->m_signal = signal;
    context->m_surface = surface;
    context->m_gl = new QOpenGLContext;
    context->m_gl->setFormat(scene->format());
    context->m_gl->setShareContext(scene);
    const bool made = context->m_gl->create() && context->makeCurrent();
    if (made) {
        mpv_opengl_init_params glParams{procAddress, nullptr};
        char api[] = MPV_RENDER_API_TYPE_OPENGL;
        mpv_render_param params[] = {
            {MPV_RENDER_PARAM_API_TYPE, api},
            {MPV_RENDER_PARAM_OPENGL_INIT_PARAMS, &glParams},
            {MPV_RENDER_PARAM_INVALID, nullptr},
        };
        if (mpv_render_context_create(&context->m_mpv, handle, params) < 0)
            context->m_mpv = nullptr;
        else
            mpv_render_context_set_update_callback(context->m_mpv, &RenderSignal::onRenderUpdate, signal);
        context->doneCurrent();
    }
    // A failed one is freed here, before the scene graph gets its own context back.
    if (!context->m_mpv)
        context.reset();
    scene->makeCurrent(sceneSurface);
    return context;
}

VideoRenderContext::~VideoRenderContext()
{
    m_frames->retire();
    if (m_gl && makeCurrent()) {
        if (m_mpv) {
            // No update may come in once the context is going.
            mpv_render_context_set_update_callback(m_mpv, nullptr, nullptr);
            mpv_render_context_free(m_mpv);
            m_mpv = nullptr;
        }
        QOpenGLExtraFunctions *gl = m_gl->extraFunctions();
        for (VideoFrames::Slot &slot : m_frames->slotList()) {
            if (slot.framebuffer)
                gl->glDeleteFramebuffers(1, &slot.framebuffer);
            if (slot.texture)
                gl->glDeleteTextures(1, &slot.texture);
            if (slot.drawn)
                gl->glDeleteSync(syncOf(slot.drawn));
            if (slot.copied)
                gl->glDeleteSync(syncOf(slot.copied));
            slot = {};
        }
        doneCurrent();
    }
    delete m_gl;
}

void VideoRenderContext::moveTo(QThread *thread)
{
    m_gl->moveToThread(thread);
}

bool VideoRenderContext::makeCurrent()
{
    return m_gl->makeCurrent(m_surface);
}

void VideoRenderContext::doneCurrent()
{
    m_gl->doneCurrent();
}

bool VideoRenderContext::update(bool visible, QSize pixelSize)
{
    if (!m_mpv || !makeCurrent())
        return false;
    bool shown = false;
    if (mpv_render_context_update(m_mpv) & MPV_RENDER_UPDATE_FRAME) {
        if (visible && pixelSize.width() >= 1 && pixelSize.height() >= 1) {
            void *copied = nullptr;
            void *drawn = nullptr;
            const int index = m_frames->takeFreeSlot(copied, drawn);
            QOpenGLExtraFunctions *gl = m_gl->extraFunctions();
            if (copied)
                gl->glWaitSync(syncOf(copied), 0, GL_TIMEOUT_IGNORED);
            if (copied)
                gl->glDeleteSync(syncOf(copied));
            if (drawn)
                gl->glDeleteSync(syncOf(drawn));
            if (index >= 0 && prepareSlot(m_frames->slotList()[static_cast<size_t>(index)], pixelSize)) {
                const VideoFrames::Slot &slot = m_frames->slotList()[static_cast<size_t>(index)];
                GLint oldFramebuffer = 0;
                gl->glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &oldFramebuffer);
                gl->glBindFramebuffer(GL_FRAMEBUFFER, slot.framebuffer);
                gl->glViewport(0, 0, pixelSize.width(), pixelSize.height());
                shown = draw();
                gl->glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(oldFramebuffer));
                GLsync fence = gl->glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
                gl->glFlush();
                if (shown)
                    m_frames->publish(index, fence);
                else
                    gl->glDeleteSync(fence);
            }
        } else {
            render(m_mpv, 0, 1, 1, true);
            if (!visible)
                ++m_skipped;
        }
    }
    doneCurrent();
    return shown;
}

bool VideoRenderContext::draw()
{
    if (!m_mpv)
        return false;
    QOpenGLExtraFunctions *gl = QOpenGLContext::currentContext()->extraFunctions();
    GLint framebuffer = 0;
    GLint viewport[4] = {0, 0, 0, 0};
    gl->glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &framebuffer);
    gl->glGetIntegerv(GL_VIEWPORT, viewport);
    if (viewport[2] < 1 || viewport[3] < 1)
        return false;
    // Unflipped: the picture's top row first, which the item's unmirrored framebuffer shows
    // upright.
    if (render(m_mpv, framebuffer, viewport[2], viewport[3], false) < 0)
        return false;
    ++m_rendered;
    return true;
}

bool VideoRenderContext::prepareSlot(VideoFrames::Slot &slot, QSize size)
{
    if (slot.framebuffer && slot.size == size)
        return true;
    QOpenGLExtraFunctions *gl = m_gl->extraFunctions();
    if (!slot.texture)
        gl->glGenTextures(1, &slot.texture);
    gl->glBindTexture(GL_TEXTURE_2D, slot.texture);
    gl->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, size.width(), size.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    if (!slot.framebuffer)
        gl->glGenFramebuffers(1, &slot.framebuffer);
    GLint old = 0;
    gl->glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &old);
    gl->glBindFramebuffer(GL_FRAMEBUFFER, slot.framebuffer);
    gl->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, slot.texture, 0);
    const bool complete = gl->glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    gl->glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(old));
    slot.size = complete ? size : QSize();
    return complete;
}

bool VideoRenderContext::writeSnapshot(const QString &path)
{
    if (!m_mpv || !makeCurrent())
        return false;
    QOpenGLExtraFunctions *gl = m_gl->extraFunctions();
    GLint oldFramebuffer = 0;
    GLint oldReadFramebuffer = 0;
    GLint oldViewport[4] = {0, 0, 0, 0};
    gl->glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &oldFramebuffer);
    gl->glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &oldReadFramebuffer);
    gl->glGetIntegerv(GL_VIEWPORT, oldViewport);

    GLuint texture = 0;
    GLuint framebuffer = 0;
    gl->glGenTextures(1, &texture);
    gl->glBindTexture(GL_TEXTURE_2D, texture);
    gl->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, SnapshotWidth, SnapshotHeight, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    gl->glGenFramebuffers(1, &framebuffer);
    gl->glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    gl->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);

    QImage image(SnapshotWidth, SnapshotHeight, QImage::Format_RGBX8888);
    bool done = gl->glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE && !image.isNull();
    if (done) {
        gl->glViewport(0, 0, SnapshotWidth, SnapshotHeight);
        // Unflipped, libmpv writes the picture's top row first, which is how the read-back
        // rows and an image file both run.
        done = render(m_mpv, static_cast<int>(framebuffer), SnapshotWidth, SnapshotHeight, false) >= 0;
    }
    if (done) {
        // Errors of earlier calls must not fail this read.
        for (int i = 0; i < 16 && gl->glGetError() != GL_NO_ERROR; ++i) {
        }
        // libmpv leaves its own bindings behind; the read comes from the snapshot's framebuffer.
        gl->glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
        // Nor may a pack buffer of libmpv's catch the pixels meant for the image.
        GLint packBuffer = 0;
        gl->glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &packBuffer);
        gl->glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        gl->glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        gl->glPixelStorei(GL_PACK_ALIGNMENT, 4);
        // Rows of 960 × 4 = 3,840 bytes: QImage's own stride for this format.
        gl->glReadPixels(0, 0, SnapshotWidth, SnapshotHeight, GL_RGBA, GL_UNSIGNED_BYTE, image.bits());
        done = gl->glGetError() == GL_NO_ERROR;
        gl->glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(packBuffer));
    }
    gl->glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(oldFramebuffer));
    gl->glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(oldReadFramebuffer));
    gl->glViewport(oldViewport[0], oldViewport[1], oldViewport[2], oldViewport[3]);
    gl->glDeleteFramebuffers(1, &framebuffer);
    gl->glDeleteTextures(1, &texture);
    doneCurrent();
    if (!done)
        return false;
    if (!image.save(path, "PNG")) {
        QFile::remove(path);
        return false;
    }
    return true;
}
