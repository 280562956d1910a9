#include "library/TorrentDisplay.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using Change = std::function<void(TorrentStatus &)>;

TorrentStatus made(const Change &change)
{
    TorrentStatus t;
    t.id = QStringLiteral("a");
    t.name = QStringLiteral("Film");
    t.state = QStringLiteral("downloading");
    t.hasMetadata = true;
    t.total = 1000;
    t.wanted = 1000;
    change(t);
    return t;
}

struct TextRow
{
    const char *what;
    Change change;
    const char *text;
};

TEST(TorrentDisplayTest, StatusTextTakesTheFirstRuleThatHolds)
{
    const std::vector<TextRow> rows{
        {"missing outranks an error", [](TorrentStatus &t) { t.state = "missing"; t.error = "gone"; }, "Файл отсутствует"},
        {"error outranks a move", [](TorrentStatus &t) { t.error = "disk"; t.moving = true; }, "Ошибка"},
        {"move outranks a check", [](TorrentStatus &t) { t.moving = true; t.state = "checking"; }, "Перемещение"},
        {"running check", [](TorrentStatus &t) { t.state = "checking"; }, "Проверка"},
        {"check paused by hand", [](TorrentStatus &t) { t.state = "checking"; t.paused = true; }, "Проверка · пауза"},
        {"check queued, not 'В очереди'",
         [](TorrentStatus &t) { t.state = "checking"; t.paused = true; t.autoManaged = true; }, "Ожидание проверки"},
        {"fetching metadata", [](TorrentStatus &t) { t.state = "metadata"; }, "Метаданные"},
        {"metadata paused, even queued",
         [](TorrentStatus &t) { t.state = "metadata"; t.paused = true; t.autoManaged = true; }, "Пауза"},
        {"queued", [](TorrentStatus &t) { t.paused = true; t.autoManaged = true; t.finished = true; }, "В очереди"},
        {"paused after finishing", [](TorrentStatus &t) { t.paused = true; t.finished = true; }, "Готово"},
        {"paused while seeding", [](TorrentStatus &t) { t.paused = true; t.seeding = true; }, "Готово"},
        {"paused download", [](TorrentStatus &t) { t.paused = true; }, "Пауза"},
        {"seeding", [](TorrentStatus &t) { t.seeding = true; t.finished = true; }, "Раздача"},
        {"downloading", [](TorrentStatus &) {}, "Загрузка"},
        {"finished with nothing wanted", [](TorrentStatus &t) { t.finished = true; t.wanted = 0; }, "Файлы не выбраны"},
        {"finished with files wanted", [](TorrentStatus &t) { t.finished = true; }, "Готово"},
    };
    for (const TextRow &row : rows)
        EXPECT_EQ(statusText(made(row.change)), QString::fromUtf8(row.text)) << row.what;
}

TEST(TorrentDisplayTest, StatusSymbolFollowsErrorCheckThenPauseState)
{
    const std::vector<TextRow> rows{
        {"error", [](TorrentStatus &t) { t.error = "x"; t.state = "checking"; }, "exclamationmark.triangle.fill"},
        {"checking, even paused", [](TorrentStatus &t) { t.state = "checking"; t.paused = true; },
         "arrow.triangle.2.circlepath"},
        {"seeding", [](TorrentStatus &t) { t.seeding = true; t.finished = true; }, "arrow.up.circle.fill"},
        {"finished", [](TorrentStatus &t) { t.finished = true; }, "checkmark.circle.fill"},
        {"missing reads as the rest", [](TorrentStatus &t) { t.state = "missing"; }, "arrow.down.circle.fill"},
        {"paused finished, even queued", [](TorrentStatus &t) { t.paused = true; t.finished = true; t.autoManaged = true; },
         "checkmark.circle.fill"},
        {"queued", [](TorrentStatus &t) { t.paused = true; t.autoManaged = true; }, "clock"},
        {"paused", [](TorrentStatus &t) { t.paused = true; }, "pause.circle.fill"},
    };
    for (const TextRow &row : rows)
        EXPECT_EQ(statusSymbol(made(row.change)), QString::fromUtf8(row.text)) << row.what;
}

TEST(TorrentDisplayTest, DisplayProgressIsTheCheckOrTheWantedShareClamped)
{
    struct Row
    {
        const char *what;
        Change change;
        double progress;
    };
    const std::vector<Row> rows{
        {"check shows its own progress", [](TorrentStatus &t) { t.state = "checking"; t.progress = 0.25; t.wantedDone = 900; }, 0.25},
        {"check above 1 is clamped", [](TorrentStatus &t) { t.state = "checking"; t.progress = 1.5; }, 1.0},
        {"nothing wanted with metadata", [](TorrentStatus &t) { t.wanted = 0; }, 1.0},
        {"nothing wanted, no metadata", [](TorrentStatus &t) { t.wanted = 0; t.hasMetadata = false; }, 0.0},
        {"share of wanted", [](TorrentStatus &t) { t.wantedDone = 250; }, 0.25},
        {"done beyond wanted is clamped", [](TorrentStatus &t) { t.wantedDone = 1200; }, 1.0},
        {"negative is clamped", [](TorrentStatus &t) { t.wantedDone = -5; }, 0.0},
    };
    for (const Row &row : rows)
        EXPECT_DOUBLE_EQ(displayProgress(made(row.change)), row.progress) << row.what;
}

TEST(TorrentDisplayTest, TimeLeftOnlyWhileSomethingRuns)
{
    struct Row
    {
        const char *what;
        Change change;
        const char *left;
    };
    auto checking = [](TorrentStatus &t) {
        t.state = "checking";
        t.progress = 0.5;
        t.total = 10 * 1048576;
        t.checkingRate = 1048576;
    };
    const std::vector<Row> rows{
        {"running check: 5 s left", checking, "≈ 5 с"},
        {"a fraction of a second rounds up", [&](TorrentStatus &t) { checking(t); t.progress = 0.99999; }, "≈ 1 с"},
        {"paused check", [&](TorrentStatus &t) { checking(t); t.paused = true; }, "—"},
        {"check without a rate yet", [&](TorrentStatus &t) { checking(t); t.checkingRate.reset(); }, "—"},
        {"check never falls back to the download's time",
         [&](TorrentStatus &t) { checking(t); t.checkingRate.reset(); t.downloadRate = 100; }, "—"},
        {"download: 900 bytes at 100/s", [](TorrentStatus &t) { t.wantedDone = 100; t.downloadRate = 100; }, "9 с"},
        {"paused download", [](TorrentStatus &t) { t.wantedDone = 100; t.downloadRate = 100; t.paused = true; }, "—"},
        {"stalled download", [](TorrentStatus &t) { t.wantedDone = 100; }, "—"},
        {"everything wanted is in", [](TorrentStatus &t) { t.wantedDone = 1000; t.downloadRate = 100; }, "—"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(timeLeftText(made(row.change)), QString::fromUtf8(row.left)) << row.what;
}

TEST(TorrentDisplayTest, ResumeTitleRestartsOnlyWhenEveryFileIsMissing)
{
    const TorrentStatus missing = made([](TorrentStatus &t) { t.state = "missing"; });
    const TorrentStatus healthy = made([](TorrentStatus &t) { t.paused = true; });
    struct Row
    {
        QList<TorrentStatus> statuses;
        const char *title;
    };
    const std::vector<Row> rows{
        {{}, "Возобновить"},
        {{healthy}, "Возобновить"},
        {{missing, healthy}, "Запустить"},
        {{missing, missing}, "Перезапустить"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(resumeTitle(row.statuses), QString::fromUtf8(row.title)) << row.statuses.size();
}

} // namespace
