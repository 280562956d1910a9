#pragma once

#include "engine/AppSettings.h"
#include "engine/TorrentMeta.h"
#include "media/ExternalTrack.h"
#include "playback/MediaTrack.h"
#include "playback/TrackOption.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The rules that choose audio and subtitle tracks and build the track menus. Pure functions of
// the track list, the track files beside the video and the user's preferences; the player model
// carries out what they decide.
namespace TrackSelection {

// What the user wants of tracks when a file has loaded.
struct Preferences
{
    QStringList audioLanguages;    // lower-case tokens, in the user's order
    QStringList subtitleLanguages; // lower-case tokens
    SubtitleMode subtitleMode = SubtitleMode::Auto;
    // The user's last choices for this torrent; absent when none was made or choices are not
    // remembered.
    std::optional<TrackChoice> audio;
    std::optional<TrackChoice> subtitle;

    static Preferences from(const AppSettings &settings, const std::optional<TorrentMeta> &meta);
};

// What to do about one kind of track: leave libmpv's own choice, set "aid" or "sid", or load a
// track file from beside the video and select it.
struct Pick
{
    enum class Kind { Keep, Set, AddExternal };

    Kind kind = Kind::Keep;
    QString value; // Set: a track id, or "no"
    std::optional<ExternalTrack> external; // AddExternal

    static Pick keep() { return {}; }
    static Pick set(const QString &value) { return {Kind::Set, value, std::nullopt}; }
    static Pick set(int trackId) { return set(QString::number(trackId)); }
    static Pick add(const ExternalTrack &track) { return {Kind::AddExternal, QString(), track}; }

    bool operator==(const Pick &) const = default;
};

struct Picks
{
    Pick audio;
    Pick subtitle;

    bool operator==(const Picks &) const = default;
};

// The choice made once per load: remembered choices first, then the language lists, then the
// subtitle mode. A remembered "off" for audio is not honoured, since a film without sound is
// never what a user meant to keep.
Picks autoSelect(const QList<MediaTrack> &tracks, const QList<ExternalTrack> &externalAudio,
                 const QList<ExternalTrack> &externalSubtitles, const Preferences &preferences);

// The first track of `candidates` that fits a remembered choice: same language and same title
// first, then the same language alone. Ids are never compared; they differ from file to file.
std::optional<MediaTrack> match(const QList<MediaTrack> &candidates, const TrackChoice &choice);

// The selected track of a kind, if any.
std::optional<MediaTrack> current(const QList<MediaTrack> &tracks, MediaTrack::Kind kind);

// A menu label: the language name, then the title when it adds something, else the file name of
// a loaded track file or "Дорожка N", joined with " — ".
QString label(const MediaTrack &track, int number);
// Codec, channel layout, forced and external marks, joined with " · "; absent when none apply.
std::optional<QString> detail(const MediaTrack &track);

// The menus. Track files beside the video that libmpv has loaded appear once, as its tracks;
// the others as rows that load them. The subtitle menu starts with "Выключены", shown as chosen
// only once the file has loaded and no subtitle is on.
QList<TrackOption> audioOptions(const QString &torrentId, const QList<MediaTrack> &tracks,
                                const QList<ExternalTrack> &externalAudio);
QList<TrackOption> subtitleOptions(const QString &torrentId, const QList<MediaTrack> &tracks,
                                   const QList<ExternalTrack> &externalSubtitles, bool loaded);

// What to remember of a choice the user made from a menu of `kind`.
TrackChoice remembered(const TrackOption::Source &source, MediaTrack::Kind kind, const QString &torrentId,
                       const QList<MediaTrack> &tracks, const QList<ExternalTrack> &externals);

// The row a cycle steps to: the one after the first selected row, wrapping around; the first
// row when none is selected. Absent for an empty menu.
std::optional<qsizetype> cycleTarget(const QList<TrackOption> &options);

} // namespace TrackSelection
