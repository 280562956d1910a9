// The rules that pick audio and subtitle tracks and build the track menus, as tables.

#include "playback/StreamAddress.h"
#include "playback/TrackSelection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace TrackSelection;

namespace {

const QString Torrent = QStringLiteral("0123456789abcdef0123456789abcdef01234567");
const QStringList Rus{QStringLiteral("rus")};
const Pick Off = Pick::set(QStringLiteral("no"));
const Pick Keep = Pick::keep();

std::optional<QString> text(const char *value)
{
    return value ? std::optional<QString>(QString::fromUtf8(value)) : std::nullopt;
}

// A track; `marks` holds 's' for selected, 'd' for default, 'f' for forced.
MediaTrack track(MediaTrack::Kind kind, int id, const char *language, const char *title = nullptr,
                 const char *marks = "")
{
    MediaTrack t;
    t.kind = kind;
    t.id = id;
    t.language = text(language);
    t.title = text(title);
    t.selected = std::strchr(marks, 's');
    t.isDefault = std::strchr(marks, 'd');
    t.forced = std::strchr(marks, 'f');
    return t;
}
MediaTrack audio(int id, const char *language, const char *marks = "", const char *title = nullptr)
{
    return track(MediaTrack::Kind::Audio, id, language, title, marks);
}
MediaTrack sub(int id, const char *language, const char *marks = "", const char *title = nullptr)
{
    return track(MediaTrack::Kind::Sub, id, language, title, marks);
}
// A track libmpv loaded from a file of the torrent.
MediaTrack fromFile(MediaTrack t, int fileIndex)
{
    t.external = true;
    t.externalFile = streamAddress(Torrent, fileIndex);
    return t;
}

ExternalTrack entry(int fileIndex, const char *title, const char *language)
{
    ExternalTrack e;
    e.file.i = fileIndex;
    e.title = QString::fromUtf8(title);
    e.language = text(language);
    return e;
}

TrackChoice choice(const char *language, const char *title = nullptr, const char *externalName = nullptr)
{
    return {text(language), text(title), text(externalName), false};
}
const TrackChoice OffChoice{std::nullopt, std::nullopt, std::nullopt, true};

Preferences prefer(QStringList audioLanguages, QStringList subtitleLanguages = Rus, SubtitleMode mode = SubtitleMode::Auto,
                   std::optional<TrackChoice> audioChoice = {}, std::optional<TrackChoice> subtitleChoice = {})
{
    return {std::move(audioLanguages), std::move(subtitleLanguages), mode, std::move(audioChoice),
            std::move(subtitleChoice)};
}

struct Row
{
    const char *what;
    QList<MediaTrack> tracks;
    QList<ExternalTrack> externalAudio;
    QList<ExternalTrack> externalSubtitles;
    Preferences preferences;
    Picks expected;
};

void check(const std::vector<Row> &rows)
{
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const Picks picks = autoSelect(row.tracks, row.externalAudio, row.externalSubtitles, row.preferences);
        EXPECT_TRUE(picks.audio == row.expected.audio) << "audio " << picks.audio.value.toStdString();
        EXPECT_TRUE(picks.subtitle == row.expected.subtitle) << "subtitle " << picks.subtitle.value.toStdString();
    }
}

const ExternalTrack Studio = entry(7, "Studio · MKA", "rus");
const ExternalTrack EnglishDub = entry(5, "Eng · MKA", "eng");
const ExternalTrack EnglishText = entry(8, "eng · SRT", "eng");
const ExternalTrack RussianText = entry(9, "rus · SRT", "rus");

} // namespace

TEST(TrackSelectionTest, AudioFollowsTheRememberedChoiceThenTheLanguageList)
{
    const TrackChoice studio = choice("rus", "Studio · MKA", "Studio · MKA");
    check({
        {"a remembered track file loads again by its title; its language rules the subtitles",
         {audio(1, "eng", "s"), sub(3, "rus")}, {Studio}, {}, prefer(Rus, Rus, SubtitleMode::Auto, studio),
         {Pick::add(Studio), Off}},
        {"a remembered file that is gone falls back to its language inside the film",
         {audio(1, "eng", "s"), audio(2, "rus")}, {EnglishDub}, {}, prefer({}, Rus, SubtitleMode::Auto, studio),
         {Pick::set(2), Keep}},
        {"an untitled choice matches by language alone", {audio(1, "rus", "s"), audio(2, "eng")}, {}, {},
         prefer(Rus, Rus, SubtitleMode::Auto, choice("eng")), {Pick::set(2), Keep}},
        {"the title decides between tracks of one language",
         {audio(1, "rus", "s", "Dub"), audio(2, "rus", "", "Original")}, {}, {},
         prefer(Rus, Rus, SubtitleMode::Auto, choice("rus", "Original")), {Pick::set(2), Off}},
        {"a remembered off does not mute the film", {audio(1, "jpn", "s"), audio(2, "rus")}, {}, {},
         prefer(Rus, Rus, SubtitleMode::Auto, OffChoice), {Pick::set(2), Off}},
        {"libmpv's pick in a listed language stays", {audio(1, "eng", "s"), audio(2, "rus")}, {}, {},
         prefer({QStringLiteral("rus"), QStringLiteral("eng")}), {Keep, Off}},
        {"languages compare exactly: rus is not ru", {audio(1, "eng", "s"), audio(2, "rus")}, {}, {},
         prefer({QStringLiteral("ru")}, {QStringLiteral("ru")}), {Keep, Keep}},
        {"a default track wins among the listed ones, whatever its case",
         {audio(1, "jpn", "s"), audio(2, "rus"), audio(3, "RUS", "d")}, {}, {}, prefer(Rus),
         {Pick::set(3), Off}},
        {"a track file in a listed language when the film has none",
         {audio(1, "jpn", "s"), sub(2, "rus", "f"), sub(3, "rus")}, {EnglishDub, Studio}, {}, prefer(Rus),
         {Pick::add(Studio), Pick::set(2)}},
        {"empty lists change nothing", {audio(1, "jpn", "s"), sub(2, "rus")}, {Studio}, {}, prefer({}, {}),
         {Keep, Keep}},
    });
}

TEST(TrackSelectionTest, SubtitleModeWeighsTheSoundAgainstTheAudioList)
{
    // Each row has a forced and a full Russian subtitle: showing picks 11, forced only 10.
    const auto with = [](QList<MediaTrack> audioTracks) { return audioTracks << sub(10, "rus", "f") << sub(11, "rus"); };
    const Pick show = Pick::set(11);
    const Pick forcedOnly = Pick::set(10);
    check({
        {"never", with({audio(1, "eng", "s")}), {}, {}, prefer(Rus, Rus, SubtitleMode::Never), {Keep, Off}},
        {"always, over listed sound", with({audio(1, "rus", "s")}), {}, {}, prefer(Rus, Rus, SubtitleMode::Always),
         {Keep, show}},
        {"unknown sound, no audio list", with({audio(1, nullptr, "s")}), {}, {}, prefer({}), {Keep, show}},
        {"unknown sound among several tracks", with({audio(1, nullptr, "s"), audio(2, nullptr)}), {}, {},
         prefer(Rus), {Keep, show}},
        {"unknown sound, one track", with({audio(1, nullptr, "s")}), {}, {}, prefer(Rus), {Keep, forcedOnly}},
        {"no sound at all", with({}), {}, {}, prefer(Rus), {Keep, forcedOnly}},
        {"listed sound", with({audio(1, "rus", "s")}), {}, {}, prefer(Rus), {Keep, forcedOnly}},
        {"sound switched to a listed language", with({audio(1, "eng", "s"), audio(2, "rus")}), {}, {}, prefer(Rus),
         {Pick::set(2), forcedOnly}},
        {"foreign sound", with({audio(1, "eng", "s")}), {}, {}, prefer(Rus), {Keep, show}},
    });
}

TEST(TrackSelectionTest, SubtitlesFallBackInOrder)
{
    const ExternalTrack commentary = entry(4, "Commentary · ASS", "eng");
    const QList<MediaTrack> film{audio(1, "eng", "s"), sub(2, "rus", "", "Full"), sub(3, "eng")};
    check({
        {"showing takes a forced track when it is the only listed one",
         {audio(1, "eng", "s"), sub(2, "eng"), sub(3, "rus", "f")}, {}, {RussianText}, prefer(Rus),
         {Keep, Pick::set(3)}},
        {"showing loads the first listed file when the film has none", {audio(1, "eng", "s"), sub(2, "eng")}, {},
         {EnglishText, RussianText}, prefer(Rus), {Keep, Pick::add(RussianText)}},
        {"forced only never loads a file", {audio(1, "rus", "s"), sub(2, "rus")}, {}, {RussianText}, prefer(Rus),
         {Keep, Off}},
        {"a remembered off", film, {}, {commentary}, prefer(Rus, Rus, SubtitleMode::Always, {}, OffChoice), {Keep, Off}},
        {"a remembered file", film, {}, {commentary},
         prefer(Rus, Rus, SubtitleMode::Always, {}, choice("eng", "Commentary · ASS", "Commentary · ASS")),
         {Keep, Pick::add(commentary)}},
        {"a remembered track", film, {}, {commentary}, prefer(Rus, Rus, SubtitleMode::Always, {}, choice("eng")),
         {Keep, Pick::set(3)}},
        {"a remembered choice without a match keeps libmpv's pick, whatever the mode", film, {}, {},
         prefer(Rus, Rus, SubtitleMode::Never, {}, choice("jpn")), {Keep, Keep}},
    });

    // Choices count only while they are remembered.
    AppSettings settings;
    settings.rememberTracks = false;
    TorrentMeta meta;
    meta.audio = choice("eng");
    EXPECT_FALSE(Preferences::from(settings, meta).audio.has_value());
    settings.rememberTracks = true;
    EXPECT_EQ(Preferences::from(settings, meta).audio, choice("eng"));
}

TEST(TrackSelectionTest, LabelsAndDetailsDescribeTracksInRussian)
{
    struct Case { MediaTrack track; int number; QString label; std::optional<QString> detail; };
    const auto shaped = [](MediaTrack t, const char *codec, int channels) {
        t.codec = text(codec);
        t.channels = channels;
        return t;
    };
    const std::vector<Case> cases{
        {shaped(audio(1, "eng"), "aac", 2), 1, QStringLiteral("Английский"), QStringLiteral("AAC · стерео")},
        {shaped(audio(2, "jpn", "", "Commentary"), nullptr, 6), 2, QStringLiteral("Японский — Commentary"),
         QStringLiteral("5.1")},
        // A title that only repeats the language adds nothing.
        {shaped(audio(3, "rus", "", "РУССКИЙ"), nullptr, 8), 3, QStringLiteral("Русский"), QStringLiteral("7.1")},
        {shaped(audio(4, nullptr), nullptr, 0), 4, QStringLiteral("Дорожка 4"), std::nullopt},
        {shaped(audio(7, "", "", ""), nullptr, 1), 6, QStringLiteral("Дорожка 6"), QStringLiteral("моно")},
        {sub(5, "und", "f", "Signs"), 1, QStringLiteral("Signs"), QStringLiteral("форсированные")},
        {shaped(fromFile(audio(6, ""), 12), nullptr, 3), 5, QStringLiteral("12"), QStringLiteral("3 кан. · внешняя")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label.toStdString());
        EXPECT_EQ(label(c.track, c.number), c.label);
        EXPECT_EQ(detail(c.track), c.detail);
    }
}

TEST(TrackSelectionTest, MenusListALoadedTrackFileOnceAndShowOffOnlyWhenKnown)
{
    MediaTrack picture = track(MediaTrack::Kind::Video, 1, nullptr);
    const QList<MediaTrack> tracks{picture, audio(1, "eng", "s"), audio(2, "jpn"),
                                   fromFile(sub(1, "eng", "s", "eng · SRT"), EnglishText.file.i)};

    const QList<TrackOption> audioRows = audioOptions(Torrent, tracks, {Studio});
    ASSERT_EQ(audioRows.size(), 3);
    EXPECT_TRUE(audioRows.at(0).selected);
    EXPECT_EQ(audioRows.at(1).label, QStringLiteral("Японский"));
    EXPECT_EQ(audioRows.at(2).id, QStringLiteral("x7"));
    EXPECT_EQ(audioRows.at(2).detail, QStringLiteral("Русский"));

    const QList<TrackOption> subtitleRows = subtitleOptions(Torrent, tracks, {EnglishText, RussianText}, true);
    QStringList ids;
    for (const TrackOption &row : subtitleRows)
        ids << row.id;
    EXPECT_EQ(ids, (QStringList{QStringLiteral("off"), QStringLiteral("s1"), QStringLiteral("x9")}));
    EXPECT_EQ(subtitleRows.at(1).detail, QStringLiteral("внешняя"));
    EXPECT_FALSE(subtitleRows.at(0).selected);
    EXPECT_TRUE(subtitleOptions(Torrent, {audio(1, "eng", "s"), sub(2, "rus")}, {}, true).at(0).selected);
    EXPECT_FALSE(subtitleOptions(Torrent, {}, {}, false).at(0).selected) << "nothing is known while loading";

    // A cycle steps past the first selected row and wraps; from nothing it starts at the top.
    EXPECT_EQ(cycleTarget(subtitleRows), 2);
    EXPECT_EQ(cycleTarget(subtitleOptions(Torrent, tracks, {}, true)), 0) << "from the last row back to off";
    EXPECT_EQ(cycleTarget(audioOptions(Torrent, {}, {Studio})), 0);
    EXPECT_EQ(cycleTarget({}), std::nullopt);
}

TEST(TrackSelectionTest, RememberedChoicesDescribeTracksNotIds)
{
    const QList<MediaTrack> tracks{audio(1, "eng", "s", "Original"), fromFile(audio(2, "rus"), Studio.file.i),
                                   sub(1, "eng")};
    struct Case { const char *what; TrackOption::Source source; MediaTrack::Kind kind; TrackChoice expected; };
    const std::vector<Case> cases{
        {"a loaded file keeps the file's title", TrackOption::Track{2}, MediaTrack::Kind::Audio,
         choice("rus", nullptr, "Studio · MKA")},
        {"an id that is gone", TrackOption::Track{9}, MediaTrack::Kind::Audio, choice(nullptr)},
        {"a file not loaded yet", Studio, MediaTrack::Kind::Audio, choice("rus", "Studio · MKA", "Studio · MKA")},
        {"off", TrackOption::Off{}, MediaTrack::Kind::Sub, OffChoice},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(remembered(c.source, c.kind, Torrent, tracks, {Studio}), c.expected);
    }
}
