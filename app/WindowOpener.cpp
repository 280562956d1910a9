#include "app/WindowOpener.h"

#include "library/MainUIState.h"

#include <QImage>
#include <QJsonObject>
#include <QQuickWindow>

namespace {

WindowOpener *g_instance = nullptr;

} // namespace

WindowOpener::WindowOpener(MainUIState *ui, bool background, QObject *parent)
    : QObject(parent)
    , m_ui(ui)
    , m_background(background)
{
    g_instance = this;
}

WindowOpener::~WindowOpener()
{
    if (g_instance == this)
        g_instance = nullptr;
}

WindowOpener *WindowOpener::create(QQmlEngine *, QJSEngine *)
{
    QJSEngine::setObjectOwnership(g_instance, QJSEngine::CppOwnership);
    return g_instance;
}

WindowOpener *WindowOpener::instance()
{
    return g_instance;
}

void WindowOpener::setMainContent(const QUrl &url)
{
    if (m_mainContent == url)
        return;
    m_mainContent = url;
    emit mainContentChanged();
}

void WindowOpener::registerWindow(const QString &id, QQuickWindow *window)
{
    if (!window)
        return;
    if (!m_windows.contains(id))
        m_order << id;
    m_windows.insert(id, window);
}

QQuickWindow *WindowOpener::window(const QString &name) const
{
    if (name.isEmpty())
        return nullptr;
    if (QQuickWindow *exact = m_windows.value(name))
        return exact;
    // The settings page lives in the main window.
    if (name == QLatin1String("settings"))
        return m_windows.value(QStringLiteral("main"));
    for (const QString &id : m_order) {
        if (id.startsWith(name) && m_windows.value(id))
            return m_windows.value(id);
    }
    return nullptr;
}

void WindowOpener::open(const QString &id)
{
    if (id == QLatin1String("settings")) {
        // Set even when no window can show: the page is there when the window next appears.
        if (m_ui)
            m_ui->setShowSettings(true);
        open(QStringLiteral("main"));
        return;
    }
    QQuickWindow *w = window(id);
    if (!w || m_background)
        return;
    if (w->visibility() == QWindow::Minimized)
        w->showNormal();
    else if (!w->isVisible())
        w->show();
    w->raise();
    w->requestActivate();
    emit windowOpened(id);
}

QJsonArray WindowOpener::visibleWindows() const
{
    QJsonArray list;
    for (const QString &id : m_order) {
        QQuickWindow *w = m_windows.value(id);
        if (!w || !w->isVisible())
            continue;
        list.append(QJsonObject{
            {QStringLiteral("id"), id},
            {QStringLiteral("title"), w->title()},
            {QStringLiteral("width"), w->width()},
            {QStringLiteral("height"), w->height()},
            {QStringLiteral("active"), w->isActive()},
            {QStringLiteral("visibility"), QString::fromLatin1(w->visibility() == QWindow::FullScreen ? "fullscreen"
                                                               : w->visibility() == QWindow::Minimized ? "minimized"
                                                                                                          : "windowed")},
        });
    }
    return list;
}

bool WindowOpener::exists(const QString &name) const
{
    return window(name) != nullptr;
}

void WindowOpener::close(const QString &name)
{
    if (QQuickWindow *w = window(name))
        w->close();
}

void WindowOpener::sendBack()
{
    for (const QString &id : m_order) {
        QQuickWindow *w = m_windows.value(id);
        if (w && w->isVisible())
            w->lower();
    }
}

void WindowOpener::setContentSize(const QString &name, double width, double height)
{
    QQuickWindow *w = window(name);
    if (!w || !(width >= 1.0) || !(height >= 1.0) || width > 1e5 || height > 1e5)
        return;
    // A QML window's size is its content's size: the frame is the window manager's. A script
    // gets no smaller window than a user could drag it to.
    const QSize size = QSize(static_cast<int>(width), static_cast<int>(height))
                           .expandedTo(w->minimumSize())
                           .boundedTo(w->maximumSize());
    w->resize(size);
}

bool WindowOpener::snapshot(const QString &name, const QString &path)
{
    QQuickWindow *w = window(name);
    if (!w)
        return false;
    const QImage image = w->grabWindow();
    if (image.isNull())
        return false;
    return image.save(path, "PNG");
}
