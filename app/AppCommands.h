#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QQmlEngine>
#include <QString>

#include <functional>

class AppActions;
class MainUIState;
class TorrentEngine;
class WindowOpener;

// One command of the menu bar: its text, key and state, which the menu and the shortcut of
// every window bind to.
class CommandItem : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Commands come from AppCommands")
    Q_PROPERTY(QString id READ id CONSTANT)
    Q_PROPERTY(QString text READ text CONSTANT)
    Q_PROPERTY(QString shortcut READ shortcut CONSTANT)
    Q_PROPERTY(QString shortcutText READ shortcutText CONSTANT)
    Q_PROPERTY(bool separatorBefore READ separatorBefore CONSTANT)
    Q_PROPERTY(bool checkable READ checkable CONSTANT)
    Q_PROPERTY(bool enabled READ enabled NOTIFY enabledChanged)
    Q_PROPERTY(bool checked READ checked NOTIFY checkedChanged)

public:
    CommandItem(QString id, QString text, QString shortcut, bool separatorBefore, bool checkable, QObject *parent);

    QString id() const { return m_id; }
    QString text() const { return m_text; }
    // Portable key sequence text ("Ctrl+Shift+O") for Shortcut.sequence.
    QString shortcut() const { return m_shortcut; }
    // The same as the menu shows it.
    QString shortcutText() const;
    bool separatorBefore() const { return m_separatorBefore; }
    bool checkable() const { return m_checkable; }
    bool enabled() const { return m_enabled; }
    bool checked() const { return m_checked; }
    void setEnabled(bool value);
    void setChecked(bool value);

signals:
    void enabledChanged();
    void checkedChanged();

private:
    QString m_id;
    QString m_text;
    QString m_shortcut;
    bool m_separatorBefore = false;
    bool m_checkable = false;
    bool m_enabled = true;
    bool m_checked = false;
};

// A menu of the menu bar.
class CommandMenu : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Menus come from AppCommands")
    Q_PROPERTY(QString id READ id CONSTANT)
    Q_PROPERTY(QString title READ title CONSTANT)
    Q_PROPERTY(QList<QObject *> items READ items CONSTANT)

public:
    CommandMenu(QString id, QString title, QObject *parent);

    QString id() const { return m_id; }
    QString title() const { return m_title; }
    QList<QObject *> items() const { return m_items; }
    void add(CommandItem *item) { m_items << item; }

private:
    QString m_id;
    QString m_title;
    QList<QObject *> m_items;
};

// The menu bar's commands with their keys, and what each does. Their keys work from every
// window of the program, the player's included, ahead of the player's own keys.
class AppCommands : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(QList<QObject *> menus READ menus CONSTANT)
    Q_PROPERTY(QList<QObject *> commands READ commands CONSTANT)

public:
    AppCommands(TorrentEngine *engine, MainUIState *ui, WindowOpener *windows, AppActions *actions,
                std::function<void()> quit, QObject *parent = nullptr);
    ~AppCommands() override;

    static AppCommands *create(QQmlEngine *, QJSEngine *);

    QList<QObject *> menus() const { return m_menus; }
    QList<QObject *> commands() const { return m_commands; }
    CommandItem *command(const QString &id) const;

    // Runs a command by id; a disabled or unknown one does nothing.
    Q_INVOKABLE void trigger(const QString &id);

private:
    void updateStates();
    QStringList selectedIds() const;

    QPointer<TorrentEngine> m_engine;
    QPointer<MainUIState> m_ui;
    QPointer<WindowOpener> m_windows;
    QPointer<AppActions> m_actions;
    std::function<void()> m_quit;
    QList<QObject *> m_menus;
    QList<QObject *> m_commands;
};
