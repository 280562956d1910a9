#include "BridgeHarness.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <string>
#include <vector>

using namespace bridgetest;
using namespace testsupport;

namespace {

const std::string SessionShape =
    "download:i upload:i dhtNodes:i incoming:b externalIP:s portmap:s banned:i listening:a listenErrors:a";

const std::string TorrentShape =
    "id:s name:s state:s paused:b autoManaged:b sequential:b private:b hasMetadata:b finished:b seeding:b "
    "moving:b progress:n total:i totalDone:i wanted:i wantedDone:i downloadRate:i uploadRate:i peers:i "
    "seeds:i swarmPeers:i swarmSeeds:i connectCandidates:i uploaded:i downloaded:i added:i completed:i "
    "activeTime:i seedingTime:i downloadLimit:i uploadLimit:i connectionsLimit:i uploadsLimit:i downloadRateLimit:i "
    "uploadRateLimit:i queue:i "
    "pieces:i availability:n savePath:s tracker:s error:s";

const std::string FileShape = "i:i path:s size:i done:i prio:i pad:b first:i last:i";

const std::string PeerShape =
    "ip:s port:i client:s flags:s source:s progress:n downloadRate:i uploadRate:i downloaded:i uploaded:i "
    "rttMs:i outstandingRequests:i targetRequests:i timedOutRequests:i pendingDiskBytes:i remoteChoked:b "
    "waitingForDisk:b waitingForNetwork:b waitingForRateLimit:b";

const std::string TrackerShape =
    "url:s tier:i status:s message:s fails:i seeds:i peers:i downloaded:i nextAnnounce:i extra:b mirror:b";

// The twelve settings, in the order the report writes them.
const std::string SettingsShape =
    "download_rate_limit:i upload_rate_limit:i connections_limit:i connection_speed:i "
    "max_out_request_queue:i request_queue_time:i max_queued_disk_bytes:i aio_threads:i hashing_threads:i "
    "checking_mem_usage:i send_buffer_watermark:i mixed_mode_algorithm:i";

// True when every letter of `text` appears in `order`, in that order and at most once.
bool inOrder(const std::string &text, const std::string &order)
{
    size_t at = 0;
    for (const char c : text) {
        at = order.find(c, at);
        if (at == std::string::npos)
            return false;
        ++at;
    }
    return true;
}

bool onlyDigits(const std::string &text, char highest)
{
    return std::all_of(text.begin(), text.end(), [&](char c) { return c >= '0' && c <= highest; });
}

} // namespace

TEST(ReportsTest, InspectDescribesATorrentFileOrSaysWhyNot)
{
    TempDir tmp;
    writePatternFile(tmp.file("Box/a.bin"), 40000, 1);
    writePatternFile(tmp.file("Box/b.bin"), 24000, 2);
    TorrentOptions options;
    // A tracker URL is kept byte for byte by the library, so a bad byte reaches the report.
    options.trackers = {"http://127.0.0.1:1/announce", "udp://127.0.0.1:2/ann\xff"};
    const MadeTorrent box = makeTorrent(tmp.path(), "Box", tmp.file("torrents"), options);

    const std::string text = take(tb_inspect_torrent(box.torrentPath.c_str()));
    expectShape(text, "id:s name:s size:i pieceLength:i pieces:i private:b comment:s creator:s trackers:a files:a");
    const QJsonObject o = parse(text).object();
    EXPECT_EQ(str(o, "id"), box.id);
    EXPECT_EQ(o.value("pieces").toInt(), box.numPieces);
    EXPECT_FALSE(o.value("private").toBool());
    const QJsonArray trackers = o.value("trackers").toArray();
    ASSERT_EQ(trackers.size(), 2);
    EXPECT_EQ(trackers[0].toString(), "http://127.0.0.1:1/announce");
    EXPECT_EQ(trackers[1].toString(), QString::fromUtf8("udp://127.0.0.1:2/ann\xEF\xBF\xBD"));

    // A hybrid torrent aligns each file to a piece with pad files; they are listed and marked.
    std::vector<std::string> paths;
    int64_t sum = 0;
    const auto items = elements(member(text, "files"));
    for (size_t k = 0; k < items.size(); ++k) {
        expectShape(items[k], "i:i path:s size:i pad:b");
        const QJsonObject f = parse(items[k]).object();
        EXPECT_EQ(f.value("i").toInt(), static_cast<int>(k));
        if (!f.value("pad").toBool())
            paths.push_back(str(f, "path"));
        sum += f.value("size").toInteger();
    }
    EXPECT_EQ(paths, (std::vector<std::string>{"Box/a.bin", "Box/b.bin"}));
    EXPECT_GT(items.size(), paths.size());
    EXPECT_EQ(o.value("size").toInteger(), sum);

    writePatternFile(tmp.file("Solo/one.bin"), 5000, 3);
    TorrentOptions privateV1;
    privateV1.v1Only = true;
    privateV1.isPrivate = true;
    const MadeTorrent solo = makeTorrent(tmp.file("Solo"), "one.bin", tmp.file("torrents"), privateV1);
    const QJsonObject s = parse(tb_inspect_torrent(solo.torrentPath.c_str())).object();
    EXPECT_EQ(str(s, "id"), solo.v1Hex);
    EXPECT_TRUE(s.value("private").toBool());
    EXPECT_TRUE(s.value("trackers").toArray().isEmpty());
    ASSERT_EQ(s.value("files").toArray().size(), 1);
    EXPECT_EQ(str(s.value("files").toArray()[0].toObject(), "path"), "one.bin");

    std::ofstream(tmp.file("text.torrent")) << "d8:announce";
    std::ofstream(tmp.file("empty.torrent")).flush();
    for (const std::string &path : {tmp.file("absent.torrent"), tmp.file("text.torrent"), tmp.file("empty.torrent")}) {
        const std::string error = take(tb_inspect_torrent(path.c_str()));
        expectShape(error, "error:s");
        EXPECT_FALSE(str(parse(error).object(), "error").empty()) << path;
    }
    expectShape(take(tb_inspect_torrent(nullptr)), "error:s");
}

TEST(ReportsTest, ReportsKeepTheirKeysAndTypesThroughADownload)
{
    TempDir tmp;
    writePatternFile(tmp.file("seed/Reel/a.bin"), 600000, 5);
    writePatternFile(tmp.file("seed/Reel/b.bin"), 400000, 6);
    writePatternFile(tmp.file("seed/Reel/empty.txt"), 0, 7);
    TorrentOptions options;
    // Nothing listens there: the entry exists, its announces fail.
    options.trackers = {"http://127.0.0.1:" + std::to_string(freeTcpPort()) + "/announce"};
    const MadeTorrent reel = makeTorrent(tmp.file("seed"), "Reel", tmp.file("torrents"), options);
    // Throttled so that the peer is still connected while the reports are read.
    LocalSeeder seeder(256 * 1024);
    ASSERT_TRUE(seeder.seed(reel));

    const int port = freeTcpPort();
    const std::string down = tmp.file("down");
    // An unknown key is skipped and the known ones still apply.
    BridgeSession s(tmp.file("state"),
                    quietSettingsText(port) + "\nhashing_threads=2\nno_such_setting=5\nconnections_limit=123\n");

    // The first report comes before any session statistics or address alert.
    const std::string first = take(tb_status_json(s.get()));
    expectShape(first, "session:o torrents:a");
    expectShape(member(first, "session"), SessionShape);
    EXPECT_EQ(member(first, "torrents"), "[]");

    // A link whose name and tracker carry bytes that aren't UTF-8; paused, so it stays quiet.
    const std::string badId(40, 'b');
    ASSERT_EQ(take(tb_add_magnet(s.get(),
                                 ("magnet:?xt=urn:btih:" + badId + "&dn=a%FFb&tr=http%3A%2F%2F127.0.0.1%3A1%2Fa%FE").c_str(),
                                 ("paused=1\nsave_path=" + down).c_str(), nullptr)),
              badId);
    const std::string id = take(tb_add_torrent(s.get(), reel.torrentPath.c_str(), ("save_path=" + down).c_str(), nullptr));
    ASSERT_EQ(id, reel.id);
    seeder.connectTo(reel, port);

    // The seeder dialled in; once its bitfield has come it is an incoming seed.
    std::string peer;
    ASSERT_TRUE(waitFor([&] {
        const auto peers = elements(take(tb_peers_json(s.get(), id.c_str())));
        peer = peers.empty() ? "{}" : peers.front();
        return str(parse(peer).object(), "flags").find('S') != std::string::npos;
    }, std::chrono::seconds(30))) << peer;
    {
        expectShape(peer, PeerShape);
        const QJsonObject p = parse(peer).object();
        EXPECT_EQ(str(p, "ip"), "127.0.0.1");
        const std::string flags = str(p, "flags");
        EXPECT_TRUE(inOrder(flags, "EUSI")) << flags;
        EXPECT_NE(flags.find('I'), std::string::npos) << flags;
        EXPECT_EQ(str(p, "source"), "incoming");
    }
    {
        const std::string states = take(tb_piece_states(s.get(), id.c_str()));
        EXPECT_EQ(states.size(), static_cast<size_t>(reel.numPieces));
        EXPECT_TRUE(onlyDigits(states, '3')) << states;
        const std::string pieces = take(tb_pieces(s.get(), id.c_str(), -1));
        EXPECT_EQ(pieces.size(), static_cast<size_t>(reel.numPieces));
        EXPECT_TRUE(onlyDigits(pieces, '2')) << pieces;
    }
    ASSERT_TRUE(waitFor([&] { return torrentStatus(s.get(), id).value("seeding").toBool(); }, std::chrono::seconds(90)));

    const std::string status = take(tb_status_json(s.get()));
    const auto torrents = elements(member(status, "torrents"));
    ASSERT_EQ(torrents.size(), 2u);
    for (const std::string &t : torrents)
        expectShape(t, TorrentShape);
    const QJsonObject st = torrentStatus(s.get(), id);
    EXPECT_DOUBLE_EQ(st.value("progress").toDouble(), 1.0);
    EXPECT_EQ(st.value("wantedDone").toInteger(), st.value("wanted").toInteger());
    EXPECT_EQ(st.value("pieces").toInt(), reel.numPieces);
    EXPECT_EQ(st.value("queue").toInt(), -1) << "a seed has no place in the download queue";
    EXPECT_GT(st.value("completed").toInteger(), 0);
    EXPECT_EQ(str(st, "savePath"), down);
    const QJsonObject bad = torrentStatus(s.get(), badId);
    EXPECT_EQ(bad.value("name").toString(), QString::fromUtf8("a\xEF\xBF\xBD" "b"));
    EXPECT_EQ(str(bad, "state"), "metadata");
    EXPECT_TRUE(bad.value("paused").toBool());

    // Files: each real file is complete, at the default priority, with its own piece span.
    const std::string files = take(tb_files_json(s.get(), id.c_str()));
    int realFiles = 0;
    for (const std::string &item : elements(files)) {
        expectShape(item, FileShape);
        const QJsonObject f = parse(item).object();
        const int index = f.value("i").toInt();
        if (f.value("pad").toBool())
            continue;
        ++realFiles;
        SCOPED_TRACE(str(f, "path"));
        EXPECT_EQ(f.value("done").toInteger(), f.value("size").toInteger());
        EXPECT_EQ(f.value("prio").toInt(), 4);
        const std::string span = take(tb_pieces(s.get(), id.c_str(), index));
        if (f.value("size").toInteger() == 0) {
            EXPECT_EQ(f.value("first").toInt(), 0);
            EXPECT_EQ(f.value("last").toInt(), 0);
            EXPECT_EQ(span, std::string(static_cast<size_t>(reel.numPieces), '1')) << "an empty file stands for the whole torrent";
        } else {
            EXPECT_LE(f.value("first").toInt(), f.value("last").toInt());
            EXPECT_EQ(span, std::string(static_cast<size_t>(f.value("last").toInt() - f.value("first").toInt() + 1), '1'));
        }
    }
    EXPECT_EQ(realFiles, 3);
    const std::string whole(static_cast<size_t>(reel.numPieces), '1');
    EXPECT_EQ(take(tb_pieces(s.get(), id.c_str(), -1)), whole);
    EXPECT_EQ(take(tb_pieces(s.get(), id.c_str(), 1000)), whole);
    EXPECT_EQ(take(tb_piece_states(s.get(), id.c_str())), whole);

    const std::string trackers = take(tb_trackers_json(s.get(), id.c_str()));
    const auto entries = elements(trackers);
    ASSERT_EQ(entries.size(), 1u) << trackers;
    expectShape(entries[0], TrackerShape);
    const QJsonObject tr = parse(entries[0]).object();
    EXPECT_EQ(str(tr, "url"), options.trackers[0]);
    EXPECT_FALSE(tr.value("extra").toBool() || tr.value("mirror").toBool());
    EXPECT_NE(std::string(" updating working error contacted idle ").find(" " + str(tr, "status") + " "), std::string::npos)
        << str(tr, "status");

    // The paused link never announced: an untouched entry, and its bad byte repaired.
    const QJsonArray quiet = parse(tb_trackers_json(s.get(), badId.c_str())).array();
    ASSERT_EQ(quiet.size(), 1);
    const QJsonObject q = quiet[0].toObject();
    EXPECT_EQ(q.value("url").toString(), QString::fromUtf8("http://127.0.0.1:1/a\xEF\xBF\xBD"));
    EXPECT_EQ(str(q, "status"), "idle");
    for (const char *key : {"seeds", "peers", "downloaded", "nextAnnounce"})
        EXPECT_EQ(q.value(key).toInt(), -1) << key;
    EXPECT_EQ(take(tb_files_json(s.get(), badId.c_str())), "[]");
    EXPECT_EQ(take(tb_pieces(s.get(), badId.c_str(), -1)), "");

    std::string diagnostics;
    ASSERT_TRUE(waitFor([&] {
        diagnostics = take(tb_diagnostics_json(s.get()));
        return parse(diagnostics).object().value("sampleAgeMs").toInteger() >= 0;
    }));
    expectShape(diagnostics, "sampleAgeMs:i counters:o settings:o");
    expectShape(member(diagnostics, "settings"), SettingsShape);
    const QJsonObject d = parse(diagnostics).object();
    EXPECT_EQ(d.value("settings").toObject().value("hashing_threads").toInt(), 2);
    EXPECT_EQ(d.value("settings").toObject().value("connections_limit").toInt(), 123);
    // Counters go by their library names, the two the status report reads among them.
    for (const std::string counter : {"dht.dht_nodes", "net.has_incoming_connections"})
        EXPECT_TRUE(hasKind(member(member(diagnostics, "counters"), counter), 'i')) << counter;
}

TEST(ReportsTest, UnknownTorrentsAndMissingSessionGiveTheEmptyForms)
{
    TempDir tmp;
    BridgeSession s(tmp.file("state"), quietSettingsText(freeTcpPort()));
    const std::array<const char *, 4> ids{"", "not an id", "0000000000000000000000000000000000000000", nullptr};
    for (const char *id : ids) {
        SCOPED_TRACE(id ? id : "null");
        EXPECT_EQ(take(tb_files_json(s.get(), id)), "[]");
        EXPECT_EQ(take(tb_peers_json(s.get(), id)), "[]");
        EXPECT_EQ(take(tb_trackers_json(s.get(), id)), "[]");
        EXPECT_EQ(take(tb_pieces(s.get(), id, -1)), "");
        EXPECT_EQ(take(tb_piece_states(s.get(), id)), "");
    }
    // A report that could not be built must not read as "no torrents": the engine would drop
    // them all. An empty object fails its decode and counts as a failed round.
    EXPECT_EQ(take(tb_status_json(nullptr)), "{}");
    EXPECT_EQ(take(tb_diagnostics_json(nullptr)), "{}");
    EXPECT_EQ(take(tb_files_json(nullptr, "x")), "[]");
    EXPECT_EQ(take(tb_pieces(nullptr, "x", 0)), "");
}
