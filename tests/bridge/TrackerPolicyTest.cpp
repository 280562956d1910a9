#include "bridge/TrackerPolicy.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

using tb::ExtraTier;
using tb::MirrorTier;
using tb::TrackerEntry;

namespace {

std::string mirrorHost(const std::string &name)
{
    return name + std::string(tb::MirrorDomain);
}

} // namespace

namespace tb {
// Lets a failing row print its lists readably.
void PrintTo(const TrackerEntry &entry, std::ostream *out)
{
    *out << entry.tier << " " << entry.url;
}
} // namespace tb

TEST(TrackerPolicyTest, MirrorUrlsKeepEverythingButTheHost)
{
    struct Row
    {
        std::string url;
        std::string scheme; // of every mirror
        std::string rest;   // what follows the host in every mirror
        std::vector<const char *> hosts;
    };
    const std::vector<Row> rows = {
        // The host itself is never its own mirror: four siblings, in host order.
        {"http://" + mirrorHost("bt3") + "/ann?pk=0a1b", "http://", "/ann?pk=0a1b", {"bt", "bt2", "bt4", "bt5"}},
        {"http://" + mirrorHost("bt") + "/ann", "http://", "/ann", {"bt2", "bt3", "bt4", "bt5"}},
        // Port and scheme stay; a host that ends the URL works as well as one before a path.
        {"udp://" + mirrorHost("bt5") + ":2710", "udp://", ":2710", {"bt", "bt2", "bt3", "bt4"}},
        {"https://" + mirrorHost("bt2"), "https://", "", {"bt", "bt3", "bt4", "bt5"}},
        // A "bt…" host of the family that isn't one of the five gets all five.
        {"http://" + mirrorHost("btx") + "/ann", "http://", "/ann", {"bt", "bt2", "bt3", "bt4", "bt5"}},
        // Hosts of the family that aren't announce mirrors, and look-alikes of other families.
        {"http://" + mirrorHost("retracker") + "/announce", {}, {}, {}},
        {"http://" + mirrorHost("x") + "/ann", {}, {}, {}},
        {"http://" + std::string(tb::MirrorDomain.substr(1)) + "/ann", {}, {}, {}},
        {"http://" + mirrorHost("bt") + ".example.com/ann", {}, {}, {}},
        {"http://bt.example.org/ann", {}, {}, {}},
        // The domain must be the host's end, not just somewhere in the URL.
        {"http://tracker.example.org/" + mirrorHost("bt") + "/ann", {}, {}, {}},
        // No scheme, no host to take apart.
        {mirrorHost("bt") + "/ann", {}, {}, {}},
        {"", {}, {}, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.url);
        std::vector<std::string> mirrors;
        for (const char *host : row.hosts)
            mirrors.push_back(row.scheme + mirrorHost(host) + row.rest);
        EXPECT_EQ(tb::mirror_urls(row.url), mirrors);
    }
}

TEST(TrackerPolicyTest, PolicyListKeepsOwnTrackersAndRebuildsTaggedOnes)
{
    const std::string bt3 = "http://" + mirrorHost("bt3") + "/ann";
    const std::string bt = "http://" + mirrorHost("bt") + "/ann";
    const std::string bt2 = "http://" + mirrorHost("bt2") + "/ann";
    const std::string bt4 = "http://" + mirrorHost("bt4") + "/ann";
    const std::string bt5 = "http://" + mirrorHost("bt5") + "/ann";
    const std::string other = "udp://tracker.example.org:6969/announce";
    const std::string extra = "http://extra.example.net/announce";
    struct Row
    {
        const char *what;
        std::vector<TrackerEntry> current;
        std::vector<std::string> extras;
        bool mirrors;
        std::vector<TrackerEntry> wanted;
    };
    const std::vector<Row> rows = {
        {"a tracker of another family gets no mirrors, extras go last",
         {{other, 0}}, {extra}, true,
         {{other, 0}, {extra, ExtraTier}}},
        {"mirrors follow the own trackers, extras follow the mirrors",
         {{bt3, 0}, {other, 1}}, {extra}, true,
         {{bt3, 0}, {other, 1}, {bt, MirrorTier}, {bt2, MirrorTier}, {bt4, MirrorTier},
          {bt5, MirrorTier}, {extra, ExtraTier}}},
        {"mirrors off removes what an earlier run added",
         {{bt3, 0}, {bt, MirrorTier}, {bt2, MirrorTier}, {bt4, MirrorTier}, {bt5, MirrorTier},
          {extra, ExtraTier}},
         {extra}, false,
         {{bt3, 0}, {extra, ExtraTier}}},
        {"an extra that is gone from the settings goes from the torrent",
         {{other, 0}, {extra, ExtraTier}}, {}, true,
         {{other, 0}}},
        {"an extra the torrent already has is not added twice",
         {{other, 0}}, {other, extra, extra}, true,
         {{other, 0}, {extra, ExtraTier}}},
        {"an extra that is also a mirror stays a mirror",
         {{bt3, 0}}, {bt5}, true,
         {{bt3, 0}, {bt, MirrorTier}, {bt2, MirrorTier}, {bt4, MirrorTier}, {bt5, MirrorTier}}},
        {"two own hosts of the family share one set of mirrors",
         {{bt, 0}, {bt2, 1}}, {}, true,
         {{bt, 0}, {bt2, 1}, {bt3, MirrorTier}, {bt4, MirrorTier}, {bt5, MirrorTier}}},
        {"an own tracker listed twice is kept once, at its first tier",
         {{other, 2}, {other, 0}}, {}, true,
         {{other, 2}}},
        {"no trackers, no extras",
         {}, {}, true,
         {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const std::vector<TrackerEntry> wanted = tb::policy_trackers(row.current, row.extras, row.mirrors);
        EXPECT_EQ(wanted, row.wanted);
        // A second run over its own result changes nothing, so a settings round that didn't
        // change anything doesn't replace any torrent's trackers.
        EXPECT_EQ(tb::policy_trackers(wanted, row.extras, row.mirrors), wanted);
    }
}

TEST(TrackerPolicyTest, BanPatternsMatchPeerIdTagOrClientName)
{
    struct Row
    {
        std::string peerId;
        std::string client;
        std::vector<std::string> patterns;
        bool banned;
    };
    const std::string xl = "-XL0012-" + std::string("\x01\x9f\0\xff" "abcdefgh", 12);
    const std::vector<Row> rows = {
        {xl, "Xunlei 0.0.1.2", {"-XL"}, true},
        {xl, "", {"-XL0012-"}, true},
        // Peer id tags compare byte for byte, and only within the 8-byte tag.
        {xl, "Xunlei 0.0.1.2", {"-xl"}, false},
        {"-AB1000-XL0012-abcd", "Other 1.0", {"-XL"}, false},
        {xl, "Xunlei", {"-XL0012-\x01"}, false},
        // Names compare ignoring case, anywhere in the name.
        {"-LT2080-abcdefghijkl", "Thunder 7.10.35", {"Thunder"}, true},
        {"-LT2080-abcdefghijkl", "xunlei THUNDER", {"Thunder"}, true},
        {"-LT2080-abcdefghijkl", "MyThunderClient", {"thunder"}, true},
        {"-LT2080-abcdefghijkl", "libtorrent/2.0.8.0", {"Thunder"}, false},
        // A name pattern never looks at the peer id, nor an id pattern at the name.
        {"Thunder0abcdefghijk", "Unknown", {"Thunder"}, false},
        {"-LT2080-abcdefghijkl", "-XL0012-", {"-XL"}, false},
        // Any one pattern of the list is enough.
        {"-LT2080-abcdefghijkl", "Thunder", {"-XL", "-SD", "thunder"}, true},
        {xl, "Xunlei", {}, false},
        // A short or empty peer id can't match a longer tag, and doesn't break the compare.
        {"-XL", "", {"-XL0"}, false},
        {"", "", {"-"}, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.client + " / " + (row.patterns.empty() ? "" : row.patterns.front()));
        EXPECT_EQ(tb::client_banned(row.peerId, row.client, row.patterns), row.banned);
    }
}
