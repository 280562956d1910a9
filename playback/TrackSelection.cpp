#include "playback/TrackSelection.h"

#include "core/PathText.h"
#include "media/Format.h"
#include "playback/StreamAddress.h"

namespace TrackSelection {

namespace {

QList<MediaTrack> ofKind(const QList<MediaTrack> &tracks, MediaTrack::Kind kind)
{
    QList<MediaTrack> result;
    for (const MediaTrack &track : tracks) {
        if (track.kind == kind)
            result.append(track);
    }
    return result;
}

// Language lists hold lower-case tokens, and the comparison is exact: "rus" is not "ru".
bool listed(const std::optional<QString> &language, const QStringList &languages)
{
    return language && languages.contains(language->toLower());
}

std::optional<ExternalTrack> entryTitled(const QList<ExternalTrack> &entries, const std::optional<QString> &title)
{
    if (!title)
        return std::nullopt;
    for (const ExternalTrack &entry : entries) {
        if (entry.title == *title)
            return entry;
    }
    return std::nullopt;
}

// Whether libmpv already lists a track loaded from this file of the torrent.
bool isLoaded(const ExternalTrack &entry, const QString &torrentId, const QList<MediaTrack> &tracks)
{
    const QString address = streamAddress(torrentId, entry.file.i);
    for (const MediaTrack &track : tracks) {
        if (track.externalFile == address)
            return true;
    }
    return false;
}

QList<TrackOption> options(const QString &prefix, const QString &torrentId, const QList<MediaTrack> &tracks,
                           MediaTrack::Kind kind, const QList<ExternalTrack> &externals)
{
    QList<TrackOption> rows;
    int number = 0;
    for (const MediaTrack &track : tracks) {
        if (track.kind != kind)
            continue;
        ++number;
        rows.append({prefix + QString::number(track.id), label(track, number), detail(track), track.selected,
                     TrackOption::Track{track.id}});
    }
    for (const ExternalTrack &entry : externals) {
        if (isLoaded(entry, torrentId, tracks))
            continue;
        rows.append({QStringLiteral("x") + QString::number(entry.file.i), entry.title, Format::language(entry.language),
                     false, entry});
    }
    return rows;
}

Pick audioPick(const QList<MediaTrack> &audioTracks, const QList<ExternalTrack> &externalAudio,
               const Preferences &preferences, std::optional<QString> &language)
{
    if (const auto &choice = preferences.audio) {
        if (choice->externalName) {
            if (const auto entry = entryTitled(externalAudio, choice->externalName)) {
                language = entry->language;
                return Pick::add(*entry);
            }
        }
        if (!choice->off) {
            if (const auto track = match(audioTracks, *choice)) {
                language = track->language;
                return Pick::set(track->id);
            }
        }
    }
    if (listed(language, preferences.audioLanguages))
        return Pick::keep();
    std::optional<MediaTrack> candidate;
    for (const MediaTrack &track : audioTracks) {
        if (!listed(track.language, preferences.audioLanguages))
            continue;
        if (!candidate)
            candidate = track;
        if (track.isDefault) {
            candidate = track;
            break;
        }
    }
    if (candidate) {
        language = candidate->language;
        return Pick::set(candidate->id);
    }
    for (const ExternalTrack &entry : externalAudio) {
        if (listed(entry.language, preferences.audioLanguages)) {
            language = entry.language;
            return Pick::add(entry);
        }
    }
    return Pick::keep();
}

Pick rememberedSubtitlePick(const QList<MediaTrack> &subTracks, const QList<ExternalTrack> &externalSubtitles,
                            const TrackChoice &choice)
{
    if (choice.off)
        return Pick::set(QStringLiteral("no"));
    if (const auto entry = entryTitled(externalSubtitles, choice.externalName))
        return Pick::add(*entry);
    if (const auto track = match(subTracks, choice))
        return Pick::set(track->id);
    return Pick::keep();
}

Pick subtitlePick(const QList<MediaTrack> &audioTracks, const QList<MediaTrack> &subTracks,
                  const QList<ExternalTrack> &externalSubtitles, const Preferences &preferences,
                  const std::optional<QString> &audioLanguage)
{
    if (preferences.subtitle)
        return rememberedSubtitlePick(subTracks, externalSubtitles, *preferences.subtitle);

    QList<MediaTrack> preferred;
    for (const MediaTrack &track : subTracks) {
        if (listed(track.language, preferences.subtitleLanguages))
            preferred.append(track);
    }
    const auto show = [&] {
        for (const MediaTrack &track : preferred) {
            if (!track.forced)
                return Pick::set(track.id);
        }
        if (!preferred.isEmpty())
            return Pick::set(preferred.first().id);
        for (const ExternalTrack &entry : externalSubtitles) {
            if (listed(entry.language, preferences.subtitleLanguages))
                return Pick::add(entry);
        }
        return Pick::keep();
    };
    const auto forcedOnly = [&] {
        for (const MediaTrack &track : preferred) {
            if (track.forced)
                return Pick::set(track.id);
        }
        return Pick::set(QStringLiteral("no"));
    };

    switch (preferences.subtitleMode) {
    case SubtitleMode::Never:
        return Pick::set(QStringLiteral("no"));
    case SubtitleMode::Always:
        return show();
    case SubtitleMode::Auto:
        break;
    }
    // Sound in a language the user listed needs no subtitles but forced ones; any other sound
    // does. With no language known, several audio tracks mean the listed one is missing.
    if (!audioLanguage) {
        if (preferences.audioLanguages.isEmpty() || audioTracks.size() > 1)
            return show();
        return forcedOnly();
    }
    return listed(audioLanguage, preferences.audioLanguages) ? forcedOnly() : show();
}

} // namespace

Preferences Preferences::from(const AppSettings &settings, const std::optional<TorrentMeta> &meta)
{
    Preferences preferences;
    preferences.audioLanguages = AppSettings::split(settings.audioLanguages);
    preferences.subtitleLanguages = AppSettings::split(settings.subtitleLanguages);
    preferences.subtitleMode = settings.subtitleMode;
    if (settings.rememberTracks && meta) {
        preferences.audio = meta->audio;
        preferences.subtitle = meta->subtitle;
    }
    return preferences;
}

Picks autoSelect(const QList<MediaTrack> &tracks, const QList<ExternalTrack> &externalAudio,
                 const QList<ExternalTrack> &externalSubtitles, const Preferences &preferences)
{
    const QList<MediaTrack> audioTracks = ofKind(tracks, MediaTrack::Kind::Audio);
    const QList<MediaTrack> subTracks = ofKind(tracks, MediaTrack::Kind::Sub);
    // The language the sound will be in once the audio pick is carried out; it decides whether
    // subtitles are wanted.
    std::optional<QString> language;
    if (const auto audio = current(tracks, MediaTrack::Kind::Audio))
        language = audio->language;
    Picks picks;
    picks.audio = audioPick(audioTracks, externalAudio, preferences, language);
    picks.subtitle = subtitlePick(audioTracks, subTracks, externalSubtitles, preferences, language);
    return picks;
}

std::optional<MediaTrack> match(const QList<MediaTrack> &candidates, const TrackChoice &choice)
{
    for (const MediaTrack &track : candidates) {
        if (track.language == choice.language && track.title && track.title == choice.title)
            return track;
    }
    for (const MediaTrack &track : candidates) {
        if (track.language && track.language == choice.language)
            return track;
    }
    return std::nullopt;
}

std::optional<MediaTrack> current(const QList<MediaTrack> &tracks, MediaTrack::Kind kind)
{
    for (const MediaTrack &track : tracks) {
        if (track.kind == kind && track.selected)
            return track;
    }
    return std::nullopt;
}

QString label(const MediaTrack &track, int number)
{
    QStringList parts;
    if (const auto name = Format::language(track.language))
        parts.append(*name);
    if (track.title && !track.title->isEmpty()
        && (parts.isEmpty() || track.title->toLower() != parts.first().toLower()))
        parts.append(*track.title);
    if (parts.isEmpty()) {
        if (track.external && track.externalFile)
            parts.append(PathText::lastPathComponent(*track.externalFile));
        else
            parts.append(QStringLiteral("Дорожка ") + QString::number(number));
    }
    return parts.join(QStringLiteral(" — "));
}

std::optional<QString> detail(const MediaTrack &track)
{
    QStringList parts;
    if (track.codec)
        parts.append(track.codec->toUpper());
    if (track.channels && *track.channels >= 1) {
        switch (*track.channels) {
        case 1: parts.append(QStringLiteral("моно")); break;
        case 2: parts.append(QStringLiteral("стерео")); break;
        case 6: parts.append(QStringLiteral("5.1")); break;
        case 8: parts.append(QStringLiteral("7.1")); break;
        default: parts.append(QString::number(*track.channels) + QStringLiteral(" кан.")); break;
        }
    }
    if (track.forced)
        parts.append(QStringLiteral("форсированные"));
    if (track.external)
        parts.append(QStringLiteral("внешняя"));
    if (parts.isEmpty())
        return std::nullopt;
    return parts.join(QStringLiteral(" · "));
}

QList<TrackOption> audioOptions(const QString &torrentId, const QList<MediaTrack> &tracks,
                                const QList<ExternalTrack> &externalAudio)
{
    return options(QStringLiteral("a"), torrentId, tracks, MediaTrack::Kind::Audio, externalAudio);
}

QList<TrackOption> subtitleOptions(const QString &torrentId, const QList<MediaTrack> &tracks,
                                   const QList<ExternalTrack> &externalSubtitles, bool loaded)
{
    // While the file is still loading nothing is known to be on or off.
    const bool off = loaded && !current(tracks, MediaTrack::Kind::Sub);
    QList<TrackOption> rows{{QStringLiteral("off"), QStringLiteral("Выключены"), std::nullopt, off, TrackOption::Off{}}};
    rows.append(options(QStringLiteral("s"), torrentId, tracks, MediaTrack::Kind::Sub, externalSubtitles));
    return rows;
}

TrackChoice remembered(const TrackOption::Source &source, MediaTrack::Kind kind, const QString &torrentId,
                       const QList<MediaTrack> &tracks, const QList<ExternalTrack> &externals)
{
    TrackChoice choice;
    if (const auto *chosen = std::get_if<TrackOption::Track>(&source)) {
        for (const MediaTrack &track : tracks) {
            if (track.id != chosen->id || track.kind != kind)
                continue;
            choice.language = track.language;
            choice.title = track.title;
            // A loaded track file is remembered by the title of its file, which the next
            // episode's file of the same dub shares.
            if (track.external) {
                for (const ExternalTrack &entry : externals) {
                    if (track.externalFile == streamAddress(torrentId, entry.file.i)) {
                        choice.externalName = entry.title;
                        break;
                    }
                }
            }
            break;
        }
    } else if (const auto *entry = std::get_if<ExternalTrack>(&source)) {
        choice.language = entry->language;
        choice.title = entry->title;
        choice.externalName = entry->title;
    } else {
        choice.off = true;
    }
    return choice;
}

std::optional<qsizetype> cycleTarget(const QList<TrackOption> &options)
{
    if (options.isEmpty())
        return std::nullopt;
    qsizetype selected = -1;
    for (qsizetype i = 0; i < options.size(); ++i) {
        if (options.at(i).selected) {
            selected = i;
            break;
        }
    }
    return (selected + 1) % options.size();
}

} // namespace TrackSelection
