#include "library/LibraryScreen.h"

#include "engine/TorrentReports.h"
#include "library/PatternCover.h"
#include "media/TorrentFile.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using Change = std::function<void(TorrentStatus &)>;

TorrentStatus torrent(const char *id, const char *name, const Change &change = [](TorrentStatus &) {})
{
    TorrentStatus t;
    t.id = QString::fromUtf8(id);
    t.name = QString::fromUtf8(name);
    t.state = QStringLiteral("downloading");
    t.hasMetadata = true;
    t.total = 1000;
    t.wanted = 1000;
    change(t);
    return t;
}

const Change seeding = [](TorrentStatus &t) { t.seeding = true; t.finished = true; t.wantedDone = t.wanted; };
const Change finished = [](TorrentStatus &t) { t.finished = true; t.wantedDone = t.wanted; };
const Change checking = [](TorrentStatus &t) { t.state = QStringLiteral("checking"); };
const Change missing = [](TorrentStatus &t) { t.state = QStringLiteral("missing"); t.paused = true; };

QSet<QString> set(const char *ids)
{
    const QStringList list = QString::fromUtf8(ids).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return QSet<QString>(list.begin(), list.end());
}

TEST(LibraryScreenTest, TheContentColumnShowsTheFirstScreenThatApplies)
{
    const QList<TorrentStatus> library{torrent("a", "A")};
    struct Row
    {
        bool offers;
        bool settings;
        const char *opened;
        ContentMode mode;
    };
    const std::vector<Row> rows{
        {true, true, "a", ContentMode::offers},
        {false, true, "a", ContentMode::settings},
        {false, false, "a", ContentMode::contents},
        {false, false, "gone", ContentMode::library}, // a torrent removed meanwhile opens nothing
        {false, false, "", ContentMode::library},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(contentMode(row.offers, row.settings, QString::fromUtf8(row.opened), library), row.mode)
            << row.offers << row.settings << row.opened;
    }
    EXPECT_TRUE(showsInspector(ContentMode::library, true, QStringLiteral("a")));
    EXPECT_FALSE(showsInspector(ContentMode::library, true, QString()));
    EXPECT_FALSE(showsInspector(ContentMode::contents, true, QStringLiteral("a")));
}

TEST(LibraryScreenTest, HeaderCountsTheVisibleAndNamesTheSelectionActions)
{
    const QList<TorrentStatus> visible{torrent("d", "Down"), torrent("s", "Seed", seeding),
                                       torrent("f", "Done", finished), torrent("c", "Check", checking)};
    struct Row
    {
        TorrentFilter filter;
        QList<TorrentStatus> selected;
        LibraryHeader header;
    };
    const std::vector<Row> rows{
        {TorrentFilter::all, {}, {QStringLiteral("Медиатека"), QStringLiteral("В коллекции: 4"), QStringLiteral("2 загружено"), {}, {}, {}}},
        {TorrentFilter::completed,
         {torrent("d", "Down")},
         {QStringLiteral("Завершённые"), QStringLiteral("В коллекции: 4"), QStringLiteral("2 загружено"),
          QStringLiteral("Выбрано: 1"), QStringLiteral("Возобновить выбранные"), QStringLiteral("Действия с выбранными: 1")}},
        // A mix of missing and healthy torrents is started, all missing ones restarted.
        {TorrentFilter::all,
         {torrent("m", "Gone", missing), torrent("d", "Down")},
         {QStringLiteral("Медиатека"), QStringLiteral("В коллекции: 4"), QStringLiteral("2 загружено"),
          QStringLiteral("Выбрано: 2"), QStringLiteral("Запустить выбранные"), QStringLiteral("Действия с выбранными: 2")}},
        {TorrentFilter::errors,
         {torrent("m", "Gone", missing)},
         {QStringLiteral("С ошибками"), QStringLiteral("В коллекции: 4"), QStringLiteral("2 загружено"),
          QStringLiteral("Выбрано: 1"), QStringLiteral("Перезапустить выбранные"), QStringLiteral("Действия с выбранными: 1")}},
    };
    for (const Row &row : rows)
        EXPECT_EQ(libraryHeader(row.filter, visible, row.selected), row.header) << row.header.selectionText.toStdString();
    EXPECT_EQ(libraryHeader(TorrentFilter::all, {}, {}).downloadedText, QStringLiteral("0 загружено"));

    EXPECT_EQ(emptyState(0, 0), EmptyState::emptyLibrary);
    EXPECT_EQ(emptyState(3, 0), EmptyState::noMatches);
    EXPECT_EQ(emptyState(3, 1), EmptyState::none);
}

TEST(LibraryScreenTest, FeaturedIsTheSelectedVideoElseTheFirstVideoAndOnlyInAnUnsearchedGrid)
{
    const QList<TorrentStatus> visible{
        torrent("album", "Some Band - Greatest Hits"),
        torrent("film", "Dark_Hollow_(1987)_[DVDRip].avi", seeding),
        torrent("show", "Silver.Harbor.S02E05.1080p.WEB-DL.mkv", checking),
        torrent("doc", "manual.pdf"),
    };
    struct Row
    {
        const char *selection;
        LibraryLayout layout;
        const char *search;
        bool details;
        std::optional<QString> featured;
    };
    const std::vector<Row> rows{
        {"", LibraryLayout::grid, "", false, QStringLiteral("film")},
        {"show", LibraryLayout::grid, "", false, QStringLiteral("show")},
        {"album doc", LibraryLayout::grid, "", false, QStringLiteral("film")}, // the selection holds no video
        {"show", LibraryLayout::grid, "  ", false, QStringLiteral("show")},    // blanks are no search
        {"show", LibraryLayout::grid, "s", false, std::nullopt},                // gone as soon as one letter is typed
        {"", LibraryLayout::list, "", false, std::nullopt},
        {"", LibraryLayout::table, "", false, std::nullopt},
        {"", LibraryLayout::grid, "", true, std::nullopt},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(featuredTorrent(visible, set(row.selection), row.layout, QString::fromUtf8(row.search), row.details),
                  row.featured)
            << row.selection << " " << rawValue(row.layout).toStdString() << " '" << row.search << "' " << row.details;
    }
    EXPECT_EQ(featuredTorrent({visible.at(0), visible.at(3)}, {}, LibraryLayout::grid, QString(), false), std::nullopt);

    EXPECT_EQ(featuredLabel(visible.at(2)), QStringLiteral("ПРОВЕРКА ФАЙЛОВ"));
    EXPECT_EQ(featuredLabel(torrent("x", "x", [](TorrentStatus &t) { checking(t); t.finished = true; })),
              QStringLiteral("ПРОВЕРКА ФАЙЛОВ"));
    EXPECT_EQ(featuredLabel(visible.at(1)), QStringLiteral("В ВАШЕЙ МЕДИАТЕКЕ"));
    EXPECT_EQ(featuredLabel(torrent("x", "x", finished)), QStringLiteral("В ВАШЕЙ МЕДИАТЕКЕ"));
    EXPECT_EQ(featuredLabel(visible.at(0)), QStringLiteral("СЕЙЧАС В ЗАГРУЗКЕ"));
}

QString menuLine(const QList<MenuItem> &items)
{
    QStringList parts;
    for (const MenuItem &item : items) {
        QString part = item.submenu.isEmpty() ? item.text : item.submenu + QLatin1Char('/') + item.text;
        part += QLatin1Char('=') + item.command;
        if (item.checkable)
            part += item.checked ? QStringLiteral("[x]") : QStringLiteral("[ ]");
        parts << part;
    }
    return parts.join(QStringLiteral(", "));
}

TEST(LibraryScreenTest, ContextMenuOffersOneTorrentsEntriesOnlyForOne)
{
    const QString queueAndRemove = QStringLiteral(
        "Проверить файлы=recheck, Обновить трекеры=reannounce, Очередь/Наверх=queue_top, Очередь/Выше=queue_up, "
        "Очередь/Ниже=queue_down, Очередь/Вниз=queue_bottom, Удалить…=remove");
    struct Row
    {
        const char *what;
        QList<TorrentStatus> statuses;
        QString menu;
    };
    const std::vector<Row> rows{
        {"one",
         {torrent("a", "A")},
         QStringLiteral("Открыть=open, Файлы и сведения=details, Возобновить=resume, Пауза=pause, "
                        "Принудительный старт=force_start, Последовательная загрузка=sequential_on[ ], "
                        "Ограничения…=limits, Переместить…=move, Показать в папке=reveal, ")
             + queueAndRemove},
        {"one sequential and missing",
         {torrent("a", "A", [](TorrentStatus &t) { missing(t); t.sequential = true; })},
         QStringLiteral("Открыть=open, Файлы и сведения=details, Перезапустить=resume, Пауза=pause, "
                        "Принудительный старт=force_start, Последовательная загрузка=sequential_off[x], "
                        "Ограничения…=limits, Переместить…=move, Показать в папке=reveal, ")
             + queueAndRemove},
        {"many with one missing",
         {torrent("a", "A"), torrent("b", "B", missing)},
         QStringLiteral("Запустить=resume, Пауза=pause, Принудительный старт=force_start, ") + queueAndRemove},
        // The torrents went away under the open menu: what acts on all still stands.
        {"none", {}, QStringLiteral("Возобновить=resume, Пауза=pause, Принудительный старт=force_start, ") + queueAndRemove},
    };
    for (const Row &row : rows)
        EXPECT_EQ(menuLine(contextMenuItems(row.statuses)), row.menu) << row.what;
}

TEST(LibraryScreenTest, RemovalTitleNamesOneTorrentAndCountsMore)
{
    const QList<TorrentStatus> library{torrent("a", "Film"), torrent("b", "Show"), torrent("c", "Album")};
    const std::vector<std::pair<QStringList, QString>> rows{
        {{QStringLiteral("a")}, QStringLiteral("Удалить «Film»?")},
        {{QStringLiteral("gone")}, QStringLiteral("Удалить «gone»?")},
        {{QStringLiteral("a"), QStringLiteral("b")}, QStringLiteral("Удалить торренты: 2?")},
        {{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}, QStringLiteral("Удалить торренты: 3?")},
    };
    for (const auto &[ids, title] : rows)
        EXPECT_EQ(removalTitle(ids, library), title) << ids.join(QLatin1Char(' ')).toStdString();
}

TEST(LibraryScreenTest, SidebarSumsRatesOfAllAndTimeLeftOfThoseDownloading)
{
    const QList<TorrentStatus> library{
        torrent("a", "A", [](TorrentStatus &t) { t.wantedDone = 400; t.downloadRate = 100; t.peers = 3; }),
        torrent("b", "B", [](TorrentStatus &t) { t.wantedDone = 800; t.downloadRate = 100; t.uploadRate = 7; t.peers = 1; }),
        // Paused: its missing bytes are not coming, so they don't count towards the time left.
        torrent("c", "C", [](TorrentStatus &t) { t.paused = true; }),
        torrent("d", "D", [](TorrentStatus &t) { seeding(t); t.uploadRate = 50; t.peers = 2; }),
    };
    const TransferSums sums = transferSums(library);
    EXPECT_EQ(sums, (TransferSums{2, 200, 57, 6, 800, 4.0}));
    EXPECT_EQ(transferSums({library.at(2)}).secondsLeft, std::nullopt);
    EXPECT_EQ(transferSums({}), TransferSums{});
}

TEST(LibraryScreenTest, ListenSummaryLeavesOutLoopbackLinkLocalAndTheBenchmarkRange)
{
    const QStringList listening{
        QStringLiteral("TCP 127.0.0.1:6881"),     QStringLiteral("uTP 127.0.0.1:6881"),
        QStringLiteral("TCP 192.168.1.20:6881"),  QStringLiteral("TCP fe80::1c2a:99ff:fe00:1%eth0:6881"),
        QStringLiteral("TCP FE80::2:6881"),       QStringLiteral("TCP 198.18.0.4:6881"),
        QStringLiteral("TCP 198.180.1.1:6881"),   QStringLiteral("TCP 2001:db8::5:6881"),
        QStringLiteral("TCP 192.168.1.20:6881"),
    };
    EXPECT_EQ(listenSummary(listening),
              (QStringList{QStringLiteral("TCP 192.168.1.20:6881"), QStringLiteral("TCP 198.180.1.1:6881"),
                           QStringLiteral("TCP 2001:db8::5:6881")}));
    EXPECT_EQ(portText(listening), QStringLiteral("Порт: 6881"));
    EXPECT_EQ(portText({}), QStringLiteral("Порт: —"));
    EXPECT_EQ(portText({QStringLiteral("TCP garbage")}), QStringLiteral("Порт: —"));
}

TEST(LibraryScreenTest, PlayTargetPrefersTheLastPlayedThenAWantedVideo)
{
    auto video = [](int i, int prio) {
        TorrentFile f;
        f.i = i;
        f.path = QStringLiteral("Show/e%1.mkv").arg(i);
        f.prio = prio;
        return f;
    };
    const QList<TorrentFile> videos{video(0, 0), video(1, 4), video(2, 4)};
    struct Row
    {
        std::optional<int> lastPlayed;
        QList<TorrentFile> videos;
        std::optional<int> target;
    };
    const std::vector<Row> rows{
        {std::nullopt, videos, 1},
        {2, videos, 2},
        {0, videos, 0},             // played before, even though skipped since
        {7, videos, 1},             // a file that is no video any more
        {std::nullopt, {video(3, 0), video(4, 0)}, 3},
        {std::nullopt, {}, std::nullopt},
    };
    for (const Row &row : rows) {
        const auto target = playTarget(row.videos, row.lastPlayed);
        EXPECT_EQ(target ? std::optional<int>(target->i) : std::nullopt, row.target) << row.lastPlayed.value_or(-1);
    }
}

TEST(LibraryScreenTest, CardButtonsResumeWhatTheUserPausedAndRestartWhatIsMissing)
{
    struct Row
    {
        Change change;
        bool resumes;
        const char *help;
    };
    const std::vector<Row> rows{
        {[](TorrentStatus &) {}, false, "Приостановить загрузку"},
        {[](TorrentStatus &t) { t.paused = true; }, true, "Возобновить загрузку"},
        // Queued: paused by the queue, the button takes it out of the queue.
        {[](TorrentStatus &t) { t.paused = true; t.autoManaged = true; }, false, "Приостановить загрузку"},
        {missing, true, "Перезапустить загрузку"},
        {[](TorrentStatus &t) { t.state = QStringLiteral("missing"); }, true, "Перезапустить загрузку"},
    };
    for (const Row &row : rows) {
        const TorrentStatus t = torrent("a", "A", row.change);
        EXPECT_EQ(pauseButtonResumes(t), row.resumes) << row.help;
        EXPECT_EQ(pauseButtonHelp(t), QString::fromUtf8(row.help));
    }
    EXPECT_EQ(kindLine(MediaKind::text), QStringLiteral("Документ"));
    EXPECT_EQ(kindLine(MediaKind::image), QStringLiteral("Изображения"));
    EXPECT_EQ(kindLine(MediaKind::video), QString());
    EXPECT_EQ(kindSymbol(MediaKind::video), QString());
    EXPECT_EQ(kindSymbol(MediaKind::archive), QStringLiteral("doc.zipper"));
}

TEST(PatternCoverTest, OneIdentityGivesTheSameBytesAndIndicesDiffer)
{
    // FNV-1a 64 reference values.
    EXPECT_EQ(PatternCover::seed(QString()), 0xcbf29ce484222325ULL);
    EXPECT_EQ(PatternCover::seed(QStringLiteral("a")), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(PatternCover::seed(QStringLiteral("foobar")), 0x85944171f73967e8ULL);
    // Multi-byte characters hash as their UTF-8 bytes.
    EXPECT_EQ(PatternCover::seed(QStringLiteral("ё")), PatternCover::seed(QString::fromUtf8("\xd1\x91")));

    const QString id = QStringLiteral("0123456789abcdef0123456789abcdef01234567");
    const QImage first = PatternCover::artwork(PatternCover::index(id));
    ASSERT_FALSE(first.isNull());
    PatternCoverProvider provider;
    QSize size;
    const QImage served = provider.requestImage(id, &size, QSize());
    EXPECT_EQ(size, first.size());
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(served.constBits()), served.sizeInBytes()),
              QByteArray(reinterpret_cast<const char *>(first.constBits()), first.sizeInBytes()));
    EXPECT_EQ(PatternCover::index(id), PatternCover::index(QStringLiteral("0123456789abcdef0123456789abcdef01234567")));

    QSet<QByteArray> distinct;
    for (int index = 0; index < PatternCover::rampCount(); ++index) {
        const QImage image = PatternCover::artwork(index);
        distinct.insert(QByteArray(reinterpret_cast<const char *>(image.constBits()), image.sizeInBytes()));
    }
    EXPECT_EQ(distinct.size(), PatternCover::rampCount());
    // An identity with a file index is its own identity.
    EXPECT_NE(PatternCover::seed(id), PatternCover::seed(id + QStringLiteral("|3")));
}

QString statesText(const QList<PieceState> &states)
{
    QString text;
    for (const PieceState s : states)
        text += QLatin1Char(static_cast<char>(s));
    return text;
}

TEST(PieceMapTest, ColumnsGroupPiecesIntoAsManySpansAsFit)
{
    // 0 waiting, 1 downloaded, 2 receiving, 3 unavailable.
    const PieceMap map{QByteArray("11110000221133330000")};
    struct Row
    {
        std::optional<std::pair<int, int>> range;
        int count;
        const char *columns;
    };
    const std::vector<Row> rows{
        {std::nullopt, 40, "11110000221133330000"}, // wider than the pieces: one column a piece
        {std::nullopt, 20, "11110000221133330000"},
        {std::nullopt, 10, "1100213300"},             // pairs; "22" and "21" pairs show receiving
        {std::nullopt, 4, "1230"},                    // 11110 00022 11333 30000
        {std::nullopt, 1, "2"},                       // anything receiving wins the whole bar
        {std::pair(0, 7), 2, "10"},
        {std::pair(12, 15), 3, "333"},
        {std::pair(14, 40), 100, "330000"},           // clamped to the map
        {std::pair(-5, 1), 5, "11"},
        {std::pair(9, 3), 5, ""},                     // an empty range
        {std::nullopt, 0, ""},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(statesText(map.columns(row.range, row.count)), QString::fromUtf8(row.columns))
            << row.count << " " << (row.range ? row.range->first : -1);
    }
    // Ties go to the state further along, and a bad digit reads as waiting.
    EXPECT_EQ(statesText(PieceMap{QByteArray("1030")}.columns(std::nullopt, 2)), QStringLiteral("10"));
    EXPECT_EQ(statesText(PieceMap{QByteArray("x0")}.columns(std::nullopt, 1)), QStringLiteral("0"));
    EXPECT_EQ(map.summary(), QStringLiteral("Загружено: 6, Получение / запись: 2, Ожидание: 8, Нет у пиров: 4"));
    EXPECT_EQ(map.summary(std::pair(0, 3)), QStringLiteral("Загружено: 4, Получение / запись: 0, Ожидание: 0, Нет у пиров: 0"));
}

} // namespace
