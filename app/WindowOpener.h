#pragma once

#include "remote/ControlWindows.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QQmlEngine>
#include <QStringList>
#include <QUrl>

#include <functional>

class MainUIState;
class QQuickWindow;

// The program's top-level windows by id ("main", "player"), and the one way code outside a
// window opens one. The settings are a page of the main window: opening "settings" shows that
// page and the main window. In background mode windows exist but are never shown, so nothing
// ever takes the user's focus.
//
// Main thread only. It is also the control server's reach into the windows.
class WindowOpener : public QObject, public ControlWindows
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(bool background READ background CONSTANT)
    Q_PROPERTY(QUrl mainContent READ mainContent NOTIFY mainContentChanged)

public:
    WindowOpener(MainUIState *ui, bool background, QObject *parent = nullptr);
    ~WindowOpener() override;

    // The instance QML sees: the one the application made.
    static WindowOpener *create(QQmlEngine *, QJSEngine *);
    static WindowOpener *instance();

    void registerWindow(const QString &id, QQuickWindow *window);
    QQuickWindow *window(const QString &name) const;
    QStringList ids() const { return m_order; }

    bool background() const { return m_background; }
    // What the main window shows inside its frame; empty shows an empty window.
    QUrl mainContent() const { return m_mainContent; }
    void setMainContent(const QUrl &url);

    // Shows the window, restores it when minimised, raises it and asks for the focus; nothing
    // in background mode or for an id without a window.
    Q_INVOKABLE void open(const QString &id) override;

    QJsonArray visibleWindows() const override;
    bool exists(const QString &name) const override;
    void close(const QString &name) override;
    void sendBack() override;
    void setContentSize(const QString &name, double width, double height) override;
    bool snapshot(const QString &name, const QString &path) override;

signals:
    void windowOpened(const QString &id);
    void mainContentChanged();

private:
    QPointer<MainUIState> m_ui;
    const bool m_background;
    QHash<QString, QPointer<QQuickWindow>> m_windows;
    QStringList m_order;
    QUrl m_mainContent;
};
