#include "app/AppCommands.h"

#include "app/AppActions.h"
#include "app/WindowOpener.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"

#include <QKeySequence>

#include <algorithm>

namespace {

AppCommands *g_instance = nullptr;

} // namespace

CommandItem::CommandItem(QString id, QString text, QString shortcut, bool separatorBefore, bool checkable,
                         QObject *parent)
    : QObject(parent)
    , m_id(std::move(id))
    , m_text(std::move(text))
    , m_shortcut(std::move(shortcut))
    , m_separatorBefore(separatorBefore)
    , m_checkable(checkable)
{
    setObjectName(m_id);
}

QString CommandItem::shortcutText() const
{
    return QKeySequence(m_shortcut, QKeySequence::PortableText).toString(QKeySequence::NativeText);
}

void CommandItem::setEnabled(bool value)
{
    if (m_enabled == value)
        return;
    m_enabled = value;
    emit enabledChanged();
}

void CommandItem::setChecked(bool value)
{
    if (m_checked == value)
        return;
    m_checked = value;
    emit checkedChanged();
}

CommandMenu::CommandMenu(QString id, QString title, QObject *parent)
    : QObject(parent)
    , m_id(std::move(id))
    , m_title(std::move(title))
{
    setObjectName(m_id);
}

AppCommands::AppCommands(TorrentEngine *engine, MainUIState *ui, WindowOpener *windows, AppActions *actions,
                         std::function<void()> quit, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_ui(ui)
    , m_windows(windows)
    , m_actions(actions)
    , m_quit(std::move(quit))
{
    g_instance = this;
    struct Row
    {
        const char *menu;
        const char *id;
        const char *text;
        const char *key;
        bool separatorBefore;
        bool checkable;
    };
    struct MenuRow
    {
        const char *id;
        const char *title;
    };
    const MenuRow menuRows[] = {
        {"menu.app", "Velix"},
        {"menu.file", "Файл"},
        {"menu.torrents", "Торренты"},
    };
    const Row rows[] = {
        {"menu.app", "settings", "Настройки…", "Ctrl+,", false, false},
        {"menu.app", "quit", "Завершить Velix", "Ctrl+Q", true, false},
        {"menu.file", "openTorrent", "Открыть торрент…", "Ctrl+O", false, false},
        {"menu.file", "openMagnet", "Magnet-ссылка…", "Ctrl+Shift+O", false, false},
        {"menu.torrents", "resume", "Возобновить", "Ctrl+R", false, false},
        {"menu.torrents", "pause", "Пауза", "Ctrl+.", false, false},
        {"menu.torrents", "altSpeed", "Альтернативные лимиты", "Ctrl+T", true, true},
    };
    for (const MenuRow &m : menuRows) {
        auto *menu = new CommandMenu(QString::fromLatin1(m.id), QString::fromUtf8(m.title), this);
        for (const Row &r : rows) {
            if (qstrcmp(r.menu, m.id) != 0)
                continue;
            auto *item = new CommandItem(QString::fromLatin1(r.id), QString::fromUtf8(r.text), QString::fromLatin1(r.key),
                                         r.separatorBefore, r.checkable, menu);
            menu->add(item);
            m_commands << item;
        }
        m_menus << menu;
    }
    if (m_engine) {
        connect(m_engine, &TorrentEngine::torrentsChanged, this, &AppCommands::updateStates);
        connect(m_engine, &TorrentEngine::settingsUpdated, this, &AppCommands::updateStates);
    }
    if (m_ui)
        connect(m_ui, &MainUIState::selectionChanged, this, &AppCommands::updateStates);
    updateStates();
}

AppCommands::~AppCommands()
{
    if (g_instance == this)
        g_instance = nullptr;
}

AppCommands *AppCommands::create(QQmlEngine *, QJSEngine *)
{
    QJSEngine::setObjectOwnership(g_instance, QJSEngine::CppOwnership);
    return g_instance;
}

CommandItem *AppCommands::command(const QString &id) const
{
    for (QObject *object : m_commands) {
        auto *item = static_cast<CommandItem *>(object);
        if (item->id() == id)
            return item;
    }
    return nullptr;
}

QStringList AppCommands::selectedIds() const
{
    if (!m_ui)
        return {};
    QStringList ids(m_ui->selection().begin(), m_ui->selection().end());
    std::sort(ids.begin(), ids.end());
    return ids;
}

void AppCommands::updateStates()
{
    // Resume and pause act on the library's selection: each is offered while at least one
    // selected torrent would change by it.
    bool anyPaused = false;
    bool anyRunning = false;
    if (m_engine) {
        const QStringList selected = selectedIds();
        for (const TorrentStatus &t : m_engine->torrents()) {
            if (!selected.contains(t.id))
                continue;
            (t.paused ? anyPaused : anyRunning) = true;
        }
    }
    command(QStringLiteral("resume"))->setEnabled(anyPaused);
    command(QStringLiteral("pause"))->setEnabled(anyRunning);
    CommandItem *alt = command(QStringLiteral("altSpeed"));
    alt->setEnabled(m_engine != nullptr);
    alt->setChecked(m_engine && m_engine->settings().altSpeedEnabled);
    command(QStringLiteral("openTorrent"))->setEnabled(m_engine != nullptr);
    command(QStringLiteral("openMagnet"))->setEnabled(m_ui != nullptr);
}

void AppCommands::trigger(const QString &id)
{
    CommandItem *item = command(id);
    if (!item || !item->enabled())
        return;
    if (id == QLatin1String("settings")) {
        if (m_windows)
            m_windows->open(QStringLiteral("settings"));
    } else if (id == QLatin1String("quit")) {
        if (m_quit)
            m_quit();
    } else if (id == QLatin1String("openTorrent")) {
        if (m_actions)
            m_actions->openTorrentPanel();
    } else if (id == QLatin1String("openMagnet")) {
        if (m_actions)
            m_actions->openMagnet();
    } else if (id == QLatin1String("resume")) {
        m_engine->resume(selectedIds());
    } else if (id == QLatin1String("pause")) {
        m_engine->pause(selectedIds());
    } else if (id == QLatin1String("altSpeed")) {
        // Through the settings setter, so the session takes the other limits at once and the
        // choice is saved like any other setting.
        AppSettings settings = m_engine->settings();
        settings.altSpeedEnabled = !settings.altSpeedEnabled;
        m_engine->setSettings(settings);
    }
}
