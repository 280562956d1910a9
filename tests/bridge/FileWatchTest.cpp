#include "LiveBridge.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace testsupport;
using livebridge::LiveBridge;
using livebridge::missingText;

namespace fs = std::filesystem;

namespace {

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

TEST(FileWatchTest, MissingFileIsReportedOnceHeldAndBackToSeedingAfterResume)
{
    TempDir dir;
    const std::string seed = dir.file("seed");
    const std::string data = dir.file("data");
    const std::string state = dir.file("state");
    writePatternFile(seed + "/Album/01.bin", 100 * 1024, 1);
    writePatternFile(seed + "/Album/02.bin", 120 * 1024, 2);
    writePatternFile(seed + "/Album/disc2/03.bin", 90 * 1024, 3);
    const MadeTorrent album = makeTorrent(seed, "Album", dir.file("torrents"));
    // Stands by, so that a torrent that wrongly went back to downloading would find the data.
    LocalSeeder seeder;
    ASSERT_TRUE(seeder.seed(album));
    fs::create_directories(data);
    fs::copy(seed + "/Album", data + "/Album", fs::copy_options::recursive);

    LiveBridge bridge(state);
    const std::string id = bridge.add(album.torrentPath, data);
    ASSERT_EQ(id, album.id);
    ASSERT_TRUE(bridge.waitForState(id, "seeding"));
    ASSERT_TRUE(waitUntilWatched(bridge, id, state));
    const int first = bridge.fileIndex(id, "Album/01.bin");
    ASSERT_GE(first, 0);
    ASSERT_GT(bridge.fileIndex(id, "Album/02.bin"), first) << "01.bin must come first for the watch to meet it first";

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
    seeder.offer(album, bridge.port());
    std::this_thread::sleep_for(std::chrono::milliseconds(2500)); // two more rounds of the watch
    EXPECT_EQ(bridge.errors(id), report);
    EXPECT_EQ(bridge.state(id), "missing");
    EXPECT_FALSE(fs::exists(data + "/Album/02.bin"));
    EXPECT_TRUE(bridge.peers(id).isEmpty());

    // The user puts the files back and wants all again: resume checks the disk and seeds.
    fs::copy_file(seed + "/Album/01.bin", data + "/Album/01.bin");
    fs::copy_file(seed + "/Album/02.bin", data + "/Album/02.bin");
    ASSERT_TRUE(tb_set_file_priorities(bridge.get(), id.c_str(), unwanted, 1, 4));
    ASSERT_TRUE(tb_action(bridge.get(), id.c_str(), "resume"));
    ASSERT_TRUE(bridge.waitForState(id, "seeding"));
    st = bridge.status(id);
    EXPECT_EQ(st["error"].toString(), "");
    EXPECT_FALSE(st["paused"].toBool());
    EXPECT_TRUE(st["autoManaged"].toBool());
    EXPECT_EQ(bridge.errors(id), report);

    // The watch starts over from what the check found. A folder replaced by a file counts as
    // missing too: stat answers "not a directory" there, not "no such file".
    ASSERT_TRUE(waitUntilWatched(bridge, id, state));
    fs::remove_all(data + "/Album/disc2");
    std::ofstream(data + "/Album/disc2") << "not a folder";
    ASSERT_TRUE(bridge.waitForState(id, "missing"));
    ASSERT_TRUE(waitFor([&] { return bridge.errors(id).size() > report.size(); }));
    EXPECT_EQ(bridge.errors(id)[report.size()], missingText("03.bin"));
    EXPECT_TRUE(bridge.status(id)["paused"].toBool());
}
