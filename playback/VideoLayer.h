#pragma once

#include "playback/RenderSignal.h"
#include "playback/VideoRenderContext.h"

#include <QFuture>
#include <QMap>
#include <QMutex>
#include <QPointer>
#include <QQuickFramebufferObject>
#include <QSize>
#include <QString>
#include <QtQml/qqmlregistration.h>

#include <atomic>
#include <memory>

class MPVCore;
class PlayerModel;
class QOffscreenSurface;
class QQuickWindow;
struct mpv_handle;

// The video item of the player window. libmpv's render context is made on the scene graph's
// render thread when the window first synchronises, over a GL context of the item's own that
// shares objects with the scene graph; from then on the render-update thread takes every frame
// libmpv announces: drawn into a slot while the window is seen, consumed without drawing while
// it is hidden or minimised, so sound and playback never wait for a window. The item itself
// copies the newest slot into its framebuffer when the scene graph draws.
//
// Keys, scrolling and clicks on the video go to the player: keys by physical position, so a
// Cyrillic layout drives it too.
class VideoLayer : public QQuickFramebufferObject
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(PlayerModel *player READ player WRITE setPlayer NOTIFY playerChanged)
    Q_PROPERTY(bool hasRenderContext READ hasRenderContext NOTIFY renderContextChanged)

public:
    // What the item, its renderer and the two threads share. Lock order: lifecycleLock, then
    // stateLock; no GL or libmpv call is made under stateLock.
    struct State
    {
        // Creation against destruction of the render context, held across the work of either.
        QMutex lifecycleLock;
        // Single reads and writes of the fields below.
        mutable QMutex stateLock;
        std::unique_ptr<VideoRenderContext> context;
        bool destroyed = false;
        bool visible = true;
        bool unavailable = false; // a creation failed; not tried again
        QSize pixelSize;
        mpv_handle *handle = nullptr;
        QOffscreenSurface *surface = nullptr;
        std::atomic<bool> updatePosted{false};
        // Last, so it stops first: work posted on its thread still finds the fields above.
        RenderSignal signal;
    };

    explicit VideoLayer(QQuickItem *parent = nullptr);
    ~VideoLayer() override;

    PlayerModel *player() const;
    void setPlayer(PlayerModel *player);
    // Binds the item to a core; the QML element does it through its player.
    void setCore(MPVCore *core);
    bool hasRenderContext() const;

    // Ends the render context for good (its update callback first, then the context, on its
    // own thread); this item never gets another. Main thread; idempotent.
    void destroy();
    bool isDestroyed() const;

    // "rendered" and "hidden-frames-skipped"; empty without a render context.
    QMap<QString, QString> diagnostics() const;
    // A 960 by 540 PNG of the current frame, made on the render-update thread: false and no
    // file without a render context or on any failure.
    QFuture<bool> writeSnapshot(const QString &path);

    Renderer *createRenderer() const override;
    const std::shared_ptr<State> &state() const { return m_state; }
    bool seen() const;

signals:
    void playerChanged();
    void renderContextChanged();

protected:
    void itemChange(ItemChange change, const ItemChangeData &value) override;
    void geometryChange(const QRectF &newGeometry, const QRectF &oldGeometry) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;

private:
    void attachTo(QQuickWindow *window);
    void makeContext();
    void contextMade(bool made);
    void updateVisibility();
    void updatePixelSize();
    void frameReady();

    std::shared_ptr<State> m_state = std::make_shared<State>();
    QPointer<PlayerModel> m_player;
    QPointer<MPVCore> m_core;
    QPointer<QQuickWindow> m_window;
    std::unique_ptr<QOffscreenSurface> m_surface;
};
