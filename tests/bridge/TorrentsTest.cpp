#include "BridgeHarness.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

// The presence file's reader and writer are bridge internals without libtorrent types in their
// signatures; declared here so the format is tested without the session header.
namespace tb {
std::set<int> parse_presence(const std::vector<char> &bytes);
std::string presence_text(const std::set<int> &present);
} // namespace tb

using namespace bridgetest;
using namespace testsupport;
namespace fs = std::filesystem;

namespace {

std::string settingsText()
{
    return quietSettingsText(freeTcpPort())
        + "\nactive_downloads=20\nactive_seeds=20\nactive_limit=50\nactive_checking=4\n";
}

// Two files, so that one can go missing while the other stays; in a hybrid torrent a pad file
// stands between them and the second file's index is 2, not 1.
void makeTwoFiles(const std::string &root, const std::string &name, int64_t first, int64_t second,
                  uint32_t seed)
{
    writePatternFile(root + "/" + name + "/a.bin", first, seed);
    writePatternFile(root + "/" + name + "/b.bin", second, seed + 100);
}

// Adds a .torrent file or, for "magnet:" and "http:" input, a link; returns the id or "". The
// error text, "" for none, goes to `error` when there is one to take it.
std::string add(tb_session *s, const std::string &input, const std::string &options,
                std::string *error = nullptr)
{
    const bool link = input.rfind("magnet:", 0) == 0 || input.rfind("http:", 0) == 0;
    char *text = nullptr;
    char **out = error ? &text : nullptr;
    const std::string id = take(link ? tb_add_magnet(s, input.c_str(), options.c_str(), out)
                                     : tb_add_torrent(s, input.c_str(), options.c_str(), out));
    if (error)
        *error = take(text);
    return id;
}

struct FileEntry
{
    int index = 0;
    std::string path;
};

std::vector<FileEntry> realFiles(tb_session *session, const std::string &id)
{
    std::vector<FileEntry> files;
    for (const QJsonValue &v : parse(tb_files_json(session, id.c_str())).array()) {
        const QJsonObject f = v.toObject();
        if (!f.value("pad").toBool())
            files.push_back({f.value("i").toInt(), str(f, "path")});
    }
    return files;
}

std::string presenceOf(const std::vector<FileEntry> &files, const std::string &word = "v1")
{
    std::string text = word + "\n";
    for (const FileEntry &f : files)
        text += std::to_string(f.index) + "\n";
    return text;
}

void writeText(const std::string &path, const std::string &text)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string resumeFile(const std::string &state, const std::string &id, const char *ext = ".resume")
{
    return state + "/resume/" + id + ext;
}

std::string stateOf(tb_session *s, const std::string &id) { return str(torrentStatus(s, id), "state"); }

} // namespace

TEST(TorrentsTest, PresenceFileKeepsIndexesOnlyUnderItsOwnFormatWord)
{
    const std::array<std::pair<std::string, std::set<int>>, 6> rows{{
        {"v1\n7\n3\n3\n", {3, 7}}, {"v1\r\n4\r\n", {4}}, {"v1\n-1\nx\n5z\n9\n", {9}},
        {"v2\n0\n2\n", {}}, {"V1\n1\n", {}}, {"", {}}}};
    for (const auto &[text, present] : rows)
        EXPECT_EQ(tb::parse_presence(std::vector<char>(text.begin(), text.end())), present) << "text: " << text;
    const std::string written = tb::presence_text({12, 0, 3});
    EXPECT_EQ(written, "v1\n0\n3\n12\n");
    EXPECT_EQ(tb::parse_presence(std::vector<char>(written.begin(), written.end())), (std::set<int>{0, 3, 12}));
}

TEST(TorrentsTest, AddsFilesAndMagnetsWithTheirOptionsAndRemovesThem)
{
    TempDir tmp;
    const std::string state = tmp.file("state");
    // A resume file that doesn't parse stays for the next start; its id names no torrent.
    const std::string stray(40, 'e');
    writeText(resumeFile(state, stray), "not resume data");
    writeText(resumeFile(state, stray, ".presence"), "v1\n0\n");

    makeTwoFiles(tmp.path(), "Alpha", 40000, 24000, 1);
    makeTwoFiles(tmp.path(), "Beta", 30000, 10000, 2);
    const MadeTorrent alpha = makeTorrent(tmp.path(), "Alpha", tmp.file("torrents"));
    TorrentOptions v1;
    v1.v1Only = true;
    const MadeTorrent beta = makeTorrent(tmp.path(), "Beta", tmp.file("torrents"), v1);
    const std::string magnetId(40, 'c');
    const std::string savePath = "save_path=" + tmp.path() + "\n";

    BridgeSession s(state, settingsText());
    EXPECT_TRUE(statusJson(s.get()).value("torrents").toArray().isEmpty());

    std::string error;
    EXPECT_EQ(add(s.get(), alpha.torrentPath, savePath + "paused=1\npriorities=7,0,0\n", &error), alpha.id);
    EXPECT_EQ(error, "");
    EXPECT_EQ(add(s.get(), beta.torrentPath, savePath + "sequential=1"), beta.id);
    // Priorities can't apply to a link whose files are unknown; they must not break the add.
    EXPECT_EQ(add(s.get(), "magnet:?xt=urn:btih:" + magnetId + "&dn=later", savePath + "paused=1\npriorities=1,2", &error),
              magnetId);
    EXPECT_EQ(error, "");

    const QJsonObject a = torrentStatus(s.get(), alpha.id);
    EXPECT_TRUE(a.value("paused").toBool());
    EXPECT_FALSE(a.value("autoManaged").toBool());
    EXPECT_FALSE(a.value("sequential").toBool());
    const QJsonObject b = torrentStatus(s.get(), beta.id);
    EXPECT_FALSE(b.value("paused").toBool());
    EXPECT_TRUE(b.value("autoManaged").toBool()) << "no paused key means the queue manages it";
    EXPECT_TRUE(b.value("sequential").toBool());
    std::map<std::string, int> priorities;
    for (const QJsonValue &v : parse(tb_files_json(s.get(), alpha.id.c_str())).array())
        priorities[str(v.toObject(), "path")] = v.toObject().value("prio").toInt();
    EXPECT_EQ(priorities["Alpha/a.bin"], 7);
    EXPECT_EQ(priorities["Alpha/b.bin"], 0);

    // A duplicate answers with the id the torrent was added under, also when it comes by the
    // other half of a hybrid hash, and leaves the torrent as it was.
    const std::array<std::pair<std::string, std::string>, 3> duplicates{{
        {alpha.torrentPath, alpha.id},
        {"magnet:?xt=urn:btih:" + alpha.v1Hex, alpha.id},
        {"magnet:?xt=urn:btih:" + magnetId, magnetId},
    }};
    for (const auto &[input, expectedId] : duplicates) {
        EXPECT_EQ(add(s.get(), input, "paused=0", &error), expectedId) << input;
        EXPECT_EQ(error, "duplicate") << input;
    }
    EXPECT_EQ(statusJson(s.get()).value("torrents").toArray().size(), 3);
    EXPECT_TRUE(torrentStatus(s.get(), alpha.id).value("paused").toBool());

    writeText(tmp.file("text.torrent"), "this is not bencoded");
    for (const std::string &input : {tmp.file("absent.torrent"), tmp.file("text.torrent"), std::string(),
                                     std::string("magnet:?xt=urn:btih:xyz"), std::string("http://127.0.0.1/a.torrent")}) {
        EXPECT_EQ(add(s.get(), input, "", &error), "") << input;
        EXPECT_FALSE(error.empty()) << input;
        // Without a place for the text the call still just fails.
        EXPECT_EQ(add(s.get(), input, ""), "") << input;
    }

    // Each added torrent is on disk from its first second, magnet included.
    for (const std::string &id : {alpha.id, beta.id, magnetId}) {
        EXPECT_TRUE(waitFor([&] { return fs::exists(resumeFile(state, id)); })) << id;
        EXPECT_EQ(readWholeFile(resumeFile(state, id, ".presence")).substr(0, 3), "v1\n") << id;
    }

    EXPECT_FALSE(tb_remove(s.get(), stray.c_str(), 0));
    EXPECT_FALSE(tb_remove(s.get(), "not an id", 1));
    EXPECT_FALSE(tb_remove(s.get(), nullptr, 0));
    EXPECT_EQ(readWholeFile(resumeFile(state, stray)), "not resume data");
    EXPECT_EQ(readWholeFile(resumeFile(state, stray, ".presence")), "v1\n0\n");

    ASSERT_TRUE(tb_remove(s.get(), beta.id.c_str(), 0));
    EXPECT_FALSE(fs::exists(resumeFile(state, beta.id)));
    EXPECT_FALSE(fs::exists(resumeFile(state, beta.id, ".presence")));
    EXPECT_TRUE(torrentStatus(s.get(), beta.id).isEmpty());
    EXPECT_TRUE(fs::exists(tmp.file("Beta/a.bin"))) << "flags 0 keeps the data";
    EXPECT_FALSE(tb_remove(s.get(), beta.id.c_str(), 0));

    ASSERT_TRUE(tb_remove(s.get(), alpha.id.c_str(), 1));
    EXPECT_TRUE(waitFor([&] { return !fs::exists(tmp.file("Alpha/a.bin")); }));

    s.close();
    // The last saves at shutdown write only what is still there.
    EXPECT_FALSE(fs::exists(resumeFile(state, beta.id)));
    EXPECT_FALSE(fs::exists(resumeFile(state, alpha.id)));
    EXPECT_TRUE(fs::exists(resumeFile(state, magnetId)));
}

TEST(TorrentsTest, BtihLinkOfHybridTorrentKeepsItsIdThroughMetadataAndRestarts)
{
    TempDir tmp;
    makeTwoFiles(tmp.file("seed"), "Show", 300000, 200000, 7);
    const MadeTorrent show = makeTorrent(tmp.file("seed"), "Show", tmp.file("torrents"));
    ASSERT_NE(show.id, show.v1Hex) << "the torrent must be hybrid for the id to matter";
    LocalSeeder seeder;
    ASSERT_TRUE(seeder.seed(show));

    const std::string state = tmp.file("state");
    const std::string down = tmp.file("down");
    const std::string settings = settingsText();
    const std::string options = "save_path=" + down;

    {
        BridgeSession s(state, settings);
        std::string error;
        const std::string id = add(s.get(), seeder.magnet(show), options, &error);
        ASSERT_EQ(id, show.v1Hex);
        EXPECT_EQ(error, "");

        std::vector<std::string> metadataEvents;
        ASSERT_TRUE(waitFor([&] {
            for (const QJsonValue &e : parse(tb_poll_events(s.get())).array()) {
                if (e.toObject().value("type").toString() == "metadata")
                    metadataEvents.push_back(str(e.toObject(), "id"));
            }
            return torrentStatus(s.get(), id).value("seeding").toBool();
        }, std::chrono::seconds(90)));
        EXPECT_EQ(metadataEvents, std::vector<std::string>{show.v1Hex});
        EXPECT_EQ(str(torrentStatus(s.get(), id), "name"), show.name);
        EXPECT_EQ(readWholeFile(down + "/Show/b.bin"), readWholeFile(tmp.file("seed/Show/b.bin")));

        // The metadata now names the v2 hash; the torrent is still known by the link's id.
        EXPECT_EQ(add(s.get(), show.torrentPath, options, &error), show.v1Hex);
        EXPECT_EQ(error, "duplicate");
        EXPECT_EQ(take(tb_files_json(s.get(), show.id.c_str())), "[]");
        const std::vector<FileEntry> files = realFiles(s.get(), id);
        EXPECT_EQ(files.size(), 2u);
        EXPECT_EQ(statusJson(s.get()).value("torrents").toArray().size(), 1);
        // The watch records the complete files under the link's id as well.
        EXPECT_TRUE(waitFor([&] { return readWholeFile(resumeFile(state, id, ".presence")) == presenceOf(files); }));
        // The torrent's own rate limits go with it.
        ASSERT_TRUE(tb_set_limits(s.get(), id.c_str(), 50000, 60000, 0, 0));
    }
    EXPECT_TRUE(fs::exists(resumeFile(state, show.v1Hex)));
    EXPECT_FALSE(fs::exists(resumeFile(state, show.id)));

    // Back under the same id after a restart, hashed again and seeding as before.
    BridgeSession s(state, settings);
    ASSERT_TRUE(torrentStatus(s.get(), show.v1Hex).value("hasMetadata").toBool());
    EXPECT_EQ(torrentStatus(s.get(), show.v1Hex).value("downloadRateLimit").toInt(), 50000);
    EXPECT_EQ(torrentStatus(s.get(), show.v1Hex).value("uploadRateLimit").toInt(), 60000);
    EXPECT_TRUE(waitFor([&] { return stateOf(s.get(), show.v1Hex) == "seeding"; }, std::chrono::seconds(60)));
}

TEST(TorrentsTest, RestoreHashesEveryTorrentAndHoldsBackOnlyOnesMissingAWantedFile)
{
    enum class Presence { Listed, OtherWord, Absent };
    enum class Damage { None, DeleteSecond, RewriteFirst };
    struct Row
    {
        const char *name;
        Presence presence;
        const char *options;
        Damage damage;
        bool held;
        const char *settled; // the state it ends in after the check
    };
    const std::array<Row, 6> rows{{
        {"Gone", Presence::Listed, "", Damage::DeleteSecond, true, "missing"},
        // Not a format this build knows: nothing is held back, the check finds the hole.
        {"Foreign", Presence::OtherWord, "", Damage::DeleteSecond, false, "downloading"},
        // No presence file: the resume data's pieces say which files were there.
        {"Pieces", Presence::Absent, "", Damage::DeleteSecond, true, "missing"},
        // A file the user switched off may be deleted on purpose.
        {"Unwanted", Presence::Listed, "priorities=4,0,0\n", Damage::DeleteSecond, false, "finished"},
        // Same size, other bytes: only a real hash check can tell, the resume data's piece list
        // must not be believed.
        {"Damaged", Presence::Listed, "", Damage::RewriteFirst, false, "downloading"},
        {"Intact", Presence::Listed, "", Damage::None, false, "seeding"},
    }};

    TempDir tmp;
    const std::string state = tmp.file("state");
    const std::string content = tmp.file("content");
    const std::string settings = settingsText();
    const std::string magnetId(40, 'a');
    std::map<std::string, MadeTorrent> made;
    std::map<std::string, std::vector<FileEntry>> files;
    uint32_t seed = 10;
    for (const Row &row : rows) {
        makeTwoFiles(content, row.name, 40000, 24000, seed++);
        made[row.name] = makeTorrent(content, row.name, tmp.file("torrents"));
    }
    const auto allSettled = [&](tb_session *s, const auto &settled) {
        for (const Row &row : rows) {
            if (!settled(row, stateOf(s, made[row.name].id)))
                return false;
        }
        return true;
    };

    {
        BridgeSession s(state, settings);
        for (const Row &row : rows)
            ASSERT_EQ(add(s.get(), made[row.name].torrentPath, "save_path=" + content + "\n" + row.options),
                      made[row.name].id) << row.name;
        ASSERT_EQ(add(s.get(), "magnet:?xt=urn:btih:" + magnetId, "save_path=" + content), magnetId);
        ASSERT_TRUE(waitFor([&] {
            return allSettled(s.get(), [](const Row &, const std::string &st) { return st == "seeding" || st == "finished"; });
        }, std::chrono::seconds(60)));
        for (const Row &row : rows) {
            files[row.name] = realFiles(s.get(), made[row.name].id);
            ASSERT_EQ(files[row.name].size(), 2u) << row.name;
        }
    }

    for (const Row &row : rows) {
        const std::string presence = resumeFile(state, made[row.name].id, ".presence");
        if (row.presence == Presence::Listed)
            writeText(presence, presenceOf(files[row.name]));
        else if (row.presence == Presence::OtherWord)
            writeText(presence, presenceOf(files[row.name], "v2"));
        else
            fs::remove(presence);
        if (row.damage == Damage::DeleteSecond)
            fs::remove(content + "/" + files[row.name][1].path);
        else if (row.damage == Damage::RewriteFirst)
            writePatternFile(content + "/" + files[row.name][0].path, 40000, 999);
    }

    BridgeSession s(state, settings, false);
    // Added again while the library may still be coming back: found, not started over.
    std::string error;
    EXPECT_EQ(add(s.get(), made["Intact"].torrentPath, "save_path=" + tmp.file("elsewhere"), &error), made["Intact"].id);
    EXPECT_EQ(error, "duplicate");
    ASSERT_TRUE(waitFor([&] { return !tb_session_restoring(s.get()); }));
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const QJsonObject st = torrentStatus(s.get(), made[row.name].id);
        ASSERT_FALSE(st.isEmpty());
        EXPECT_EQ(st.value("paused").toBool(), row.held);
        EXPECT_EQ(st.value("autoManaged").toBool(), !row.held);
    }
    ASSERT_TRUE(waitFor([&] {
        return allSettled(s.get(), [](const Row &row, const std::string &st) { return st == row.settled; });
    }, std::chrono::seconds(60))) << take(tb_status_json(s.get()));

    // A link saved before its metadata came back as a link, under its id.
    const QJsonObject magnet = torrentStatus(s.get(), magnetId);
    EXPECT_FALSE(magnet.value("hasMetadata").toBool());
    EXPECT_EQ(str(magnet, "state"), "metadata");
    EXPECT_EQ(take(tb_files_json(s.get(), magnetId.c_str())), "[]");
}

// A stop writes resume files only for the torrents that changed since their last save: a big
// library at rest has nothing to write, and asking every torrent cost seconds of the stop.
TEST(TorrentsTest, StopRewritesOnlyTheResumeFilesOfTorrentsThatChanged)
{
    TempDir tmp;
    const std::string state = tmp.file("state");
    const std::string content = tmp.file("content");
    std::vector<MadeTorrent> made;
    for (int k = 0; k < 5; ++k) {
        const std::string name = "Item" + std::to_string(k);
        makeTwoFiles(content, name, 20000, 12000, static_cast<uint32_t>(40 + k));
        made.push_back(makeTorrent(content, name, tmp.file("torrents")));
    }
    // A file written anew is a new inode with a new modification time; the inode alone can
    // come back when a file is replaced twice and the old number is reused.
    using FileMark = std::pair<ino_t, int64_t>;
    const auto inodes = [&] {
        std::vector<FileMark> out;
        for (const MadeTorrent &t : made) {
            struct stat info {};
            out.push_back(::stat(resumeFile(state, t.id).c_str(), &info) == 0
                              ? FileMark(info.st_ino, int64_t(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec)
                              : FileMark(0, 0));
        }
        return out;
    };

    BridgeSession s(state, settingsText());
    for (const MadeTorrent &t : made)
        ASSERT_EQ(add(s.get(), t.torrentPath, "save_path=" + content + "\npaused=1"), t.id);
    // Saved once more after whatever the adds set going, then left until no file changes.
    ASSERT_TRUE(waitFor([&] {
        const std::vector<FileMark> now = inodes();
        return std::none_of(now.begin(), now.end(), [](const FileMark &m) { return m.first == 0; });
    }));
    tb_save_state(s.get());
    std::vector<FileMark> atRest = inodes();
    ASSERT_TRUE(waitFor([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        const std::vector<FileMark> now = inodes();
        const bool still = now == atRest;
        atRest = now;
        return still;
    }));

    ASSERT_TRUE(tb_action(s.get(), made[2].id.c_str(), "force_start"));
    ASSERT_TRUE(waitFor([&] { return !torrentStatus(s.get(), made[2].id).value("paused").toBool(); }));
    s.close();
    const std::vector<FileMark> after = inodes();
    for (size_t k = 0; k < made.size(); ++k) {
        SCOPED_TRACE(k);
        if (k == 2)
            EXPECT_NE(after[k], atRest[k]) << "the started torrent's file is written anew";
        else
            EXPECT_EQ(after[k], atRest[k]) << "an unchanged torrent's file is left as it is";
    }
}
