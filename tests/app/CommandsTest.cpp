// The menu bar's commands, the file and magnet actions, the window opener's rules and the
// symbol table, without a screen: what each command does to the engine and the interface
// state, and when it is offered.

#include "app/AppActions.h"
#include "app/AppCommands.h"
#include "app/SymbolImageProvider.h"
#include "app/SymbolTable.h"
#include "app/WindowOpener.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QIcon>
#include <QKeySequence>
#include <QSet>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <array>

using namespace testsupport;

namespace {

TorrentStatus status(const char *id, bool paused)
{
    TorrentStatus t;
    t.id = QString::fromLatin1(id);
    t.name = t.id;
    t.paused = paused;
    return t;
}

class CommandsTest : public ::testing::Test
{
protected:
    CommandsTest()
        : engine(std::make_unique<TorrentEngine>(home.qpath(), nullptr,
                                                 QString::fromStdString(quietSettingsText(freeTcpPort()))))
        , ui(home.qpath(), engine.get())
        , windows(&ui, false)
        , actions(engine.get(), &ui, &windows)
        , commands(engine.get(), &ui, &windows, &actions, [this] { ++quits; })
    {
    }

    bool enabled(const char *id) const { return commands.command(QString::fromLatin1(id))->enabled(); }

    TempDir home;
    std::unique_ptr<TorrentEngine> engine;
    MainUIState ui;
    WindowOpener windows;
    AppActions actions;
    int quits = 0;
    AppCommands commands;
};

} // namespace

TEST_F(CommandsTest, MenusHoldTheCommandsWithTheirKeysInOrder)
{
    struct Row
    {
        const char *menu;
        const char *text;
        const char *key;
        bool separator;
    };
    const std::array<Row, 7> rows{{
        {"Velix", "Настройки…", "Ctrl+,", false},
        {"Velix", "Завершить Velix", "Ctrl+Q", true},
        {"Файл", "Открыть торрент…", "Ctrl+O", false},
        {"Файл", "Magnet-ссылка…", "Ctrl+Shift+O", false},
        {"Торренты", "Возобновить", "Ctrl+R", false},
        {"Торренты", "Пауза", "Ctrl+.", false},
        {"Торренты", "Альтернативные лимиты", "Ctrl+T", true},
    }};
    qsizetype row = 0;
    for (QObject *menuObject : commands.menus()) {
        auto *menu = qobject_cast<CommandMenu *>(menuObject);
        ASSERT_TRUE(menu);
        for (QObject *itemObject : menu->items()) {
            auto *item = qobject_cast<CommandItem *>(itemObject);
            ASSERT_LT(row, qsizetype(rows.size()));
            const Row &expected = rows.at(static_cast<size_t>(row++));
            EXPECT_EQ(menu->title(), QString::fromUtf8(expected.menu)) << expected.text;
            EXPECT_EQ(item->text(), QString::fromUtf8(expected.text));
            EXPECT_EQ(item->shortcut(), QString::fromLatin1(expected.key)) << expected.text;
            // The key parses to one chord that Qt can match.
            EXPECT_EQ(QKeySequence(item->shortcut(), QKeySequence::PortableText).count(), 1) << expected.text;
            EXPECT_EQ(item->separatorBefore(), expected.separator) << expected.text;
        }
    }
    EXPECT_EQ(row, qsizetype(rows.size()));
}

TEST_F(CommandsTest, ResumeAndPauseActOnTheSelectionWhileItHasTorrentsTheyWouldChange)
{
    StatusSnapshot snapshot;
    snapshot.torrents = {status("a", true), status("b", false), status("c", true)};
    engine->apply(snapshot, {});

    struct Row
    {
        QSet<QString> selection;
        bool resume;
        bool pause;
    };
    const std::array<Row, 5> rows{{
        {{}, false, false},
        {{"a"}, true, false},
        {{"b"}, false, true},
        {{"a", "b"}, true, true},
        {{"gone"}, false, false},
    }};
    for (const Row &row : rows) {
        ui.setSelection(row.selection);
        const QStringList shown(row.selection.begin(), row.selection.end());
        EXPECT_EQ(enabled("resume"), row.resume) << shown.join(',').toStdString();
        EXPECT_EQ(enabled("pause"), row.pause) << shown.join(',').toStdString();
    }

    // A torrent that pauses elsewhere changes what the menu offers at the next poll.
    ui.setSelection({QStringLiteral("b")});
    snapshot.torrents = {status("a", true), status("b", true), status("c", true)};
    engine->apply(snapshot, {});
    EXPECT_TRUE(enabled("resume"));
    EXPECT_FALSE(enabled("pause"));

    // A disabled command does nothing when its key comes anyway.
    commands.trigger(QStringLiteral("pause"));
    commands.trigger(QStringLiteral("nosuch"));
}

TEST_F(CommandsTest, AlternativeLimitsFlipThroughTheEngineSettingsAndShowChecked)
{
    AppSettings limits = engine->settings();
    limits.downloadLimitKiB = 0;
    limits.altDownloadLimitKiB = 100;
    engine->setSettings(limits);
    CommandItem *alt = commands.command(QStringLiteral("altSpeed"));
    ASSERT_TRUE(alt->checkable());
    EXPECT_FALSE(alt->checked());
    QSignalSpy checked(alt, &CommandItem::checkedChanged);
    commands.trigger(QStringLiteral("altSpeed"));
    EXPECT_TRUE(engine->settings().altSpeedEnabled);
    EXPECT_TRUE(alt->checked());
    // The session takes the other limits at once: they are in the text it is given.
    EXPECT_TRUE(engine->settings().libtorrentSettings().contains(QStringLiteral("download_rate_limit=102400")));
    commands.trigger(QStringLiteral("altSpeed"));
    EXPECT_FALSE(engine->settings().altSpeedEnabled);
    EXPECT_EQ(checked.count(), 2);

    // A change from elsewhere (the sidebar, a script) shows in the menu too.
    AppSettings settings = engine->settings();
    settings.altSpeedEnabled = true;
    engine->setSettings(settings);
    EXPECT_TRUE(alt->checked());
}

TEST_F(CommandsTest, SettingsQuitAndTheTwoOpenActions)
{
    // No window exists yet: the settings page is remembered for when the main window shows.
    commands.trigger(QStringLiteral("settings"));
    EXPECT_TRUE(ui.showSettings());
    commands.trigger(QStringLiteral("quit"));
    EXPECT_EQ(quits, 1);

    QSignalSpy panel(&actions, &AppActions::torrentPanelRequested);
    commands.trigger(QStringLiteral("openTorrent"));
    EXPECT_EQ(panel.count(), 1);
    EXPECT_EQ(actions.torrentPanelFilters(), QStringList{QStringLiteral("Торренты (*.torrent)")});
    EXPECT_TRUE(actions.torrentPanelFolder().isLocalFile());

    // Files chosen together join the pending list in their order, after what waits already.
    const QList<QUrl> waiting{QUrl(QStringLiteral("magnet:?xt=urn:btih:1"))};
    engine->appendPendingOpen(waiting);
    const QList<QUrl> chosen{QUrl::fromLocalFile(QStringLiteral("/t/b.torrent")), QUrl::fromLocalFile(QStringLiteral("/t/a.torrent")),
                             QUrl::fromLocalFile(QStringLiteral("/t/c.torrent"))};
    actions.chooseTorrents(chosen);
    EXPECT_EQ(engine->pendingOpen(), waiting + chosen);
    actions.chooseTorrents({});
    EXPECT_EQ(engine->pendingOpen(), waiting + chosen);

    struct Row
    {
        const char *clipboard;
        const char *magnetText;
    };
    for (const Row &row : std::array<Row, 5>{{
             {"magnet:?xt=urn:btih:abc&dn=x", "magnet:?xt=urn:btih:abc&dn=x"},
             {"https://example.org/a.torrent", ""},
             {" magnet:?xt=urn:btih:abc", ""},
             {"MAGNET:?xt=urn:btih:abc", ""},
             {"", ""},
         }}) {
        QGuiApplication::clipboard()->setText(QString::fromUtf8(row.clipboard));
        ui.setShowMagnet(false);
        ui.setMagnetText(QStringLiteral("old"));
        commands.trigger(QStringLiteral("openMagnet"));
        EXPECT_TRUE(ui.showMagnet()) << row.clipboard;
        EXPECT_EQ(ui.magnetText(), QString::fromUtf8(row.magnetText)) << row.clipboard;
    }
}

TEST(SymbolTableTest, EverySymbolHasAnIconInTheFallbackTheme)
{
    SymbolImageProvider::setUpThemes();
    QSet<QString> seen;
    for (const SymbolTable::Entry &entry : SymbolTable::entries()) {
        const QString symbol = QString::fromLatin1(entry.symbol);
        EXPECT_FALSE(seen.contains(symbol)) << "twice: " << entry.symbol;
        seen.insert(symbol);
        const QIcon icon = QIcon::fromTheme(QString::fromLatin1(entry.icon));
        EXPECT_FALSE(icon.isNull()) << entry.symbol << " -> " << entry.icon;
        EXPECT_FALSE(icon.pixmap(16, 16).isNull()) << entry.symbol << " -> " << entry.icon;
    }

    SymbolImageProvider provider;
    QSize size;
    const QPixmap warning = provider.requestPixmap(QStringLiteral("exclamationmark.triangle"), &size, QSize(32, 32));
    EXPECT_EQ(size, QSize(32, 32));
    // Drawn, not blank: a symbol has both ink and clear background.
    const QImage image = warning.toImage();
    bool ink = false;
    bool clear = false;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const int alpha = qAlpha(image.pixel(x, y));
            ink = ink || alpha > 200;
            clear = clear || alpha == 0;
        }
    }
    EXPECT_TRUE(ink && clear);
    EXPECT_TRUE(provider.requestPixmap(QStringLiteral("no.such.symbol"), &size, QSize()).isNull());
    EXPECT_FALSE(SymbolTable::iconName(QStringLiteral("no.such.symbol")));
}
