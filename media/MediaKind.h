#pragma once

#include <QString>

#include <optional>

// What a file is, judged by its extension alone. The order of the cases is also the order in
// which the extension lists are searched.
enum class MediaKind { video, audio, subtitle, image, text, archive, other };

// The kind of an extension given without its dot. The comparison is exact: callers lower-case
// the extension first, so "MKV" that was not lower-cased is `other`. "mka" is audio although it
// is a container, and "ts" is always video.
MediaKind mediaKindForExtension(const QString &lowerCaseExtension);

// The kind of a path, through its lower-cased extension.
MediaKind mediaKindForPath(const QString &path);

// "video", "audio", ... as the automation tools and saved state spell a kind.
QString mediaKindName(MediaKind kind);
std::optional<MediaKind> mediaKindFromName(const QString &name);
