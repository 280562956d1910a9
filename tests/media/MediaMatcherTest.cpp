#include "media/MediaMatcher.h"

#include "MediaTestFiles.h"

#include <gtest/gtest.h>

namespace {

using MediaMatcher::EpisodeNumber;
using mediatest::indices;
using mediatest::text;
using mediatest::torrentFiles;

constexpr int NoNumber = -1;

TEST(MediaMatcherTest, EpisodeNumbersFromReleaseNames)
{
    struct Row { const char *name; int season, episode; };
    const std::vector<Row> rows{
        // Season and episode, scene style: any run of separators, up to four digits.
        {"Breaking.Bad.S01E05.720p.BluRay.x264-DEMAND.mkv", 1, 5},
        {"Stranger Things - s04e09 - Chapter Nine.mkv", 4, 9},
        {"Show S02 - E1001.mkv", 2, 1001},
        // Season by episode; "105x2" is none, the digit before "05" blocks it.
        {"Friends - 1x05 - The One with the East German Laundry Detergent.avi", 1, 5},
        {"Show 105x2.mkv", 0, 2},
        // A word for "episode" wins over a later bare number; a letter right before it makes it
        // part of another word.
        {"СЛОВО ПАЦАНА. СЕРИЯ 3 ИЗ 8.mkv", 0, 3},
        {"Смешарики. Серии 201-210.avi", 0, 201},
        {"Show.Name.EP03.Part.2.mkv", 0, 3},
        {"Минисерия 2 (эпизод 3).avi", 0, 3},
        // A bare number: the last one left once years, resolutions and codecs are gone.
        {"Show 2019 1080p x264 07.mkv", 0, 7},
        {"Show 2 - 05.mkv", 0, 5},
        {"Show - 03 [720p 10bit 5.1 24fps 2ch].mkv", 0, 3},
        // Films: every number is noise. Five digits in a row are no number, and the
        // extension is not part of the name.
        {"Blade.Runner.2049.2017.2160p.UHD.BluRay.x265.10bit.HDR.DTS-HD.MA.7.1.mkv", NoNumber, 0},
        {"Clip 12345.mkv", NoNumber, 0},
        {"Trailer.mp4", NoNumber, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const std::optional<EpisodeNumber> expected =
            row.season == NoNumber ? std::nullopt
                                   : std::optional(EpisodeNumber{row.season, row.episode});
        EXPECT_EQ(MediaMatcher::episodeNumber(QString::fromUtf8(row.name)), expected);
    }
}

TEST(MediaMatcherTest, EpisodeKeysPairOnlyTightMarkers)
{
    const std::vector<std::pair<const char *, const char *>> rows{
        {"Show.S01E05.mkv", "s1e5"},    {"show.s01.e05.srt", "s1e5"},
        {"Show S10_E100.mka", "s10e100"}, {"Show.S01..E05.srt", nullptr},
        {"Show 1x05.srt", nullptr},
        // Three episode digits at most, so these two share a key.
        {"Show.S01E1000.srt", "s1e100"}, {"Show.S01E100.srt", "s1e100"},
    };
    for (const auto &[name, key] : rows)
        EXPECT_EQ(MediaMatcher::episodeKey(QString::fromUtf8(name)), text(key)) << name;
}

struct Track { int index = -1; const char *title = ""; const char *language = nullptr; };

void expectTracks(const QList<ExternalTrack> &actual, const std::vector<Track> &expected)
{
    ASSERT_EQ(actual.size(), static_cast<qsizetype>(expected.size()));
    for (std::size_t n = 0; n < expected.size(); ++n) {
        const ExternalTrack &track = actual.at(static_cast<qsizetype>(n));
        SCOPED_TRACE(track.file.path.toStdString());
        EXPECT_EQ(track.file.i, expected[n].index);
        EXPECT_EQ(track.title, QString::fromUtf8(expected[n].title));
        EXPECT_EQ(track.language, text(expected[n].language));
    }
}

// A torrent's file list, the order its videos are watched in, and the outside tracks that
// its video `video` gets.
struct Layout {
    const char *what;
    QList<TorrentFile> files;
    std::vector<int> order;
    int video = 0;  // the one whose outside tracks are checked
    std::vector<Track> audio;
    std::vector<Track> subtitles;
};

TEST(MediaMatcherTest, TorrentLayoutsPlayInOrderWithTheirOutsideTracks)
{
    const std::vector<Layout> layouts{
        {"only playable videos, samples by file name",
         torrentFiles({"S/01.mkv", "S/01.srt", "S/cover.jpg", "S/01.MKV.part", "S/02.AVI", "S/sample.mkv",
                       "S/Show.SAMPLE.mkv", "S/Sample/03.mkv", ".pad/02.mkv"}),
         {0, 4, 7}, 0, {}, {{1, "01 · SRT"}}},
        // Names alone would put "Слепой" before "Этюд".
        {"a numbered folder ignores the words",
         torrentFiles({"S/Шерлок. Этюд в розовых тонах. S01E01.mkv", "S/Шерлок. Слепой банкир. S01E02.mkv"}),
         {0, 1}, 0, {}, {}},
        {"a repeated number falls back to names",
         torrentFiles({"S/Show.S01E02.mkv", "S/Show.S01E01.mkv", "S/Show.S01E01.Directors.Cut.mkv"}),
         {2, 1, 0}, 0, {}, {}},
        {"a file without a number falls back to names, in its folder only",
         torrentFiles({"S/A/Bonus.mkv", "S/A/Winter 01.mkv", "S/A/Autumn 02.mkv", "S/B/Winter 01.mkv",
                       "S/B/Spring 02.mkv"}),
         {2, 0, 1, 3, 4}, 0, {}, {}},
        {"folders in natural order, top-level files first",
         torrentFiles({"S/Season 10/e01.mkv", "S/Season 2/e01.mkv", "S/Season 1/e02.mkv", "S/Season 1/e01.mkv",
                       "S/trailer.mkv"}),
         {4, 3, 2, 1, 0}, 0, {}, {}},
        {"folders equal but for case stay whole, in order of appearance",
         torrentFiles({"S/extras/b.mkv", "S/Extras/a.mkv", "S/extras/c.mkv"}), {0, 2, 1}, 0, {}, {}},
        {"outside tracks by name, by name and a separator, or by key",
         torrentFiles({"Show/Show.S01E05.mkv", "Show/Show.S01E06.mkv", "Show/Rus Sound/Show.S01E05.mka",
                       "Show/Show.S01E05.Rus.Dub.mka", "Show/Show.S01E05 [Eng].srt", "Show/Show.S01E05_forced.srt",
                       "Show/Show.S01E050.srt", "Show/Озвучка/05 - Show s01e05.ac3", "Show/Commentary.mka",
                       "Show/Show.S01E06.mka", "Show/Show.S01E05.nfo"}),
         {0, 1}, 0,
         {{7, "05 - Show s01e05 · AC3"}, {3, "Rus.Dub · MKA", "rus"}, {2, "Show.S01E05 · MKA", "rus"}},
         {{4, "Eng · SRT", "eng"}, {5, "forced · SRT"}}},
        // "Серия 10" begins with "Серия 1", but not with "Серия 1" and a separator.
        {"Russian episode words with a Субтитры folder",
         torrentFiles({"Интерны/Интерны. Серия 10.avi", "Интерны/Интерны. Серия 1.avi",
                       "Интерны/Интерны. Серия 2.avi", "Интерны/Субтитры/Интерны. Серия 1.srt",
                       "Интерны/Субтитры/Интерны. Серия 10.srt", "Интерны/Субтитры/Интерны. Серия 1 (Англ).srt",
                       "Интерны/Обложка.jpg"}),
         {1, 2, 0}, 1, {}, {{5, "Англ · SRT", "eng"}, {3, "Интерны. Серия 1 · SRT"}}},
        {"a film: every outside track is its own, a sample changes nothing",
         torrentFiles({"Dune/Dune.Part.Two.2024.2160p.WEB-DL.mkv",
                       "Dune/Rus Sound/Dune.Part.Two.2024.2160p.WEB-DL.Dub.Red.Head.Sound.mka",
                       "Dune/Rus Sound/Dune.Part.Two.2024.2160p.WEB-DL.MVO.Jaskier.mka", "Dune/Subs/English.srt",
                       "Dune/Subs/Russian.Forced.srt", "Dune/Sample/Dune.Part.Two.Sample.mkv"}),
         {0}, 0, {{1, "Dub.Red.Head.Sound · MKA", "rus"}, {2, "MVO.Jaskier · MKA", "rus"}},
         {{3, "English · SRT", "eng"}, {4, "Russian.Forced · SRT", "rus"}}},
    };
    for (const Layout &layout : layouts) {
        SCOPED_TRACE(layout.what);
        EXPECT_EQ(indices(MediaMatcher::videos(layout.files)), layout.order);
        const MediaMatcher::ExternalTracks tracks =
            MediaMatcher::externalTracks(layout.files.at(layout.video), layout.files);
        expectTracks(tracks.audio, layout.audio);
        expectTracks(tracks.subtitles, layout.subtitles);
    }
}

TEST(MediaMatcherTest, NextAndPreviousRunAcrossFoldersWithoutWrapping)
{
    const QList<TorrentFile> files =
        torrentFiles({"S/Season 2/S02E01.mkv", "S/Season 1/S01E02.mkv", "S/Season 1/S01E01.mkv",
                      "S/Season 1/S01E01.srt"});
    const auto index = [](const std::optional<TorrentFile> &file) { return file ? file->i : -1; };
    EXPECT_EQ(index(MediaMatcher::next(files.at(2), files)), 1);
    EXPECT_EQ(index(MediaMatcher::next(files.at(1), files)), 0);  // into the next folder
    EXPECT_EQ(index(MediaMatcher::next(files.at(0), files)), -1);
    EXPECT_EQ(index(MediaMatcher::previous(files.at(0), files)), 1);
    EXPECT_EQ(index(MediaMatcher::previous(files.at(2), files)), -1);
    EXPECT_EQ(index(MediaMatcher::next(files.at(3), files)), -1);  // not a video
    // Found by index, so a record from an older poll with other progress finds its place.
    TorrentFile stale = files.at(2);
    stale.done = 12345;
    EXPECT_EQ(index(MediaMatcher::next(stale, files)), 1);
}

TEST(MediaMatcherTest, TrackTitles)
{
    struct Row { const char *path, *videoStem, *title; };
    const std::vector<Row> rows{
        {"S/Rus Sound/Studio/Show.S01E05.Rus.Dub.mka", "show.s01e05", "Studio · Rus.Dub · MKA"},
        {"S/RUS SOUND/Show.S01E05.mka", "show.s01e05", "Show.S01E05 · MKA"},
        // Only the nearest folder that says something; never the torrent's own top folder.
        {"S/Season 1/Studio/Subs/x.srt", "show", "Studio · SRT"},
        {"Studio/x.srt", "show", "x · SRT"},
        // What the name adds, trimmed; the comparison ignores case, the part keeps it.
        {"S/Show.S01E05.[Eng].srt", "show.s01e05", "Eng · SRT"},
        {"S/SHOW.S01E05 (Forced).srt", "show.s01e05", "Forced · SRT"},
        {"S/Subs/ШОУ.E05.Рус.Субтитры.ass", "шоу.e05", "Рус.Субтитры · ASS"},
        {"S/Show.S01E05_-_.srt", "show.s01e05", "Show.S01E05_-_ · SRT"},
        {"S/Subs/Subtitle", "show.s01e05", "Subtitle · "},
    };
    for (const Row &row : rows) {
        TorrentFile file;
        file.path = QString::fromUtf8(row.path);
        EXPECT_EQ(MediaMatcher::title(file, QString::fromUtf8(row.videoStem)),
                  QString::fromUtf8(row.title))
            << row.path;
    }
}

TEST(MediaMatcherTest, LanguagesFromPathWords)
{
    const std::vector<std::pair<const char *, const char *>> rows{
        {"S/Rus Sound/a.mka", "rus"},        {"S/Subs/S01E05.ENG.srt", "eng"},
        {"S/Subs/english_sdh.srt", "eng"},   {"S/Ukr/a.mka", "ukr"},
        {"S/русские субтитры/a.srt", "rus"}, {"S/a(рус).srt", "rus"},
        {"S/[JAP]/a.mka", "jpn"},            {"S/a.zh-Hans.ass", "chi"},
        // The table's order decides, not the order in the path.
        {"Show.Eng/Rus/a.srt", "rus"},       {"S/UA-RU/a.mka", "rus"},
        // Whole words only.
        {"S/русская озвучка/a.mka", nullptr}, {"S/RusSound/a.mka", nullptr},
    };
    for (const auto &[path, language] : rows) {
        TorrentFile file;
        file.path = QString::fromUtf8(path);
        EXPECT_EQ(MediaMatcher::language(file), text(language)) << path;
    }
}

} // namespace
