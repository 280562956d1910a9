#include "media/MediaKind.h"

#include "MediaTestFiles.h"

#include <gtest/gtest.h>

namespace {

TEST(MediaKindTest, PathsClassifyByTheirLowerCasedExtension)
{
    const std::vector<std::pair<const char *, MediaKind>> rows{
        {"Show/EPISODE.01.MKV", MediaKind::video}, {"a.DTSHD", MediaKind::audio},
        {"a.idx", MediaKind::subtitle},           {"a.heic", MediaKind::image},
        {"a.cue", MediaKind::text},               {"backup.tar.gz", MediaKind::archive},
        {"a.mkv.part", MediaKind::other},
        {"Show/.mkv", MediaKind::other},  // a hidden file, no extension
        {"Show.mkv/readme", MediaKind::other},
    };
    for (const auto &[path, kind] : rows)
        EXPECT_EQ(mediaKindForPath(QString::fromUtf8(path)), kind) << path;

    // The extension rule itself is exact: lower-casing is the caller's job.
    EXPECT_EQ(mediaKindForExtension(QStringLiteral("MKV")), MediaKind::other);
    EXPECT_EQ(mediaKindForExtension(QString()), MediaKind::other);
    EXPECT_EQ(mediaKindFromName(mediaKindName(MediaKind::subtitle)), MediaKind::subtitle);
    EXPECT_EQ(mediaKindFromName(QStringLiteral("Video")), std::nullopt);
}

} // namespace
