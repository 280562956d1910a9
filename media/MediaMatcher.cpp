#include "media/MediaMatcher.h"

#include "core/NaturalCompare.h"
#include "core/PathText.h"
#include "media/MediaKind.h"
#include "media/NameText.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>
#include <QStringList>

#include <algorithm>
#include <array>

namespace MediaMatcher {

namespace {

// The patterns are constants: one that does not compile is a programming error. Unicode
// properties make \d, \w and case folding cover Cyrillic the way names are written.
QRegularExpression compiled(const char *pattern, bool caseInsensitive = true)
{
    QRegularExpression::PatternOptions options = QRegularExpression::UseUnicodePropertiesOption;
    if (caseInsensitive)
        options |= QRegularExpression::CaseInsensitiveOption;
    QRegularExpression expression(QString::fromUtf8(pattern), options);
    if (!expression.isValid())
        qFatal("MediaMatcher: bad pattern %s: %s", pattern,
               qPrintable(expression.errorString()));
    expression.optimize();
    return expression;
}

struct Patterns {
    // Pairs outside tracks with a video: one separator at most, three digits.
    QRegularExpression episode = compiled(R"(s(\d{1,2})[ ._-]?e(\d{1,3}))");
    // Order episodes; looser than `episode` on purpose, it only has to find a number.
    std::array<QRegularExpression, 2> explicitNumbers{
        compiled(R"(s(\d{1,2})[ ._-]*e(\d{1,4}))"),
        // "1x05", but not the tail of "105x2".
        compiled(R"((?<![a-z0-9])(\d{1,2})x(\d{1,3})(?![0-9]))"),
    };
    // "Серия 12", "Episode 3", "ep.3", "E07"; a letter just before it ("Movie12") is a word.
    QRegularExpression episodeWord =
        compiled(R"((?<![a-zа-яё])(?:серия|серии|эпизод|episode|ep|e)[ ._#-]*(\d{1,4})(?![0-9]))");
    // Resolutions, codecs, years, bit depths, channel layouts and rates: numbers that are
    // never the episode.
    QRegularExpression noise = compiled(
        R"((?:\d{3,4}[pi])|(?:[xh][ .]?26[45])|(?:(?:19|20)\d{2})|(?:\d{1,2}[ .]?bit))"
        R"(|(?:\d\.\d)|(?:\d{1,3}(?:fps|kbps|mbps|ch)))");
    QRegularExpression bareNumber = compiled(R"((?<![0-9])(\d{1,4})(?![0-9]))", false);
};

const Patterns &patterns()
{
    static const Patterns instance;
    return instance;
}

// Folder names that say nothing about which track a file is.
const QSet<QString> &ignoredFolders()
{
    static const QSet<QString> names{
        QStringLiteral("rus sound"), QStringLiteral("rus sounds"), QStringLiteral("sound"),
        QStringLiteral("sounds"),    QStringLiteral("audio"),      QStringLiteral("audios"),
        QStringLiteral("rus subs"),  QStringLiteral("subs"),       QStringLiteral("subtitles"),
        QStringLiteral("sub"),       QStringLiteral("eng subs"),   QStringLiteral("eng sound"),
        QStringLiteral("озвучка"),   QStringLiteral("звук"),       QStringLiteral("субтитры"),
        QStringLiteral("rus"),       QStringLiteral("eng"),
    };
    return names;
}

struct LanguageRow {
    QString code;
    QSet<QString> aliases;
};

// The order of the rows decides when a path names more than one language.
const QList<LanguageRow> &languageTokens()
{
    static const QList<LanguageRow> rows{
        {QStringLiteral("rus"),
         {QStringLiteral("rus"), QStringLiteral("ru"), QStringLiteral("russian"),
          QStringLiteral("рус"), QStringLiteral("русский"), QStringLiteral("русские")}},
        {QStringLiteral("eng"),
         {QStringLiteral("eng"), QStringLiteral("en"), QStringLiteral("english"),
          QStringLiteral("англ"), QStringLiteral("английский")}},
        {QStringLiteral("ukr"),
         {QStringLiteral("ukr"), QStringLiteral("ua"), QStringLiteral("uk"),
          QStringLiteral("ukrainian"), QStringLiteral("укр")}},
        {QStringLiteral("jpn"),
         {QStringLiteral("jpn"), QStringLiteral("jap"), QStringLiteral("ja"),
          QStringLiteral("japanese")}},
        {QStringLiteral("chi"),
         {QStringLiteral("chi"), QStringLiteral("chs"), QStringLiteral("cht"),
          QStringLiteral("zh"), QStringLiteral("chinese"), QStringLiteral("zho")}},
        {QStringLiteral("ger"),
         {QStringLiteral("ger"), QStringLiteral("deu"), QStringLiteral("de"),
          QStringLiteral("german")}},
        {QStringLiteral("fre"),
         {QStringLiteral("fre"), QStringLiteral("fra"), QStringLiteral("fr"),
          QStringLiteral("french")}},
        {QStringLiteral("spa"),
         {QStringLiteral("spa"), QStringLiteral("es"), QStringLiteral("spanish")}},
        {QStringLiteral("kor"),
         {QStringLiteral("kor"), QStringLiteral("ko"), QStringLiteral("korean")}},
    };
    return rows;
}

std::optional<int> parsedInt(const QString &digits)
{
    bool ok = false;
    const int value = digits.toInt(&ok);
    return ok ? std::optional<int>(value) : std::nullopt;
}

QString lowerStem(const QString &path)
{
    return PathText::stringByDeletingPathExtension(PathText::lastPathComponent(path)).toLower();
}

bool isVideo(const TorrentFile &file)
{
    return !file.pad && mediaKindForPath(file.path) == MediaKind::video
        && !PathText::lastPathComponent(file.path).toLower().contains(u"sample");
}

std::optional<TorrentFile> neighbour(const TorrentFile &file, const QList<TorrentFile> &files,
                                     int step)
{
    const QList<TorrentFile> list = videos(files);
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&](const TorrentFile &video) { return video.i == file.i; });
    if (found == list.end())
        return std::nullopt;
    const qsizetype at = std::distance(list.begin(), found) + step;
    if (at < 0 || at >= list.size())
        return std::nullopt;
    return list.at(at);
}

} // namespace

std::optional<EpisodeNumber> episodeNumber(const QString &fileName)
{
    const Patterns &p = patterns();
    const QString stem = PathText::stringByDeletingPathExtension(fileName);

    for (const QRegularExpression &pattern : p.explicitNumbers) {
        const QRegularExpressionMatch match = pattern.match(stem);
        if (!match.hasMatch())
            continue;
        const std::optional<int> season = parsedInt(match.captured(1));
        const std::optional<int> episode = parsedInt(match.captured(2));
        if (season && episode)
            return EpisodeNumber{*season, *episode};
    }

    const QRegularExpressionMatch word = p.episodeWord.match(stem);
    if (word.hasMatch()) {
        if (const std::optional<int> episode = parsedInt(word.captured(1)))
            return EpisodeNumber{0, *episode};
    }

    // The last number, not the first: in "Show 2 - 05" the 2 belongs to the title.
    QString quiet = stem;
    quiet.replace(p.noise, QStringLiteral(" "));
    QRegularExpressionMatch last;
    QRegularExpressionMatchIterator numbers = p.bareNumber.globalMatch(quiet);
    while (numbers.hasNext())
        last = numbers.next();
    if (last.hasMatch()) {
        if (const std::optional<int> episode = parsedInt(last.captured(1)))
            return EpisodeNumber{0, *episode};
    }
    return std::nullopt;
}

std::optional<QString> episodeKey(const QString &fileName)
{
    const QRegularExpressionMatch match = patterns().episode.match(fileName);
    if (!match.hasMatch() || !match.hasCaptured(1) || !match.hasCaptured(2))
        return std::nullopt;
    return QStringLiteral("s") + QString::number(parsedInt(match.captured(1)).value_or(0))
        + QStringLiteral("e") + QString::number(parsedInt(match.captured(2)).value_or(0));
}

QList<TorrentFile> videos(const QList<TorrentFile> &files)
{
    struct Entry {
        TorrentFile file;
        QString folder;
        QString name;
        std::optional<EpisodeNumber> number;
    };
    QList<Entry> entries;
    for (const TorrentFile &file : files) {
        if (!isVideo(file))
            continue;
        const QString name = PathText::lastPathComponent(file.path);
        entries.append({file, PathText::stringByDeletingLastPathComponent(file.path), name,
                        episodeNumber(name)});
    }

    // A folder is ordered by number only when the numbers tell all its files apart; one file
    // without a number, or a number given twice, and names are the safer order.
    QHash<QString, bool> numbered;
    QHash<QString, QSet<QString>> seen;
    QHash<QString, qsizetype> firstSeen;
    for (const Entry &entry : entries) {
        if (!firstSeen.contains(entry.folder))
            firstSeen.insert(entry.folder, firstSeen.size());
        auto found = numbered.find(entry.folder);
        if (found == numbered.end())
            found = numbered.insert(entry.folder, true);
        bool &folderNumbered = found.value();
        if (!entry.number) {
            folderNumbered = false;
            continue;
        }
        const QString text = QString::number(entry.number->season) + u'-'
            + QString::number(entry.number->episode);
        QSet<QString> &texts = seen[entry.folder];
        if (texts.contains(text))
            folderNumbered = false;
        texts.insert(text);
    }

    std::stable_sort(entries.begin(), entries.end(), [&](const Entry &a, const Entry &b) {
        if (a.folder != b.folder) {
            const int byFolder = localizedStandardCompare(a.folder, b.folder);
            // Folders that collate the same ("Extras", "extras") keep the order they first
            // appear in, each whole: interleaved, their files would be compared across folders.
            if (byFolder != 0)
                return byFolder < 0;
            return firstSeen.value(a.folder) < firstSeen.value(b.folder);
        }
        if (numbered.value(a.folder)) {
            if (a.number->season != b.number->season)
                return a.number->season < b.number->season;
            return a.number->episode < b.number->episode;
        }
        return localizedStandardLess(a.name, b.name);
    });

    QList<TorrentFile> ordered;
    ordered.reserve(entries.size());
    for (const Entry &entry : entries)
        ordered.append(entry.file);
    return ordered;
}

std::optional<TorrentFile> next(const TorrentFile &file, const QList<TorrentFile> &files)
{
    return neighbour(file, files, 1);
}

std::optional<TorrentFile> previous(const TorrentFile &file, const QList<TorrentFile> &files)
{
    return neighbour(file, files, -1);
}

ExternalTracks externalTracks(const TorrentFile &video, const QList<TorrentFile> &files)
{
    const QString videoName = PathText::lastPathComponent(video.path);
    const QString videoStem = lowerStem(video.path);
    const std::optional<QString> videoKey = episodeKey(videoName);
    // With a single video every outside track can only be for it, whatever its name says.
    const bool onlyVideo = videos(files).size() == 1;

    ExternalTracks tracks;
    for (const TorrentFile &file : files) {
        if (file.pad)
            continue;
        const MediaKind kind = mediaKindForPath(file.path);
        if (kind != MediaKind::audio && kind != MediaKind::subtitle)
            continue;
        const QString stem = lowerStem(file.path);
        const bool belongs = stem == videoStem
            || (stem.size() > videoStem.size() && stem.startsWith(videoStem)
                && QStringView(u". _").contains(stem.at(videoStem.size())))
            || (videoKey && episodeKey(PathText::lastPathComponent(file.path)) == videoKey)
            || onlyVideo;
        if (!belongs)
            continue;
        ExternalTrack track{file, title(file, videoStem), language(file)};
        (kind == MediaKind::audio ? tracks.audio : tracks.subtitles).append(std::move(track));
    }

    const auto byTitle = [](const ExternalTrack &a, const ExternalTrack &b) {
        return localizedStandardLess(a.title, b.title);
    };
    std::stable_sort(tracks.audio.begin(), tracks.audio.end(), byTitle);
    std::stable_sort(tracks.subtitles.begin(), tracks.subtitles.end(), byTitle);
    return tracks;
}

QString title(const TorrentFile &file, const QString &videoStem)
{
    const QStringList components = file.path.split(u'/', Qt::SkipEmptyParts);
    const QString name = components.isEmpty() ? QString() : components.last();
    QStringList parts;

    // Folders between the torrent's root and the file, nearest first; one is enough to tell
    // two dubs apart, and "Rus Sound" and the like tell nothing.
    for (qsizetype n = components.size() - 2; n >= 1; --n) {
        if (!ignoredFolders().contains(components.at(n).toLower())) {
            parts.append(components.at(n));
            break;
        }
    }

    // What the track's name adds to the video's: "Show.S01E05.Rus.Dub.mka" beside
    // "Show.S01E05.mkv" is "Rus.Dub".
    const QString stem = PathText::stringByDeletingPathExtension(name).toLower();
    if (stem.size() > videoStem.size() && stem.startsWith(videoStem)) {
        const QString rest = PathText::stringByDeletingPathExtension(name.mid(videoStem.size()));
        const QString addition = NameText::trimmed(rest, u" ._-[]()");
        if (!addition.isEmpty())
            parts.append(addition);
    }

    if (parts.isEmpty())
        parts.append(PathText::stringByDeletingPathExtension(name));
    return parts.join(QStringLiteral(" · ")) + QStringLiteral(" · ")
        + PathText::pathExtension(name).toUpper();
}

std::optional<QString> language(const TorrentFile &file)
{
    const QStringList pieces = NameText::split(file.path.toLower(), u" ./_-[]()");
    for (const LanguageRow &row : languageTokens()) {
        for (const QString &piece : pieces) {
            if (row.aliases.contains(piece))
                return row.code;
        }
    }
    return std::nullopt;
}

} // namespace MediaMatcher
