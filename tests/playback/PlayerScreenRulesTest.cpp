// The player screen's texts and choices, and how keys and wheels become the player's input.

#include "playback/PlayerInput.h"
#include "playback/PlayerModel.h"
#include "playback/PlayerScreen.h"
#include "playback/MPVCore.h"

#include <gtest/gtest.h>

using namespace PlayerScreenRules;

namespace {

TEST(PlayerScreenRulesTest, TheOverlayShowsAnErrorFirstThenAWaitThenNothing)
{
    struct Row
    {
        bool error, loaded, buffering, waiting;
        Overlay expected;
    };
    const Row rows[] = {
        {true, true, true, true, Overlay::Error},   {true, false, false, false, Overlay::Error},
        {false, false, false, false, Overlay::Status}, {false, true, true, false, Overlay::Status},
        {false, true, false, true, Overlay::Status}, {false, true, false, false, Overlay::None},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.error << row.loaded << row.buffering << row.waiting);
        EXPECT_EQ(overlay(row.error, row.loaded, row.buffering, row.waiting), row.expected);
    }
}

TEST(PlayerScreenRulesTest, TheStatusTextNamesTheWaitThenThePieceAndTheRate)
{
    struct Row
    {
        bool loaded, buffering, waiting;
        std::optional<double> progress;
        qint64 rate;
        const char *expected;
    };
    const Row rows[] = {
        {false, false, false, std::nullopt, 0, "Открытие"},
        // A cache pause wins over the seek: the seek ended up waiting for data.
        {true, true, true, std::nullopt, 0, "Буферизация"},
        {true, false, true, std::nullopt, 0, "Перемотка"},
        {true, true, false, 0.426, 0, "Буферизация 42%"},
        {true, true, false, 0.999, 0, "Буферизация 99%"},
        {false, false, false, 0.0, 1536 * 1024, "Открытие 0% · 1,5 МБ/с"},
        {true, false, true, std::nullopt, 512, "Перемотка · 512 байт/с"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.expected);
        EXPECT_EQ(statusText(row.loaded, row.buffering, row.waiting, row.progress, row.rate),
                  QString::fromUtf8(row.expected));
    }
}

TEST(PlayerScreenRulesTest, SpeedRowsReadAsMultipliersAndCheckTheNearestWithinAHundredth)
{
    EXPECT_EQ(speedLabel(1.0), QStringLiteral("1×"));
    EXPECT_EQ(speedLabel(0.75), QStringLiteral("0.75×"));
    EXPECT_EQ(speedLabel(2.0), QStringLiteral("2×"));
    EXPECT_EQ(speedLabel(1.3), QStringLiteral("1.3×"));
    struct Row
    {
        double speed;
        int checkedRow; // -1: none
    };
    for (const Row &row : {Row{1.0, 2}, Row{1.009, 2}, Row{1.02, -1}, Row{0.5, 0}, Row{1.995, 5}, Row{3.0, -1}}) {
        SCOPED_TRACE(row.speed);
        const QList<MenuRow> rows = speedRows(row.speed);
        ASSERT_EQ(rows.size(), 6);
        QStringList labels;
        int checked = -1;
        for (int i = 0; i < rows.size(); ++i) {
            labels.append(rows.at(i).label);
            if (rows.at(i).checked) {
                EXPECT_EQ(checked, -1) << "two rows checked";
                checked = i;
            }
        }
        EXPECT_EQ(labels, QStringList({"0.5×", "0.75×", "1×", "1.25×", "1.5×", "2×"}));
        EXPECT_EQ(checked, row.checkedRow);
    }
    // The choice goes to libmpv as a number with a dot, whatever the locale.
    EXPECT_EQ(speedRows(1.0).at(1).id, QStringLiteral("0.75"));
}

TEST(PlayerScreenRulesTest, EpisodeRowsFollowTheSeriesOrderAndTellWhatIsMissing)
{
    const auto file = [](int i, const char *path, qint64 done, int prio) {
        TorrentFile f;
        f.i = i;
        f.path = QString::fromUtf8(path);
        f.size = 1000;
        f.done = done;
        f.prio = prio;
        return f;
    };
    const QList<TorrentFile> files = {
        file(0, "Show/Show 10.mkv", 0, 4),
        file(1, "Show/Show 2.mkv", 1000, 4),
        file(2, "Show/Show 1.mkv", 500, 4),
        file(3, "Show/notes.txt", 0, 4),
        file(4, "Show/Show 3.mkv", 0, 0),
    };
    const QList<MenuRow> rows = episodeRows(files, 1);
    QStringList labels;
    QStringList checked;
    for (const MenuRow &row : rows) {
        labels.append(row.label);
        if (row.checked)
            checked.append(row.id);
    }
    EXPECT_EQ(labels, QStringList({"Show 1.mkv  ·  50%", "Show 2.mkv", "Show 3.mkv  ·  не скачивается", "Show 10.mkv"}));
    EXPECT_EQ(checked, QStringList({"1"}));
    EXPECT_TRUE(episodeRows(files, std::nullopt).size() == 4);
}

TEST(PlayerScreenRulesTest, ControlTextsFollowThePlayer)
{
    EXPECT_EQ(playPauseLabel(true), QStringLiteral("Пауза"));
    EXPECT_EQ(playPauseLabel(false), QStringLiteral("Воспроизвести"));
    EXPECT_EQ(timeText(65.9, 3725), QStringLiteral("1:05 / 1:02:05"));
    EXPECT_EQ(seekValueText(0, 0), QStringLiteral("0:00 из 0:00"));
    EXPECT_EQ(volumeText(104.9), QStringLiteral("104%"));
    TrackOption embedded;
    embedded.id = QStringLiteral("a1");
    embedded.label = QStringLiteral("Русский");
    embedded.detail = QStringLiteral("AAC · стерео");
    embedded.selected = true;
    EXPECT_EQ(trackRows({embedded}), QList<MenuRow>({{"a1", "Русский", "AAC · стерео", true}}));
    EXPECT_EQ(tracksPlaceholder({}, false), QStringLiteral("Чтение дорожек…"));
    EXPECT_EQ(tracksPlaceholder({}, true), QString());
    EXPECT_EQ(tracksPlaceholder({embedded}, false), QString());
}

TEST(PlayerInputTest, KeysAreReadByPositionSoAnyLayoutWorks)
{
    struct Row
    {
        quint32 scanCode;
        int qtKey;
        std::optional<int> expected;
    };
    const Row rows[] = {
        // By position: the Cyrillic layout's letters on the same keys.
        {38, Qt::Key_A, PlayerModel::KeyA},
        {38, 0x0444 /* ф */, PlayerModel::KeyA},
        {39, 0x044b /* ы */, PlayerModel::KeyS},
        {41, 0x0430 /* а */, PlayerModel::KeyF},
        {33, 0x0437 /* з */, PlayerModel::KeyP},
        {57, 0x0442 /* т */, PlayerModel::KeyN},
        {58, 0x044c /* ь */, PlayerModel::KeyM},
        {65, Qt::Key_Space, PlayerModel::KeySpace},
        {9, Qt::Key_Escape, PlayerModel::KeyEscape},
        {113, Qt::Key_Left, PlayerModel::KeyLeft},
        {114, Qt::Key_Right, PlayerModel::KeyRight},
        {116, Qt::Key_Down, PlayerModel::KeyDown},
        {111, Qt::Key_Up, PlayerModel::KeyUp},
        // The position wins over the meaning: the key where F lies on a Dvorak board is U.
        {41, Qt::Key_U, PlayerModel::KeyF},
        {40, Qt::Key_F, std::nullopt},
        // No scan code: by meaning.
        {0, Qt::Key_F, PlayerModel::KeyF},
        {0, Qt::Key_Escape, PlayerModel::KeyEscape},
        {0, 0x0430, std::nullopt},
        {24, Qt::Key_Q, std::nullopt},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << "scan " << row.scanCode << " key " << row.qtKey);
        EXPECT_EQ(PlayerInput::keyCode(row.scanCode, row.qtKey), row.expected);
    }
}

TEST(PlayerInputTest, OnlyADeliberateVerticalScrollChangesTheVolumeAndUpIsLouder)
{
    using PlayerInput::Scroll;
    struct Row
    {
        Scroll scroll;
        std::optional<double> expected;
    };
    const Row rows[] = {
        {{.dy = 120}, 5.0},
        {{.dy = -120}, -5.0},
        {{.dy = 15}, 5.0}, // a notch is a notch, however fine
        {{.dy = 12, .precise = true}, 3.0},
        {{.dy = -8, .precise = true}, -2.0},
        // Natural scrolling: the reported delta is turned around, so up stays louder.
        {{.dy = -12, .precise = true, .inverted = true}, 3.0},
        {{.dy = 120, .inverted = true}, -5.0},
        {{.momentum = true, .dy = 120}, std::nullopt},
        {{.modified = true, .dy = 120}, std::nullopt},
        {{.dx = 120, .dy = 120}, std::nullopt},
        {{.dx = 30, .dy = -10, .precise = true}, std::nullopt},
        {{}, std::nullopt},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << "dx " << row.scroll.dx << " dy " << row.scroll.dy << " precise "
                                          << row.scroll.precise << " inverted " << row.scroll.inverted);
        EXPECT_EQ(PlayerInput::volumeStep(row.scroll), row.expected);
    }
}

TEST(PlayerInputTest, VideoGoesNowhereWhereThePlayerWindowCanNeverShow)
{
    struct Row
    {
        const char *platform;
        bool background;
        const char *expected;
    };
    for (const Row &row : {Row{"xcb", false, "libmpv"}, Row{"wayland", false, "libmpv"}, Row{"xcb", true, "null"},
                           Row{"offscreen", false, "null"}, Row{"minimal", false, "null"}, Row{"", false, "null"}}) {
        SCOPED_TRACE(row.platform);
        EXPECT_EQ(MPVCore::videoOutputFor(QString::fromUtf8(row.platform), row.background), QString::fromUtf8(row.expected));
    }
}

} // namespace
