#pragma once

// The bridge's tracker and ban rules as plain functions over strings, apart from the session
// that applies them: which mirrors a tracker has, which list a public torrent should carry, and
// which peers count as leeches.
//
// Trackers the bridge adds are tagged by tier, so that they can be recognised in a torrent's
// list (and its resume data) and taken out again without touching the torrent's own trackers.

#include <string>
#include <string_view>
#include <vector>

namespace tb {

// Tier of a mirror of one of the torrent's own trackers.
constexpr int MirrorTier = 98;
// Tier of an extra tracker from the settings.
constexpr int ExtraTier = 99;

// A public tracker family whose announce hosts "bt", "bt2" … "bt5" below this domain serve the
// same swarms: when one host is blocked or down, its siblings still answer.
constexpr std::string_view MirrorDomain = ".t-ru.org";

struct TrackerEntry
{
    std::string url;
    int tier = 0;

    bool operator==(const TrackerEntry &) const = default;
};

// The sibling URLs of a tracker whose host is one of the mirror hosts (or any "bt…" name) below
// MirrorDomain: the same URL with each other mirror host, in host order. Empty for any other URL.
std::vector<std::string> mirror_urls(std::string_view url);

// The list a public torrent should carry: its own entries (tiers other than the two tags, first
// of each URL, in order), then the mirrors of those when `mirrors` is on, then `extras`, each
// added only when its URL is not there yet. Tagged entries of an earlier run are dropped and
// computed anew, so turning an option off removes what it added.
std::vector<TrackerEntry> policy_trackers(const std::vector<TrackerEntry> &current,
                                          const std::vector<std::string> &extras, bool mirrors);

// Whether a peer matches a ban pattern. A pattern starting with "-" is a peer id prefix in the
// usual "-XX1234-" form and is compared byte for byte with the first 8 bytes of `peer_id`; any
// other pattern matches when the client name contains it, ignoring ASCII case.
bool client_banned(std::string_view peer_id, std::string_view client,
                   const std::vector<std::string> &patterns);

} // namespace tb
