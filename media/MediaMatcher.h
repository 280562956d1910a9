#pragma once

#include "media/ExternalTrack.h"
#include "media/TorrentFile.h"

#include <QList>
#include <QString>

#include <optional>

// What a torrent's file names say about its media: which files are playable videos, in which
// order a series is watched, and which outside audio and subtitle files belong to a video.
// Names only, no file is opened. Pure functions: any thread may call them, and nothing is
// cached, so next/previous/externalTracks recompute the video list on each call (they are
// asked on events, not per frame).
namespace MediaMatcher {

// Season 0 means the name states no season.
struct EpisodeNumber {
    int season = 0;
    int episode = 0;

    bool operator==(const EpisodeNumber &) const = default;
};

struct ExternalTracks {
    QList<ExternalTrack> audio;
    QList<ExternalTrack> subtitles;

    bool operator==(const ExternalTracks &) const = default;
};

// The playable videos in watching order: not padding, a video extension, no "sample" in the
// file name. Folders come in natural order; inside a folder the files go by season and
// episode when every file has a distinct number, and by natural name order otherwise.
QList<TorrentFile> videos(const QList<TorrentFile> &files);

// The video after (before) `file` in watching order, across folders; absent at either end or
// when `file` is not one of the videos. Neither wraps around.
std::optional<TorrentFile> next(const TorrentFile &file, const QList<TorrentFile> &files);
std::optional<TorrentFile> previous(const TorrentFile &file, const QList<TorrentFile> &files);

// The audio and subtitle files that belong to `video`, each list sorted by title. A file
// belongs when its name starts with the video's name, when both carry the same s..e.. key, or
// when the torrent has only one video.
ExternalTracks externalTracks(const TorrentFile &video, const QList<TorrentFile> &files);

// Season and episode read from a file name ("Show.S01E05.mkv", "1x05", "Серия 12", a bare
// "07" after release noise is stripped); absent when the name holds no usable number.
std::optional<EpisodeNumber> episodeNumber(const QString &fileName);

// "s1e5" for a name holding S01E05 and the like; the key that pairs outside tracks with a
// video whatever else their names say. Absent without such a marker.
std::optional<QString> episodeKey(const QString &fileName);

// The menu label of an outside track: the nearest folder that says something (not "Rus Sound",
// "Subs", ...), what the name adds to the video's name, and the format, as
// "Studio · Rus.Dub · MKA". `videoStem` is the video's lower-cased file name without extension.
QString title(const TorrentFile &file, const QString &videoStem);

// The language a path names, as a three-letter code ("rus", "eng", ...), looking at every
// word of the path, folders included. When a path names several languages the order
// rus, eng, ukr, jpn, chi, ger, fre, spa, kor decides, not where the words stand.
std::optional<QString> language(const TorrentFile &file);

} // namespace MediaMatcher
