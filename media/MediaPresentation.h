#pragma once

#include "media/MediaKind.h"

#include <QString>

#include <optional>

// What the library shows for a torrent or file name dense with release noise: a clean title
// and the year, quality and episode as separate facts. A value computed from the name alone,
// cheap enough to make anew wherever a card or row is drawn; any thread.
struct MediaPresentation {
    QString title;
    std::optional<QString> year;     // four digits
    std::optional<QString> quality;  // "1080p", "720p", "4K", ...
    std::optional<QString> episode;  // "Сезон 2 · Серия 5", or "Сезон 1" for a season pack
    MediaKind kind = MediaKind::other;

    MediaPresentation() = default;
    explicit MediaPresentation(const QString &name);

    // The present ones of year, episode and quality, in that order, joined with " · ";
    // empty when none is.
    QString subtitle() const;

    bool operator==(const MediaPresentation &) const = default;
};
