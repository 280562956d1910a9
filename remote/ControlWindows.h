#pragma once

#include <QJsonArray>
#include <QMap>
#include <QString>

// The program's top-level windows as the control server drives them. The application frame
// owns the windows and implements this; without one (a server started before any window
// exists, or in a test) the window routes answer as for a program with no windows.
//
// Names: "main", "settings" and "player" are the windows of these ids, "sheet" the first sheet
// open over any window; a window whose id begins with the name matches too.
class ControlWindows
{
public:
    virtual ~ControlWindows() = default;

    // One object per visible window: at least "id", "title", "width" and "height".
    virtual QJsonArray visibleWindows() const = 0;
    virtual bool exists(const QString &name) const = 0;
    virtual void open(const QString &name) = 0;
    virtual void close(const QString &name) = 0;
    // Sends every visible window behind the windows of other programs.
    virtual void sendBack() = 0;
    virtual void setContentSize(const QString &name, double width, double height) = 0;
    // A PNG of the window's content at `path`; false on any failure.
    virtual bool snapshot(const QString &name, const QString &path) = 0;
};
