#include "LiveBridge.h"

#include "support/SmallDisk.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace testsupport;
using bridgetest::parse;
using livebridge::LiveBridge;

namespace fs = std::filesystem;

namespace {

// The messages of the "save_failed" events the bridge has now.
std::vector<std::string> saveFailures(tb_session *session)
{
    std::vector<std::string> messages;
    for (const QJsonValue &event : parse(tb_poll_events(session)).array()) {
        if (event["type"].toString() == QLatin1String("save_failed"))
            messages.push_back(event["message"].toString().toStdString());
    }
    return messages;
}

} // namespace

TEST(BridgeDurabilityTest, AFullDiskKeepsTheLastGoodResumeFileSaysSoOnceAndRetriesWhenThereIsRoom)
{
    const auto disk = onSmallDisk(2 * 1024 * 1024);
    if (!disk)
        return;
    TempDir dir;
    const std::string data = dir.file("data");
    writePatternFile(data + "/Show/e1.bin", 96 * 1024, 21);
    const MadeTorrent show = makeTorrent(data, "Show", dir.file("torrents"));
    const std::string state = *disk + "/state";
    const std::string resume = state + "/resume/" + show.id + ".resume";
    const std::string full = "Не удалось сохранить состояние торрентов: нет места на диске";

    std::string good;
    std::string filler;
    {
        LiveBridge bridge(state);
        tb_session *s = bridge.get();
        const std::string id = bridge.add(show.torrentPath, data);
        ASSERT_TRUE(bridge.waitForState(id, "seeding"));
        ASSERT_TRUE(waitFor([&] { return fs::exists(resume); }));

        filler = fillDisk(*disk);
        good = readWholeFile(resume);
        // A pause changes the resume data; its write finds no room. The user hears of it once,
        // and the old file stays whole.
        ASSERT_TRUE(tb_action(s, id.c_str(), "pause"));
        std::vector<std::string> told;
        ASSERT_TRUE(waitFor([&] {
            for (const std::string &message : saveFailures(s))
                told.push_back(message);
            return !told.empty();
        }));
        EXPECT_EQ(told, std::vector<std::string>{full});
        EXPECT_EQ(readWholeFile(resume), good);
        // The state file fails within the call; still the same trouble, so no second word.
        tb_save_state(s);
        EXPECT_TRUE(saveFailures(s).empty());
        EXPECT_FALSE(fs::exists(resume + ".tmp"));

        // With room again the next save writes what the failed one lost, although the library
        // counts that data as saved.
        fs::remove(filler);
        tb_save_state(s);
        ASSERT_TRUE(waitFor([&] { return readWholeFile(resume) != good; }));
        good = readWholeFile(resume);
        EXPECT_TRUE(fs::exists(state + "/session.state"));

        // A new failure after a good save is told again; the session then stops on a full disk.
        filler = fillDisk(*disk);
        ASSERT_TRUE(tb_action(s, id.c_str(), "resume"));
        EXPECT_TRUE(waitFor([&] { return saveFailures(s) == std::vector<std::string>{full}; }));
    }
    EXPECT_EQ(readWholeFile(resume), good);

    // The next start brings the torrent back from the last good file, paused as that file says,
    // in its own save path.
    fs::remove(filler);
    LiveBridge again(state);
    const QJsonObject restored = again.status(show.id);
    ASSERT_FALSE(restored.isEmpty());
    EXPECT_EQ(restored["savePath"].toString().toStdString(), data);
    EXPECT_TRUE(restored["paused"].toBool());
}

TEST(BridgeDeathTest, ASessionThatCannotStartAnswersNullInsteadOfEndingTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir dir;
    const std::string state = dir.file("state");
    // Without threads the library can't start; that must come back as null with a word on
    // standard error, not as an exception through the C interface.
    EXPECT_EXIT(
        {
            forbidNewThreads();
            tb_session *session = tb_session_create(state.c_str(), "");
            std::_Exit(session == nullptr ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "the session could not start");
}
