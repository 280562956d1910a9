#include "engine/TorrentMeta.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace {

const char *const IdA = "0123456789abcdef0123456789abcdef01234567";
const char *const IdB = "fedcba9876543210fedcba9876543210fedcba98";

QJsonObject parseObject(const QByteArray &json)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << json.toStdString();
    return document.object();
}

TorrentMeta fullEntry()
{
    TorrentMeta meta;
    meta.positions = {{0, 12.5}, {3, 3600.25}, {17, 0.0}};
    meta.audio = TrackChoice{QStringLiteral("jpn"), QStringLiteral("Original"), std::nullopt, false};
    meta.subtitle = TrackChoice{QStringLiteral("rus"), QStringLiteral("Надписи"),
                                QStringLiteral("Signs.ass"), false};
    meta.ignoreSeedLimits = true;
    meta.lastPlayedFile = 3;
    return meta;
}

} // namespace

TEST(TorrentMetaTest, EncodedFileDecodesToTheSameMap)
{
    TorrentMeta off;
    off.subtitle = TrackChoice{std::nullopt, std::nullopt, std::nullopt, true};
    const QMap<QString, TorrentMeta> meta{{IdA, fullEntry()}, {IdB, off}};

    const QJsonObject json = encodeMetaFile(meta);
    EXPECT_EQ(decodeMetaFile(json), meta);
    // Through text as well: the numbers and keys survive a file.
    EXPECT_EQ(decodeMetaFile(parseObject(QJsonDocument(json).toJson())), meta);
    EXPECT_EQ(decodeMetaFile(QJsonObject()), (QMap<QString, TorrentMeta>())) << "an empty file is an empty map";
}

TEST(TorrentMetaTest, UnsetFieldsAreLeftOutOfTheFile)
{
    EXPECT_EQ(TorrentMeta().toJson(),
              parseObject(R"({"positions": {}, "ignoreSeedLimits": false})"));
    EXPECT_EQ(TrackChoice{}.toJson(), parseObject(R"({"off": false})"));
    EXPECT_EQ(fullEntry().toJson(), parseObject(R"({
        "positions": {"0": 12.5, "3": 3600.25, "17": 0},
        "audio": {"language": "jpn", "title": "Original", "off": false},
        "subtitle": {"language": "rus", "title": "Надписи", "externalName": "Signs.ass", "off": false},
        "ignoreSeedLimits": true,
        "lastPlayedFile": 3
    })"));
}

TEST(TorrentMetaTest, NullOptionalFieldsReadAsUnset)
{
    const auto decoded = TorrentMeta::fromJson(parseObject(R"({
        "positions": {}, "ignoreSeedLimits": false,
        "audio": null, "subtitle": {"off": true, "language": null}, "lastPlayedFile": null
    })"));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_FALSE(decoded->audio.has_value());
    EXPECT_EQ(decoded->subtitle, (TrackChoice{std::nullopt, std::nullopt, std::nullopt, true}));
    EXPECT_FALSE(decoded->lastPlayedFile.has_value());
}

// One bad entry spoils the file: the engine would rather forget positions than act on a file
// it only half understands.
TEST(TorrentMetaTest, AnyBadEntryFailsTheWholeFile)
{
    const char *badEntries[] = {
        R"({"ignoreSeedLimits": false})",
        R"({"positions": {}})",
        R"({"positions": [], "ignoreSeedLimits": false})",
        R"({"positions": {"x": 1}, "ignoreSeedLimits": false})",
        R"({"positions": {"1.5": 1}, "ignoreSeedLimits": false})",
        R"({"positions": {" 1": 1}, "ignoreSeedLimits": false})",
        R"({"positions": {"": 1}, "ignoreSeedLimits": false})",
        R"({"positions": {"99999999999": 1}, "ignoreSeedLimits": false})",
        R"({"positions": {"1": "5"}, "ignoreSeedLimits": false})",
        R"({"positions": {"1": null}, "ignoreSeedLimits": false})",
        R"({"positions": {}, "ignoreSeedLimits": "false"})",
        R"({"positions": {}, "ignoreSeedLimits": 0})",
        R"({"positions": {}, "ignoreSeedLimits": false, "audio": "jpn"})",
        R"({"positions": {}, "ignoreSeedLimits": false, "audio": {"language": "jpn"}})",
        R"({"positions": {}, "ignoreSeedLimits": false, "subtitle": {"off": "yes"}})",
        R"({"positions": {}, "ignoreSeedLimits": false, "subtitle": {"off": false, "title": 5}})",
        R"({"positions": {}, "ignoreSeedLimits": false, "lastPlayedFile": 1.5})",
        R"({"positions": {}, "ignoreSeedLimits": false, "lastPlayedFile": "2"})",
        R"([])",
        R"("entry")",
    };
    const QJsonObject good = fullEntry().toJson();
    for (const char *bad : badEntries) {
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray("[") + bad + "]");
        ASSERT_TRUE(document.isArray()) << bad;
        QJsonObject file{{IdA, good}, {IdB, document.array().first()}};
        EXPECT_EQ(decodeMetaFile(file), std::nullopt) << bad;
    }
}
