#include "LiveBridge.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

using namespace testsupport;
using livebridge::LiveBridge;
using livebridge::missingText;

namespace fs = std::filesystem;

namespace {

// The watch looks once a second; this lets it look twice more before a test checks that it
// stayed quiet. It bounds nothing.
constexpr auto TwoWatchRounds = std::chrono::milliseconds(2500);

// The presence file lists every complete file once the watch has seen it; only from then on
// can a deleted file be told from one never fetched.
bool waitUntilWatched(const LiveBridge &bridge, const std::string &id, const std::string &stateDir)
{
    std::string expected = "v1\n";
    for (const QJsonValue &file : bridge.files(id)) {
        if (!file["pad"].toBool() && file["size"].toInteger() > 0)
            expected += std::to_string(file["i"].toInt()) + "\n";
    }
    const std::string path = stateDir + "/resume/" + id + ".presence";
    return waitFor([&] { return readWholeFile(path) == expected; });
}

} // namespace

// Each test runs its own bridge on a private copy of one album; a seeder of the album stands
// by, so that a torrent that wrongly went back to downloading would find the data to fetch.
class FileWatchTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_root = std::make_unique<TempDir>();
        const std::string seed = s_root->file("seed");
        writePatternFile(seed + "/Album/01.bin", 100 * 1024, 1);
        writePatternFile(seed + "/Album/02.bin", 120 * 1024, 2);
        writePatternFile(seed + "/Album/disc2/03.bin", 90 * 1024, 3);
        s_torrent = makeTorrent(seed, "Album", s_root->file("torrents"));
        s_seeder = std::make_unique<LocalSeeder>();
        ASSERT_TRUE(s_seeder->seed(s_torrent));
    }

    static void TearDownTestSuite()
    {
        s_seeder.reset();
        s_root.reset();
    }

    // Copies the album into this test's data folder and adds it there, complete.
    std::string addSeedingCopy(LiveBridge &bridge)
    {
        fs::create_directories(data);
        fs::copy(s_root->file("seed/Album"), data + "/Album", fs::copy_options::recursive);
        const std::string id = bridge.add(s_torrent.torrentPath, data);
        EXPECT_EQ(id, s_torrent.id);
        EXPECT_TRUE(bridge.waitForState(id, "seeding"));
        EXPECT_TRUE(waitUntilWatched(bridge, id, state));
        return id;
    }

    static std::unique_ptr<TempDir> s_root;
    static MadeTorrent s_torrent;
    static std::unique_ptr<LocalSeeder> s_seeder;

    TempDir dir;
    const std::string data = dir.file("data");
    const std::string state = dir.file("state");
};

std::unique_ptr<TempDir> FileWatchTest::s_root;
MadeTorrent FileWatchTest::s_torrent;
std::unique_ptr<LocalSeeder> FileWatchTest::s_seeder;

TEST_F(FileWatchTest, DeletedFileIsReportedOnceHeldAndBackToSeedingAfterResume)
{
    LiveBridge bridge(state);
    const std::string id = addSeedingCopy(bridge);
    ASSERT_FALSE(id.empty());
    const int first = bridge.fileIndex(id, "Album/01.bin");
    const int second = bridge.fileIndex(id, "Album/02.bin");
    ASSERT_GE(first, 0);
    ASSERT_GT(second, first) << "01.bin must come first for the watch to meet it first";

    // A file the user set to skip may go without a word, even though the watch meets it first.
    const int32_t unwanted[] = {first};
    ASSERT_TRUE(tb_set_file_priorities(bridge.get(), id.c_str(), unwanted, 1, 0));
    fs::remove(data + "/Album/01.bin");
    fs::remove(data + "/Album/02.bin");

    ASSERT_TRUE(bridge.waitForState(id, "missing"));
    ASSERT_TRUE(waitFor([&] { return !bridge.errors(id).empty(); }));
    const std::vector<std::string> report = {missingText("02.bin")};
    EXPECT_EQ(bridge.errors(id), report);
    QJsonObject st = bridge.status(id);
    EXPECT_EQ(st["error"].toString().toStdString(), report.front());
    EXPECT_TRUE(st["paused"].toBool());
    EXPECT_FALSE(st["autoManaged"].toBool());
    EXPECT_FALSE(st["seeding"].toBool());
    EXPECT_FALSE(st["finished"].toBool());

    // Offered a peer that has the file, a held torrent neither fetches it nor speaks again.
    s_seeder->offer(s_torrent, bridge.port());
    std::this_thread::sleep_for(TwoWatchRounds);
    EXPECT_EQ(bridge.errors(id), report);
    EXPECT_EQ(bridge.state(id), "missing");
    EXPECT_FALSE(fs::exists(data + "/Album/02.bin"));
    EXPECT_TRUE(bridge.peers(id).isEmpty());

    // The user puts the files back and wants all again: resume checks the disk and seeds.
    fs::copy_file(s_root->file("seed/Album/01.bin"), data + "/Album/01.bin");
    fs::copy_file(s_root->file("seed/Album/02.bin"), data + "/Album/02.bin");
    ASSERT_TRUE(tb_set_file_priorities(bridge.get(), id.c_str(), unwanted, 1, 4));
    ASSERT_TRUE(tb_action(bridge.get(), id.c_str(), "resume"));
    ASSERT_TRUE(bridge.waitForState(id, "seeding"));
    st = bridge.status(id);
    EXPECT_EQ(st["error"].toString(), "");
    EXPECT_FALSE(st["paused"].toBool());
    EXPECT_TRUE(st["autoManaged"].toBool());
    EXPECT_EQ(bridge.errors(id), report);
}

TEST_F(FileWatchTest, FolderReplacedByFileCountsAsMissing)
{
    LiveBridge bridge(state);
    const std::string id = addSeedingCopy(bridge);
    ASSERT_FALSE(id.empty());

    // The path now runs through a plain file: stat answers "not a directory", not "no such file".
    fs::remove_all(data + "/Album/disc2");
    std::ofstream(data + "/Album/disc2") << "not a folder";

    ASSERT_TRUE(bridge.waitForState(id, "missing"));
    ASSERT_TRUE(waitFor([&] { return !bridge.errors(id).empty(); }));
    EXPECT_EQ(bridge.errors(id).front(), missingText("03.bin"));
    const QJsonObject st = bridge.status(id);
    EXPECT_TRUE(st["paused"].toBool());
    EXPECT_FALSE(st["autoManaged"].toBool());
    EXPECT_FALSE(fs::exists(data + "/Album/disc2/03.bin"));
}
