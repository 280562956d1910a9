#include "app/TrayIcon.h"

#include <QApplication>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>

TrayIcon::TrayIcon(std::function<void()> show, std::function<void()> quit, QObject *parent)
    : QObject(parent)
    , m_show(std::move(show))
    , m_quit(std::move(quit))
{
}

TrayIcon::~TrayIcon()
{
    delete m_icon;
    delete m_menu;
}

QStringList TrayIcon::itemTexts()
{
    return {QStringLiteral("Показать Velix"), QStringLiteral("Завершить Velix")};
}

bool TrayIcon::available()
{
    // The tray's menu is a widget, so a plain GUI application has none.
    return qobject_cast<QApplication *>(QCoreApplication::instance()) && QSystemTrayIcon::isSystemTrayAvailable();
}

bool TrayIcon::start()
{
    if (m_icon)
        return true;
    if (!available())
        return false;
    const QStringList texts = itemTexts();
    m_menu = new QMenu;
    m_menu->addAction(texts.at(0), this, [this] {
        if (m_show)
            m_show();
    });
    m_menu->addAction(texts.at(1), this, [this] {
        if (m_quit)
            m_quit();
    });
    m_icon = new QSystemTrayIcon;
    QIcon icon = QIcon::fromTheme(QStringLiteral("org.velix.Velix"));
    if (icon.isNull())
        icon = QIcon::fromTheme(QStringLiteral("folder-download"));
    m_icon->setIcon(icon);
    m_icon->setToolTip(QStringLiteral("Velix"));
    m_icon->setContextMenu(m_menu);
    connect(m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) {
            if (m_show)
                m_show();
        }
    });
    m_icon->show();
    return true;
}

bool TrayIcon::visible() const
{
    return m_icon && m_icon->isVisible();
}
