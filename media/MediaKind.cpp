#include "media/MediaKind.h"

#include "core/PathText.h"

#include <array>
#include <initializer_list>

namespace {

struct KindRow {
    MediaKind kind;
    const char *name;
    std::initializer_list<const char *> extensions;
};

const std::array<KindRow, 7> &kindTable()
{
    static const std::array<KindRow, 7> table{{
        {MediaKind::video, "video",
         {"mkv", "mp4", "m4v", "mov", "avi", "wmv", "flv", "webm", "ts", "m2ts", "mts", "mpg",
          "mpeg", "vob", "ogv", "3gp", "rmvb", "rm", "divx", "f4v", "asf"}},
        {MediaKind::audio, "audio",
         {"mka", "mp3", "aac", "ac3", "eac3", "dts", "flac", "m4a", "ogg", "opus", "wav", "wma",
          "thd", "mlp", "ape", "wv", "dtshd"}},
        {MediaKind::subtitle, "subtitle",
         {"srt", "ass", "ssa", "vtt", "sub", "sup", "idx", "smi", "ttml", "lrc"}},
        {MediaKind::image, "image",
         {"jpg", "jpeg", "png", "gif", "webp", "bmp", "tif", "tiff", "heic"}},
        {MediaKind::text, "text",
         {"txt", "nfo", "pdf", "md", "log", "cue", "doc", "docx", "rtf"}},
        {MediaKind::archive, "archive", {"zip", "rar", "7z", "tar", "gz", "bz2", "xz", "iso"}},
        {MediaKind::other, "other", {}},
    }};
    return table;
}

} // namespace

MediaKind mediaKindForExtension(const QString &lowerCaseExtension)
{
    if (lowerCaseExtension.isEmpty())
        return MediaKind::other;
    for (const KindRow &row : kindTable()) {
        for (const char *extension : row.extensions) {
            if (lowerCaseExtension == QLatin1String(extension))
                return row.kind;
        }
    }
    return MediaKind::other;
}

MediaKind mediaKindForPath(const QString &path)
{
    return mediaKindForExtension(PathText::pathExtension(path).toLower());
}

QString mediaKindName(MediaKind kind)
{
    for (const KindRow &row : kindTable()) {
        if (row.kind == kind)
            return QString::fromLatin1(row.name);
    }
    return QStringLiteral("other");
}

std::optional<MediaKind> mediaKindFromName(const QString &name)
{
    for (const KindRow &row : kindTable()) {
        if (name == QLatin1String(row.name))
            return row.kind;
    }
    return std::nullopt;
}
