#include "media/MediaPresentation.h"

#include "MediaTestFiles.h"

#include <gtest/gtest.h>

namespace {

using mediatest::text;

TEST(MediaPresentationTest, TitleAndFactsFromReleaseNames)
{
    struct Row { const char *name, *title, *year, *quality, *episode; MediaKind kind; };
    constexpr MediaKind Video = MediaKind::video;
    constexpr MediaKind Other = MediaKind::other;
    const std::vector<Row> rows{
        // The title stops at the first marker, trimmed of blanks, dashes and brackets.
        {"Some.Show.S02E05.1080p.WEB-DL.mkv", "Some Show", nullptr, "1080p", "Сезон 2 · Серия 5", Video},
        {"Film (2019) [BDRip].mkv", "Film", "2019", nullptr, nullptr, Video},
        {"Кино_2020_720p.avi", "Кино", "2020", "720p", nullptr, Video},
        {"Тед Лассо S03E12 [LostFilm].mkv", "Тед Лассо", nullptr, nullptr, "Сезон 3 · Серия 12", Video},
        {"Show.s03e007.720P.mkv", "Show", nullptr, "720p", "Сезон 3 · Серия 7", Video},
        {"Movie.4k.mkv", "Movie", nullptr, "4K", nullptr, Video},
        // A year at the very start is the title's own; any later one is taken for the year.
        {"2012.2009.1080p.mkv", "2012", "2009", "1080p", nullptr, Video},
        {"Blade.Runner.2049.2017.2160p.UHD.BluRay.x265.mkv", "Blade Runner", "2049", "4K", nullptr, Video},
        // Its only marker is at the start, so the whole text is the title.
        {"1080p.mkv", "1080p", nullptr, "1080p", nullptr, Video},
        // Quality and release markers stand alone as words; a year needs only to be clear of
        // other digits.
        {"Class4K.Show2019.mkv", "Class4K Show", "2019", nullptr, nullptr, Video},
        {"HDTVShow.20190.mkv", "HDTVShow 20190", nullptr, nullptr, nullptr, Video},
        // No known extension: the name keeps its last word, and markers make it a video.
        {"Dune.Part.Two.2024.2160p.WEB-DL.DDP5.1.Atmos.DV.HDR.H.265-FLUX", "Dune Part Two", "2024",
         "4K", nullptr, Video},
        {"The.Office.US.S01-S09.Complete.1080p", "The Office US", nullptr, "1080p", "Сезон 1", Video},
        // Group tags are not markers: the title keeps them up to the first marker.
        {"[SubsPlease] Frieren - 01 (1080p) [9A4F2C1B].mkv", "SubsPlease] Frieren - 01", nullptr,
         "1080p", nullptr, Video},
        // A year alone makes no video; what is not a video keeps its name as it stands.
        {"Some.Album.2019", "Some.Album.2019", "2019", nullptr, nullptr, Other},
        {"Tolkien - The Lord of the Rings (1954).epub", "Tolkien - The Lord of the Rings (1954).epub",
         "1954", nullptr, nullptr, Other},
        {"Track.01.2019.flac", "Track.01.2019", "2019", nullptr, nullptr, MediaKind::audio},
        {"", "", nullptr, nullptr, nullptr, Other},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const MediaPresentation presentation(QString::fromUtf8(row.name));
        EXPECT_EQ(presentation.title, QString::fromUtf8(row.title));
        EXPECT_EQ(presentation.year, text(row.year));
        EXPECT_EQ(presentation.quality, text(row.quality));
        EXPECT_EQ(presentation.episode, text(row.episode));
        EXPECT_EQ(presentation.kind, row.kind);
    }
}

TEST(MediaPresentationTest, SubtitleListsYearEpisodeQuality)
{
    const std::vector<std::pair<const char *, const char *>> rows{
        {"Show.2019.S01E02.720p.mkv", "2019 · Сезон 1 · Серия 2 · 720p"},
        {"Film.2019.mkv", "2019"},
        {"Film.mkv", ""},
    };
    for (const auto &[name, subtitle] : rows)
        EXPECT_EQ(MediaPresentation(QString::fromUtf8(name)).subtitle(), QString::fromUtf8(subtitle))
            << name;
}

} // namespace
