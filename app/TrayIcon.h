#pragma once

#include <QObject>
#include <QStringList>

#include <functional>

class QMenu;
class QSystemTrayIcon;

// The way back to a program whose windows are all closed: an icon in the desktop's tray with
// "Показать Velix" and "Завершить Velix". Only where the desktop has a tray and the program
// runs with widgets; never in background mode.
class TrayIcon : public QObject
{
    Q_OBJECT

public:
    TrayIcon(std::function<void()> show, std::function<void()> quit, QObject *parent = nullptr);
    ~TrayIcon() override;

    // The menu's items in their order.
    static QStringList itemTexts();
    // Whether the icon can appear: a widgets application on a desktop with a tray.
    static bool available();

    // Shows the icon where available(); false otherwise.
    bool start();
    bool visible() const;

private:
    std::function<void()> m_show;
    std::function<void()> m_quit;
    QSystemTrayIcon *m_icon = nullptr;
    QMenu *m_menu = nullptr;
};
