#include "LiveBridge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

using namespace testsupport;
using livebridge::LiveBridge;

namespace fs = std::filesystem;

namespace {

void flipByte(const std::string &path, std::streamoff offset)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(offset);
    const char c = static_cast<char>(file.get());
    file.seekp(offset);
    file.put(static_cast<char>(c ^ 0x5a));
}

} // namespace

TEST(ActionsTest, CommandsReachTheTorrentAndUnknownOnesAreRefused)
{
    TempDir dir;
    const std::string data = dir.file("data");
    writePatternFile(data + "/Show/e1.bin", 96 * 1024, 11);
    writePatternFile(data + "/Show/e2.bin", 64 * 1024, 12);
    const MadeTorrent show = makeTorrent(data, "Show", dir.file("torrents"));
    LiveBridge bridge(dir.file("state"));
    tb_session *s = bridge.get();
    const std::string id = bridge.add(show.torrentPath, data);
    ASSERT_TRUE(bridge.waitForState(id, "seeding"));
    const char *tid = id.c_str();

    // Bytes changed in place: no stat can see that, only the recheck.
    const std::string episode = data + "/Show/e1.bin";
    flipByte(episode, 20000);
    ASSERT_TRUE(tb_action(s, tid, "recheck"));
    ASSERT_TRUE(bridge.waitForState(id, "downloading"));
    const QJsonObject damaged = bridge.status(id);
    EXPECT_LT(damaged["wantedDone"].toInteger(), damaged["wanted"].toInteger());
    EXPECT_FALSE(damaged["paused"].toBool());
    EXPECT_EQ(damaged["error"].toString(), "");
    flipByte(episode, 20000);
    ASSERT_TRUE(tb_action(s, tid, "recheck"));
    ASSERT_TRUE(bridge.waitForState(id, "seeding"));

    const int32_t anyFile[] = {0};
    const std::vector<std::pair<const char *, std::function<bool()>>> refused = {
        {"action of unknown id", [&] { return tb_action(s, "00000000000000000000000000000000000000ff", "pause"); }},
        {"unknown action", [&] { return tb_action(s, tid, "explode"); }},
        {"action words are exact", [&] { return tb_action(s, tid, "Pause"); }},
        {"null action", [&] { return tb_action(s, tid, nullptr); }},
        {"no session", [&] { return tb_action(nullptr, tid, "pause"); }},
        {"priorities of unknown id", [&] { return tb_set_file_priorities(s, "ab", anyFile, 1, 4); }},
        {"limits of unknown id", [&] { return tb_set_limits(s, "ab", 0, 0, 0, 0); }},
        {"trackers of unknown id", [&] { return tb_add_trackers(s, "ab", "http://t.example/a"); }},
        {"move of unknown id", [&] { return tb_move_storage(s, "ab", data.c_str()); }},
    };
    for (const auto &[what, call] : refused)
        EXPECT_FALSE(call()) << what;
    EXPECT_EQ(bridge.state(id), "seeding");

    const auto flagsAre = [&](bool paused, bool autoManaged) {
        return waitFor([&] {
            const QJsonObject st = bridge.status(id);
            return st["paused"].toBool() == paused && st["autoManaged"].toBool() == autoManaged;
        });
    };
    ASSERT_TRUE(tb_action(s, tid, "pause"));
    EXPECT_TRUE(flagsAre(true, false)) << "pause takes the torrent out of the queue's hands";
    ASSERT_TRUE(tb_action(s, tid, "resume"));
    EXPECT_TRUE(flagsAre(false, true)) << "resume gives it back to the queue";
    ASSERT_TRUE(tb_action(s, tid, "force_start"));
    EXPECT_TRUE(flagsAre(false, false)) << "force start runs it whatever the queue says";

    ASSERT_TRUE(tb_action(s, tid, "sequential_on"));
    EXPECT_TRUE(bridge.status(id)["sequential"].toBool());
    ASSERT_TRUE(tb_action(s, tid, "sequential_off"));
    EXPECT_FALSE(bridge.status(id)["sequential"].toBool());
    for (const char *word : {"queue_up", "queue_down", "queue_top", "queue_bottom", "reannounce"})
        EXPECT_TRUE(tb_action(s, tid, word)) << word;

    // Priorities beyond 0..7 are clamped; indexes outside the torrent are passed over. The
    // library applies them after its disk thread answers, so the report follows a moment later.
    const int first = bridge.fileIndex(id, "Show/e1.bin");
    const int second = bridge.fileIndex(id, "Show/e2.bin");
    ASSERT_TRUE(first >= 0 && second >= 0);
    const int32_t high[] = {first, -1, 1000};
    ASSERT_TRUE(tb_set_file_priorities(s, tid, high, 3, 9));
    EXPECT_TRUE(waitFor([&] { return bridge.priority(id, first) == 7; }));
    EXPECT_EQ(bridge.priority(id, second), 4);
    const int32_t low[] = {second};
    ASSERT_TRUE(tb_set_file_priorities(s, tid, low, 1, -1));
    EXPECT_TRUE(waitFor([&] { return bridge.priority(id, second) == 0; }));
    EXPECT_EQ(bridge.priority(id, first), 7);

    // Limits below 1 mean none, which the report shows as -1 for connections and upload slots
    // and as 0 for the rates. The rates read back as set, beside the queue lengths.
    ASSERT_TRUE(tb_set_limits(s, tid, 1000, 2000, 5, 2));
    EXPECT_EQ(bridge.status(id)["connectionsLimit"].toInt(), 5);
    EXPECT_EQ(bridge.status(id)["uploadsLimit"].toInt(), 2);
    EXPECT_EQ(bridge.status(id)["downloadRateLimit"].toInt(), 1000);
    EXPECT_EQ(bridge.status(id)["uploadRateLimit"].toInt(), 2000);
    ASSERT_TRUE(tb_set_limits(s, tid, 0, -5, 0, 0));
    EXPECT_EQ(bridge.status(id)["connectionsLimit"].toInt(), -1);
    EXPECT_EQ(bridge.status(id)["uploadsLimit"].toInt(), -1);
    EXPECT_EQ(bridge.status(id)["downloadRateLimit"].toInt(), 0);
    EXPECT_EQ(bridge.status(id)["uploadRateLimit"].toInt(), 0);

    // Added trackers join the torrent's own tier; blank lines are no trackers.
    ASSERT_TRUE(tb_add_trackers(s, tid, "http://tracker.example.org/announce\n  \n udp://tracker.example.net:6969 \n"));
    std::vector<std::pair<std::string, int>> trackers;
    for (const QJsonValue &t : bridge.trackers(id))
        trackers.emplace_back(t["url"].toString().toStdString(), t["tier"].toInt());
    EXPECT_EQ(trackers, (std::vector<std::pair<std::string, int>>{
                            {"http://tracker.example.org/announce", 0}, {"udp://tracker.example.net:6969", 0}}));

    // Moving the storage is no loss of files: the watch follows the save path.
    const std::string moved = dir.file("moved");
    fs::create_directories(moved);
    ASSERT_TRUE(tb_move_storage(s, tid, moved.c_str()));
    ASSERT_TRUE(waitFor([&] {
        const QJsonObject now = bridge.status(id);
        return now["savePath"].toString().toStdString() == moved && !now["moving"].toBool();
    }));
    EXPECT_TRUE(fs::exists(moved + "/Show/e1.bin"));
    EXPECT_FALSE(fs::exists(data + "/Show/e1.bin"));
    // Two rounds of the watch, which looks each second.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_NE(bridge.state(id), "missing");
    EXPECT_TRUE(bridge.errors(id).empty());
}

// A user's priority change and a stream opening on another file of the same torrent come from
// two threads at once; neither may undo the other.
TEST(ActionsTest, PriorityChangesAndStreamOpensOnOtherFilesBothStay)
{
    TempDir dir;
    const std::string data = dir.file("data");
    constexpr int Files = 24;
    for (int k = 0; k < Files; ++k)
        writePatternFile(data + "/Pack/f" + std::to_string(100 + k) + ".bin", 16 * 1024, static_cast<uint32_t>(k));
    const MadeTorrent pack = makeTorrent(data, "Pack", dir.file("torrents"));
    LiveBridge bridge(dir.file("state"));
    tb_session *s = bridge.get();
    // Nothing of it on disk where it is saved, and nothing wanted.
    std::string none;
    for (int k = 0; k < Files; ++k)
        none += k ? ",0" : "0";
    char *error = nullptr;
    const std::string id = bridgetest::take(tb_add_torrent(
        s, pack.torrentPath.c_str(), ("save_path=" + dir.file("down") + "\npaused=1\npriorities=" + none).c_str(), &error));
    tb_free(error);
    ASSERT_FALSE(id.empty());
    const char *tid = id.c_str();
    std::vector<int> indexes;
    for (int k = 0; k < Files; ++k)
        indexes.push_back(bridge.fileIndex(id, "Pack/f" + std::to_string(100 + k) + ".bin"));
    ASSERT_TRUE(std::none_of(indexes.begin(), indexes.end(), [](int i) { return i < 0; }));
    ASSERT_TRUE(waitFor([&] {
        return std::all_of(indexes.begin(), indexes.end(), [&](int i) { return bridge.priority(id, i) == 0; });
    }));

    // Several rounds, since the two threads meet at a different moment each time.
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        const int32_t userPriority = round % 2 ? 1 : 7;
        std::thread user([&] {
            for (int k = 0; k < Files; k += 2) {
                const int32_t file[] = {indexes[static_cast<size_t>(k)]};
                tb_set_file_priorities(s, tid, file, 1, userPriority);
            }
        });
        std::thread streams([&] {
            for (int k = 1; k < Files; k += 2) {
                tb_reader *reader = tb_reader_open(s, tid, indexes[static_cast<size_t>(k)]);
                tb_reader_close(reader);
            }
        });
        user.join();
        streams.join();
        const auto settled = [&] {
            for (int k = 0; k < Files; ++k) {
                const int expected = k % 2 ? 4 : userPriority;
                if (bridge.priority(id, indexes[static_cast<size_t>(k)]) != expected)
                    return false;
            }
            return true;
        };
        EXPECT_TRUE(waitFor(settled, std::chrono::seconds(10)));
        // Back to nothing wanted for the next round, one file at a time as the user would.
        std::vector<int32_t> all(indexes.begin(), indexes.end());
        ASSERT_TRUE(tb_set_file_priorities(s, tid, all.data(), Files, 0));
        ASSERT_TRUE(waitFor([&] {
            return std::all_of(indexes.begin(), indexes.end(), [&](int i) { return bridge.priority(id, i) == 0; });
        }));
    }
}
