#include "LiveBridge.h"

#include "bridge/TrackerPolicy.h"

#include <gtest/gtest.h>

#include <utility>

using namespace testsupport;
using livebridge::LiveBridge;

namespace {

using Trackers = std::vector<std::pair<std::string, int>>;

// URL and tier of each entry, checking on the way that the report's flags agree with the tier.
Trackers trackersOf(const LiveBridge &bridge, const std::string &id)
{
    Trackers list;
    for (const QJsonValue &entry : bridge.trackers(id)) {
        const int tier = entry["tier"].toInt();
        EXPECT_EQ(entry["mirror"].toBool(), tier == tb::MirrorTier);
        EXPECT_EQ(entry["extra"].toBool(), tier == tb::ExtraTier);
        list.emplace_back(entry["url"].toString().toStdString(), tier);
    }
    return list;
}

std::string announceOn(const std::string &host)
{
    return "http://" + host + std::string(tb::MirrorDomain) + "/ann?pk=5f3c";
}

} // namespace

TEST(TrackerPolicySessionTest, PublicTorrentsGetMirrorsAndExtrasPrivateOnesKeepTheirList)
{
    TempDir dir;
    const std::string data = dir.file("data");
    const std::string family = announceOn("bt3");
    const std::string other = "udp://tracker.example.org:6969/announce";
    const std::string extra = "http://extra.example.net/announce";
    writePatternFile(data + "/public.bin", 20 * 1024, 1);
    writePatternFile(data + "/private.bin", 20 * 1024, 2);
    writePatternFile(data + "/other.bin", 20 * 1024, 3);
    TorrentOptions options;
    options.trackers = {family};
    const MadeTorrent pub = makeTorrent(data, "public.bin", dir.file("torrents"), options);
    options.isPrivate = true;
    const MadeTorrent priv = makeTorrent(data, "private.bin", dir.file("torrents"), options);
    options = {};
    options.trackers = {other};
    const MadeTorrent plain = makeTorrent(data, "other.bin", dir.file("torrents"), options);

    LiveBridge bridge(dir.file("state"));
    tb_session *s = bridge.get();
    // Set before the torrents come: a torrent gets the policy as it is added.
    tb_set_extra_trackers(s, (extra + "\n" + family + "\n").c_str(), true);
    const std::string pubId = bridge.add(pub.torrentPath, data, true);
    const std::string privId = bridge.add(priv.torrentPath, data, true);
    const std::string plainId = bridge.add(plain.torrentPath, data, true);
    ASSERT_FALSE(pubId.empty() || privId.empty() || plainId.empty());

    const Trackers privOwn = {{family, 0}};
    const Trackers mirrors = {{announceOn("bt"), tb::MirrorTier}, {announceOn("bt2"), tb::MirrorTier},
                              {announceOn("bt4"), tb::MirrorTier}, {announceOn("bt5"), tb::MirrorTier}};
    Trackers wanted = {{family, 0}};
    wanted.insert(wanted.end(), mirrors.begin(), mirrors.end());
    wanted.emplace_back(extra, tb::ExtraTier);
    EXPECT_EQ(trackersOf(bridge, pubId), wanted) << "the family's own tracker is no extra";
    EXPECT_EQ(trackersOf(bridge, privId), privOwn);
    EXPECT_EQ(trackersOf(bridge, plainId), (Trackers{{other, 0}, {extra, tb::ExtraTier}, {family, tb::ExtraTier}}));

    // Setting the same again changes nothing and adds nothing twice.
    tb_set_extra_trackers(s, (extra + "\n" + family).c_str(), true);
    EXPECT_EQ(trackersOf(bridge, pubId), wanted);

    // Mirrors off takes the mirrors out again; the torrent's own tracker stays.
    tb_set_extra_trackers(s, extra.c_str(), false);
    EXPECT_EQ(trackersOf(bridge, pubId), (Trackers{{family, 0}, {extra, tb::ExtraTier}}));
    EXPECT_EQ(trackersOf(bridge, plainId), (Trackers{{other, 0}, {extra, tb::ExtraTier}}));
    EXPECT_EQ(trackersOf(bridge, privId), privOwn);
}

TEST(TrackerPolicySessionTest, MatchingPeerIsBannedUntilTheListIsEmptied)
{
    TempDir dir;
    writePatternFile(dir.file("seed/film.bin"), 2 * 1024 * 1024, 7);
    const MadeTorrent film = makeTorrent(dir.file("seed"), "film.bin", dir.file("torrents"));
    // Slow enough that the download is still running when the ban scan comes round.
    LocalSeeder seeder(16 * 1024);
    ASSERT_TRUE(seeder.seed(film));

    LiveBridge bridge(dir.file("state"));
    tb_session *s = bridge.get();
    // The seeder is a stock libtorrent: its peer id begins "-LT20".
    tb_set_banned_clients(s, "-LT20\n");
    const std::string id = bridge.add(film.torrentPath, dir.file("data"));
    ASSERT_FALSE(id.empty());
    seeder.connectTo(film, bridge.port());
    ASSERT_TRUE(waitFor([&] { return !bridge.peers(id).isEmpty(); }));

    ASSERT_TRUE(waitFor([&] { return bridge.sessionInfo()["banned"].toInt() == 1; }, std::chrono::seconds(60)));
    EXPECT_TRUE(waitFor([&] { return bridge.peers(id).isEmpty(); }));

    // Another non-empty list keeps the bans already made.
    tb_set_banned_clients(s, "Thunder");
    EXPECT_EQ(bridge.sessionInfo()["banned"].toInt(), 1);
    EXPECT_TRUE(bridge.peers(id).isEmpty());

    // An empty list lifts them: the seeder gets in again.
    tb_set_banned_clients(s, "");
    EXPECT_EQ(bridge.sessionInfo()["banned"].toInt(), 0);
    seeder.connectTo(film, bridge.port());
    EXPECT_TRUE(waitFor([&] { return !bridge.peers(id).isEmpty(); }, std::chrono::seconds(60)));
}

TEST(TrackerPolicySessionTest, AnExtraUdpTrackerOnTheTorrentsOwnHostKeepsItsTagAcrossARestart)
{
    // libtorrent likes udp before http on one host and would trade the two places, tiers and
    // all; the tier is the only thing that tells the extra apart.
    TempDir dir;
    const std::string data = dir.file("data");
    const std::string own = "http://tracker.example.org:2710/announce";
    const std::string extra = "udp://tracker.example.org:6969/announce";
    writePatternFile(data + "/film.bin", 20 * 1024, 4);
    TorrentOptions options;
    options.trackers = {own};
    const MadeTorrent film = makeTorrent(data, "film.bin", dir.file("torrents"), options);
    const Trackers tagged = {{own, 0}, {extra, tb::ExtraTier}};

    std::string id;
    {
        LiveBridge bridge(dir.file("state"));
        tb_set_extra_trackers(bridge.get(), extra.c_str(), true);
        id = bridge.add(film.torrentPath, data, true);
        ASSERT_FALSE(id.empty());
        EXPECT_EQ(trackersOf(bridge, id), tagged);
    }
    // The list comes back from the resume data, and the engine sets the same extras again.
    LiveBridge bridge(dir.file("state"));
    ASSERT_FALSE(bridge.status(id).isEmpty());
    tb_set_extra_trackers(bridge.get(), extra.c_str(), true);
    EXPECT_EQ(trackersOf(bridge, id), tagged);
    tb_set_extra_trackers(bridge.get(), "", true);
    EXPECT_EQ(trackersOf(bridge, id), (Trackers{{own, 0}}));
}
