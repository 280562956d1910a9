#include "playback/VideoLayer.h"

#include "core/MainThread.h"
#include "core/SerialQueue.h"
#include "playback/MPVCore.h"
#include "playback/PlayerInput.h"
#include "playback/PlayerModel.h"

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLExtraFunctions>
#include <QOpenGLFramebufferObject>
#include <QQuickOpenGLUtils>
#include <QQuickWindow>

namespace {

// Copies the newest frame of the render-update thread into the item's framebuffer, on the
// scene graph's render thread. Without a frame the item is black.
class VideoLayerRenderer final : public QQuickFramebufferObject::Renderer
{
public:
    explicit VideoLayerRenderer(std::shared_ptr<VideoLayer::State> state)
        : m_state(std::move(state))
    {
    }

    ~VideoLayerRenderer() override
    {
        if (m_readFramebuffer && QOpenGLContext::currentContext())
            QOpenGLContext::currentContext()->extraFunctions()->glDeleteFramebuffers(1, &m_readFramebuffer);
    }

    QOpenGLFramebufferObject *createFramebufferObject(const QSize &size) override
    {
        return new QOpenGLFramebufferObject(size);
    }

    void render() override
    {
        QOpenGLExtraFunctions *gl = QOpenGLContext::currentContext()->extraFunctions();
        std::shared_ptr<VideoFrames> frames;
        {
            QMutexLocker lock(&m_state->stateLock);
            if (m_state->context)
                frames = m_state->context->frames();
        }
        const std::optional<VideoFrames::Frame> frame = frames ? frames->acquire() : std::nullopt;
        if (!frame) {
            gl->glClearColor(0, 0, 0, 1);
            gl->glClear(GL_COLOR_BUFFER_BIT);
            QQuickOpenGLUtils::resetOpenGLState();
            return;
        }
        GLint target = 0;
        gl->glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &target);
        const QSize size = framebufferObject()->size();
        gl->glWaitSync(static_cast<GLsync>(frame->drawn), 0, GL_TIMEOUT_IGNORED);
        if (!m_readFramebuffer)
            gl->glGenFramebuffers(1, &m_readFramebuffer);
        gl->glBindFramebuffer(GL_READ_FRAMEBUFFER, m_readFramebuffer);
        gl->glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, frame->texture, 0);
        gl->glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(target));
        gl->glBlitFramebuffer(0, 0, frame->size.width(), frame->size.height(), 0, 0, size.width(), size.height(),
                              GL_COLOR_BUFFER_BIT, GL_LINEAR);
        gl->glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
        GLsync copied = gl->glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
        gl->glFlush();
        frames->release(frame->slot, copied);
        QQuickOpenGLUtils::resetOpenGLState();
    }

private:
    std::shared_ptr<VideoLayer::State> m_state;
    GLuint m_readFramebuffer = 0;
};

} // namespace

VideoLayer::VideoLayer(QQuickItem *parent)
    : QQuickFramebufferObject(parent)
{
    // The slots hold the picture top row first and the copy keeps that order: no mirroring.
    setMirrorVertically(false);
    setAcceptedMouseButtons(Qt::LeftButton);
    setFlag(ItemIsFocusScope, false);
    setActiveFocusOnTab(false);
    State *state = m_state.get();
    m_state->signal.setHandler([state, this] {
        VideoRenderContext *context = nullptr;
        bool visible = false;
        QSize size;
        {
            QMutexLocker lock(&state->stateLock);
            context = state->context.get();
            visible = state->visible;
            size = state->pixelSize;
        }
        // The context is freed only on this thread, so it can't go while this runs.
        if (context && context->update(visible, size) && !state->updatePosted.exchange(true))
            postToMain(this, [this] { frameReady(); });
    });
}

VideoLayer::~VideoLayer()
{
    // No render thread may start a creation on an item that is going.
    if (m_window)
        disconnect(m_window, nullptr, this, nullptr);
    destroy();
    if (m_core && m_core->videoLayer() == this)
        m_core->setVideoLayer(nullptr);
}

PlayerModel *VideoLayer::player() const
{
    return m_player.data();
}

void VideoLayer::setPlayer(PlayerModel *player)
{
    if (m_player == player)
        return;
    m_player = player;
    emit playerChanged();
    if (m_player) {
        PlayerCore *core = m_player->ensureCore();
        setCore(core ? core->mpvCore() : nullptr);
        if (m_window)
            m_player->setWindow(m_window);
    }
}

void VideoLayer::setCore(MPVCore *core)
{
    if (m_core == core || isDestroyed())
        return;
    if (m_core && m_core->videoLayer() == this)
        m_core->setVideoLayer(nullptr);
    m_core = core;
    {
        QMutexLocker lock(&m_state->stateLock);
        m_state->handle = core && core->usesRenderContext() ? core->handle() : nullptr;
    }
    if (core)
        core->setVideoLayer(this);
    if (window())
        window()->update();
}

bool VideoLayer::hasRenderContext() const
{
    QMutexLocker lock(&m_state->stateLock);
    return m_state->context != nullptr;
}

bool VideoLayer::isDestroyed() const
{
    QMutexLocker lock(&m_state->stateLock);
    return m_state->destroyed;
}

QQuickFramebufferObject::Renderer *VideoLayer::createRenderer() const
{
    return new VideoLayerRenderer(m_state);
}

void VideoLayer::itemChange(ItemChange change, const ItemChangeData &value)
{
    QQuickFramebufferObject::itemChange(change, value);
    if (change == ItemSceneChange)
        attachTo(value.window);
}

void VideoLayer::attachTo(QQuickWindow *window)
{
    if (m_window == window)
        return;
    if (m_window) {
        m_window->removeEventFilter(this);
        disconnect(m_window, nullptr, this, nullptr);
    }
    m_window = window;
    if (window) {
        if (!m_surface) {
            // Made here: an offscreen surface may only be created on the main thread.
            m_surface = std::make_unique<QOffscreenSurface>();
            m_surface->setFormat(window->requestedFormat());
            m_surface->create();
            QMutexLocker lock(&m_state->stateLock);
            m_state->surface = m_surface->isValid() ? m_surface.get() : nullptr;
        }
        // On the render thread while the main thread waits for the sync: the one place where a
        // render context comes into being.
        connect(window, &QQuickWindow::beforeSynchronizing, this, [this] { makeContext(); }, Qt::DirectConnection);
        connect(window, &QWindow::visibilityChanged, this, [this] { updateVisibility(); });
        connect(window, &QWindow::screenChanged, this, [this] { updatePixelSize(); });
        window->installEventFilter(this);
        if (m_player)
            m_player->setWindow(window);
    }
    updateVisibility();
    updatePixelSize();
}

void VideoLayer::makeContext()
{
    QMutexLocker lifecycle(&m_state->lifecycleLock);
    mpv_handle *handle = nullptr;
    QOffscreenSurface *surface = nullptr;
    {
        QMutexLocker lock(&m_state->stateLock);
        if (m_state->context || m_state->destroyed || m_state->unavailable || !m_state->handle)
            return;
        handle = m_state->handle;
        surface = m_state->surface;
    }
    std::unique_ptr<VideoRenderContext> context = VideoRenderContext::create(handle, &m_state->signal, surface);
    if (!context) {
        {
            QMutexLocker lock(&m_state->stateLock);
            m_state->unavailable = true;
        }
        postToMain(this, [this] { contextMade(false); });
        return;
    }
    // Handed to the thread that takes the frames; nothing else makes it current from here on.
    context->moveTo(m_state->signal.queue().context()->thread());
    {
        QMutexLocker lock(&m_state->stateLock);
        m_state->context = std::move(context);
    }
    // A first frame may already wait.
    m_state->signal.notify();
    postToMain(this, [this] { contextMade(true); });
}

void VideoLayer::contextMade(bool made)
{
    emit renderContextChanged();
    // A layer that another one has replaced speaks no more for the core.
    if (!m_core || m_core->videoLayer() != this)
        return;
    if (made && hasRenderContext())
        m_core->setRenderContextReady(true);
    else if (!made)
        m_core->renderContextUnavailable();
}

void VideoLayer::destroy()
{
    std::unique_ptr<VideoRenderContext> context;
    {
        QMutexLocker lifecycle(&m_state->lifecycleLock);
        {
            QMutexLocker lock(&m_state->stateLock);
            if (m_state->destroyed)
                return;
            m_state->destroyed = true;
            context = std::move(m_state->context);
        }
        if (context) {
            // Freed where its GL context lives, with the update callback cleared first.
            m_state->signal.queue().sync([&context] { context.reset(); });
        }
    }
    if (m_core && m_core->videoLayer() == this)
        m_core->setRenderContextReady(false);
    emit renderContextChanged();
}

QMap<QString, QString> VideoLayer::diagnostics() const
{
    QMutexLocker lock(&m_state->stateLock);
    if (!m_state->context)
        return {};
    return {
        {QStringLiteral("rendered"), QString::number(m_state->context->rendered())},
        {QStringLiteral("hidden-frames-skipped"), QString::number(m_state->context->skipped())},
    };
}

QFuture<bool> VideoLayer::writeSnapshot(const QString &path)
{
    State *state = m_state.get();
    return m_state->signal.queue().run<bool>([state, path] {
        VideoRenderContext *context = nullptr;
        {
            QMutexLocker lock(&state->stateLock);
            context = state->context.get();
        }
        return context && context->writeSnapshot(path);
    });
}

bool VideoLayer::seen() const
{
    QMutexLocker lock(&m_state->stateLock);
    return m_state->visible;
}

void VideoLayer::updateVisibility()
{
    const bool visible = m_window && m_window->isVisible() && m_window->isExposed()
                         && m_window->visibility() != QWindow::Minimized && m_window->visibility() != QWindow::Hidden;
    bool changed = false;
    {
        QMutexLocker lock(&m_state->stateLock);
        changed = m_state->visible != visible;
        m_state->visible = visible;
    }
    if (changed && visible) {
        // A frame that came while hidden is drawn now rather than at the next one.
        m_state->signal.notify();
        update();
    }
}

void VideoLayer::updatePixelSize()
{
    const qreal ratio = m_window ? m_window->effectiveDevicePixelRatio() : 1.0;
    const QSize size(static_cast<int>(width() * ratio), static_cast<int>(height() * ratio));
    QMutexLocker lock(&m_state->stateLock);
    m_state->pixelSize = size;
}

void VideoLayer::geometryChange(const QRectF &newGeometry, const QRectF &oldGeometry)
{
    QQuickFramebufferObject::geometryChange(newGeometry, oldGeometry);
    updatePixelSize();
}

void VideoLayer::frameReady()
{
    m_state->updatePosted.store(false);
    update();
}

bool VideoLayer::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_window && (event->type() == QEvent::Expose || event->type() == QEvent::Show
                                || event->type() == QEvent::Hide)) {
        // After the window has handled it, so isExposed() tells the new state.
        QMetaObject::invokeMethod(this, [this] { updateVisibility(); }, Qt::QueuedConnection);
    }
    return QQuickFramebufferObject::eventFilter(watched, event);
}

void VideoLayer::keyPressEvent(QKeyEvent *event)
{
    const std::optional<int> code = PlayerInput::keyCode(event->nativeScanCode(), event->key());
    if (m_player && code && m_player->handleKey(*code, event->modifiers().testFlag(Qt::ShiftModifier))) {
        event->accept();
        return;
    }
    if (m_player)
        m_player->poke();
    // Left for the window's own handling.
    event->ignore();
}

void VideoLayer::wheelEvent(QWheelEvent *event)
{
    const bool precise = !event->pixelDelta().isNull();
    const QPoint delta = precise ? event->pixelDelta() : event->angleDelta();
    PlayerInput::Scroll scroll;
    scroll.momentum = event->phase() == Qt::ScrollMomentum;
    scroll.modified = event->modifiers() != Qt::NoModifier;
    scroll.dx = delta.x();
    scroll.dy = delta.y();
    scroll.precise = precise;
    scroll.inverted = event->inverted();
    if (m_player && m_player->handleScroll(scroll))
        event->accept();
    else
        event->ignore();
}

void VideoLayer::mousePressEvent(QMouseEvent *event)
{
    forceActiveFocus(Qt::MouseFocusReason);
    if (m_player)
        m_player->poke();
    event->accept();
}

void VideoLayer::mouseDoubleClickEvent(QMouseEvent *event)
{
    forceActiveFocus(Qt::MouseFocusReason);
    if (m_player)
        m_player->toggleFullScreen();
    event->accept();
}
