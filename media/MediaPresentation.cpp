#include "media/MediaPresentation.h"

#include "core/PathText.h"
#include "media/NameText.h"

#include <QRegularExpression>
#include <QStringList>

#include <initializer_list>

namespace {

QRegularExpression compiled(const char *pattern)
{
    // Unicode properties so that a Cyrillic letter counts as part of a word next to a marker.
    QRegularExpression expression(QString::fromUtf8(pattern),
                                  QRegularExpression::UseUnicodePropertiesOption);
    if (!expression.isValid())
        qFatal("MediaPresentation: bad pattern %s: %s", pattern,
               qPrintable(expression.errorString()));
    expression.optimize();
    return expression;
}

struct Patterns {
    QRegularExpression year = compiled(R"((?<!\d)(?:19|20)\d{2}(?!\d))");
    QRegularExpression quality = compiled(R"((?i)(?<!\w)(2160p|1080p|1080i|720p|480p|4k)(?!\w))");
    QRegularExpression episode = compiled(R"((?i)(?<!\w)S(\d{1,2})(?:[ ._-]?E(\d{1,3}))?(?!\d))");
    QRegularExpression release = compiled(
        R"((?i)(?<!\w)(WEB[ ._-]?(?:DL|Rip)|Blu[ ._-]?Ray|BDRip|HDRip|DVDRip|HDTV|REMUX|HEVC)"
        R"(|x26[45]|H[ .]?26[45])(?!\w))");
};

const Patterns &patterns()
{
    static const Patterns instance;
    return instance;
}

int numberOrOne(const QString &digits)
{
    bool ok = false;
    const int value = digits.toInt(&ok);
    return ok ? value : 1;
}

} // namespace

MediaPresentation::MediaPresentation(const QString &name)
{
    const Patterns &p = patterns();
    const MediaKind fileKind = mediaKindForPath(name);
    // A release name with dots must not lose its last word to a false extension: only a
    // known extension is cut off.
    const QString stem =
        fileKind == MediaKind::other ? name : PathText::stringByDeletingPathExtension(name);
    QString text = stem;
    text.replace(u'.', u' ').replace(u'_', u' ');

    // A year at the very start belongs to the title, as in a film named for a year.
    QRegularExpressionMatch yearMatch;
    QRegularExpressionMatchIterator years = p.year.globalMatch(text);
    while (years.hasNext()) {
        const QRegularExpressionMatch candidate = years.next();
        if (candidate.capturedStart() != 0) {
            yearMatch = candidate;
            break;
        }
    }
    const QRegularExpressionMatch qualityMatch = p.quality.match(text);
    const QRegularExpressionMatch episodeMatch = p.episode.match(text);
    const QRegularExpressionMatch releaseMatch = p.release.match(text);

    if (yearMatch.hasMatch())
        year = yearMatch.captured();

    if (qualityMatch.hasMatch()) {
        const QString found = qualityMatch.captured();
        quality = found.compare(QLatin1String("2160p"), Qt::CaseInsensitive) == 0
            ? QStringLiteral("4K")
            : found.toUpper().replace(u'P', u'p');
    }

    if (episodeMatch.hasMatch()) {
        // Through an integer, so "S01E007" reads "Сезон 1 · Серия 7".
        QString words = QStringLiteral("Сезон ") + QString::number(numberOrOne(episodeMatch.captured(1)));
        if (episodeMatch.hasCaptured(2)) {
            words += QStringLiteral(" · Серия ")
                + QString::number(numberOrOne(episodeMatch.captured(2)));
        }
        episode = words;
    }

    // A year alone doesn't make a video: albums and books carry years too.
    if (fileKind != MediaKind::other)
        kind = fileKind;
    else if (qualityMatch.hasMatch() || episodeMatch.hasMatch() || releaseMatch.hasMatch())
        kind = MediaKind::video;

    qsizetype cut = -1;
    const std::initializer_list<const QRegularExpressionMatch *> markers{
        &yearMatch, &qualityMatch, &episodeMatch, &releaseMatch};
    for (const QRegularExpressionMatch *match : markers) {
        const qsizetype start = match->hasMatch() ? match->capturedStart() : -1;
        if (start > 0 && (cut < 0 || start < cut))
            cut = start;
    }
    if (kind != MediaKind::video) {
        title = stem;
    } else if (cut > 0) {
        title = NameText::trimmed(text.left(cut), u" -[]()");
        if (title.isEmpty())
            title = stem;
    } else {
        title = text.trimmed();
    }
}

QString MediaPresentation::subtitle() const
{
    QStringList parts;
    for (const std::optional<QString> *part : {&year, &episode, &quality}) {
        if (*part)
            parts.append(**part);
    }
    return parts.join(QStringLiteral(" · "));
}
