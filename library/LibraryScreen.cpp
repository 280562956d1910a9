#include "library/LibraryScreen.h"

#include "library/LibraryRules.h"
#include "library/TorrentDisplay.h"
#include "media/MediaPresentation.h"
#include "media/TorrentFile.h"

#include <algorithm>

ContentMode contentMode(bool offersPresented, bool showSettings, const QString &openedTorrentID,
                        const QList<TorrentStatus> &torrents)
{
    if (offersPresented)
        return ContentMode::offers;
    if (showSettings)
        return ContentMode::settings;
    if (!openedTorrentID.isEmpty()
        && std::any_of(torrents.begin(), torrents.end(),
                       [&openedTorrentID](const TorrentStatus &t) { return t.id == openedTorrentID; }))
        return ContentMode::contents;
    return ContentMode::library;
}

QString contentModeName(ContentMode mode)
{
    switch (mode) {
    case ContentMode::offers:
        return QStringLiteral("offers");
    case ContentMode::settings:
        return QStringLiteral("settings");
    case ContentMode::contents:
        return QStringLiteral("contents");
    case ContentMode::library:
        break;
    }
    return QStringLiteral("library");
}

bool showsInspector(ContentMode mode, bool showDetails, const QString &primary)
{
    return mode == ContentMode::library && showDetails && !primary.isEmpty();
}

LibraryHeader libraryHeader(TorrentFilter filter, const QList<TorrentStatus> &visible,
                            const QList<TorrentStatus> &selected)
{
    LibraryHeader header;
    header.title = title(filter);
    header.countText = QStringLiteral("В коллекции: %1").arg(visible.size());
    header.downloadedText = QStringLiteral("%1 загружено").arg(filterCount(visible, TorrentFilter::completed));
    if (!selected.isEmpty()) {
        header.selectionText = QStringLiteral("Выбрано: %1").arg(selected.size());
        header.resumeTitle = resumeTitle(selected) + QStringLiteral(" выбранные");
        header.selectionHelp = QStringLiteral("Действия с выбранными: %1").arg(selected.size());
    }
    return header;
}

EmptyState emptyState(int engineCount, int visibleCount)
{
    if (engineCount == 0)
        return EmptyState::emptyLibrary;
    return visibleCount == 0 ? EmptyState::noMatches : EmptyState::none;
}

std::optional<QString> featuredTorrent(const QList<TorrentStatus> &visible, const QSet<QString> &selection,
                                       LibraryLayout layout, const QString &search, bool showDetails)
{
    if (layout != LibraryLayout::grid || !normalizedSearch(search).isEmpty() || showDetails)
        return std::nullopt;
    std::optional<QString> firstVideo;
    for (const TorrentStatus &t : visible) {
        if (MediaPresentation(t.name).kind != MediaKind::video)
            continue;
        if (selection.contains(t.id))
            return t.id;
        if (!firstVideo)
            firstVideo = t.id;
    }
    return firstVideo;
}

QString featuredLabel(const TorrentStatus &t)
{
    if (t.isChecking())
        return QStringLiteral("ПРОВЕРКА ФАЙЛОВ");
    if (t.finished || t.seeding)
        return QStringLiteral("В ВАШЕЙ МЕДИАТЕКЕ");
    return QStringLiteral("СЕЙЧАС В ЗАГРУЗКЕ");
}

namespace {

MenuItem entry(const QString &text, const QString &command, const QString &submenu = QString())
{
    return MenuItem{text, command, submenu, false, false};
}

} // namespace

QList<MenuItem> contextMenuItems(const QList<TorrentStatus> &statuses)
{
    const bool one = statuses.size() == 1;
    QList<MenuItem> items;
    if (one) {
        items << entry(QStringLiteral("Открыть"), QStringLiteral("open"))
              << entry(QStringLiteral("Файлы и сведения"), QStringLiteral("details"));
    }
    items << entry(resumeTitle(statuses), QStringLiteral("resume"))
          << entry(QStringLiteral("Пауза"), QStringLiteral("pause"))
          << entry(QStringLiteral("Принудительный старт"), QStringLiteral("force_start"));
    if (one) {
        const bool sequential = statuses.constFirst().sequential;
        items << MenuItem{QStringLiteral("Последовательная загрузка"),
                          sequential ? QStringLiteral("sequential_off") : QStringLiteral("sequential_on"), QString(),
                          true, sequential}
              << entry(QStringLiteral("Ограничения…"), QStringLiteral("limits"))
              << entry(QStringLiteral("Переместить…"), QStringLiteral("move"))
              << entry(QStringLiteral("Показать в папке"), QStringLiteral("reveal"));
    }
    items << entry(QStringLiteral("Проверить файлы"), QStringLiteral("recheck"))
          << entry(QStringLiteral("Обновить трекеры"), QStringLiteral("reannounce"));
    const QString queue = QStringLiteral("Очередь");
    items << entry(QStringLiteral("Наверх"), QStringLiteral("queue_top"), queue)
          << entry(QStringLiteral("Выше"), QStringLiteral("queue_up"), queue)
          << entry(QStringLiteral("Ниже"), QStringLiteral("queue_down"), queue)
          << entry(QStringLiteral("Вниз"), QStringLiteral("queue_bottom"), queue);
    items << entry(QStringLiteral("Удалить…"), QStringLiteral("remove"));
    return items;
}

QString removalTitle(const QStringList &ids, const QList<TorrentStatus> &torrents)
{
    if (ids.size() == 1) {
        const QString &id = ids.constFirst();
        const auto found = std::find_if(torrents.begin(), torrents.end(),
                                        [&id](const TorrentStatus &t) { return t.id == id; });
        // A torrent gone since the dialog opened still needs words; its id is all there is.
        const QString name = found != torrents.end() ? found->name : id;
        return QStringLiteral("Удалить «") + name + QStringLiteral("»?");
    }
    return QStringLiteral("Удалить торренты: %1?").arg(ids.size());
}

TransferSums transferSums(const QList<TorrentStatus> &torrents)
{
    TransferSums sums;
    for (const TorrentStatus &t : torrents) {
        sums.downloadRate += t.downloadRate;
        sums.uploadRate += t.uploadRate;
        sums.peers += t.peers;
        if (passesFilter(t, TorrentFilter::downloading)) {
            ++sums.downloading;
            sums.remaining += std::max<qint64>(0, t.wanted - t.wantedDone);
        }
    }
    if (sums.remaining > 0 && sums.downloadRate >= 1)
        sums.secondsLeft = static_cast<double>(sums.remaining) / static_cast<double>(sums.downloadRate);
    return sums;
}

namespace {

// "TCP 127.0.0.1:6881" -> "127.0.0.1:6881"; IPv6 addresses come without brackets.
QString addressOf(const QString &entry)
{
    const qsizetype space = entry.indexOf(QLatin1Char(' '));
    QString address = space >= 0 ? entry.mid(space + 1) : entry;
    if (address.startsWith(QLatin1Char('[')))
        address.remove(0, 1);
    return address;
}

} // namespace

QStringList listenSummary(const QStringList &listening)
{
    QStringList shown;
    for (const QString &entry : listening) {
        const QString address = addressOf(entry).toLower();
        if (address.startsWith(QLatin1String("127.")) || address.startsWith(QLatin1String("fe80"))
            || address.startsWith(QLatin1String("198.18.")))
            continue;
        if (!shown.contains(entry))
            shown << entry;
    }
    return shown;
}

QString portText(const QStringList &listening)
{
    for (const QString &entry : listening) {
        const qsizetype colon = entry.lastIndexOf(QLatin1Char(':'));
        bool valid = false;
        const int port = colon >= 0 ? entry.mid(colon + 1).toInt(&valid) : 0;
        if (valid && port > 0)
            return QStringLiteral("Порт: %1").arg(port);
    }
    return QStringLiteral("Порт: —");
}

QString kindLine(MediaKind kind)
{
    switch (kind) {
    case MediaKind::text:
        return QStringLiteral("Документ");
    case MediaKind::image:
        return QStringLiteral("Изображения");
    default:
        return QString();
    }
}

QString kindSymbol(MediaKind kind)
{
    switch (kind) {
    case MediaKind::video:
        return QString();
    case MediaKind::audio:
        return QStringLiteral("waveform");
    case MediaKind::subtitle:
        return QStringLiteral("captions.bubble");
    case MediaKind::image:
        return QStringLiteral("photo");
    case MediaKind::text:
        return QStringLiteral("doc.text");
    case MediaKind::archive:
        return QStringLiteral("doc.zipper");
    case MediaKind::other:
        break;
    }
    return QStringLiteral("film");
}

bool pauseButtonResumes(const TorrentStatus &t)
{
    // A queued torrent is paused only by the queue: the button pauses it for good, as the
    // engine's toggle does.
    return t.state == QLatin1String("missing") || (t.paused && !t.autoManaged);
}

QString pauseButtonHelp(const TorrentStatus &t)
{
    if (pauseButtonResumes(t))
        return resumeTitle({t}) + QStringLiteral(" загрузку");
    return QStringLiteral("Приостановить загрузку");
}

std::optional<TorrentFile> playTarget(const QList<TorrentFile> &videos, std::optional<int> lastPlayedFile)
{
    if (videos.isEmpty())
        return std::nullopt;
    if (lastPlayedFile) {
        for (const TorrentFile &f : videos) {
            if (f.i == *lastPlayedFile)
                return f;
        }
    }
    for (const TorrentFile &f : videos) {
        if (f.prio > 0)
            return f;
    }
    return videos.constFirst();
}
