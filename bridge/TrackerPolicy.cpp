#include "bridge/TrackerPolicy.h"

#include <algorithm>
#include <array>
#include <set>

namespace tb {

namespace {

constexpr std::array<std::string_view, 5> MirrorHosts = {"bt", "bt2", "bt3", "bt4", "bt5"};

// Peer ids begin with an 8-byte client tag ("-XL0012-"); the rest is random.
constexpr size_t PeerIdTagLength = 8;

std::string lower_ascii(std::string_view text)
{
    std::string out(text);
    for (char &c : out) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

} // namespace

std::vector<std::string> mirror_urls(std::string_view url)
{
    const size_t scheme = url.find("://");
    if (scheme == std::string_view::npos)
        return {};
    const size_t hostStart = scheme + 3;
    size_t hostEnd = url.find_first_of(":/", hostStart);
    if (hostEnd == std::string_view::npos)
        hostEnd = url.size();
    const std::string_view host = url.substr(hostStart, hostEnd - hostStart);
    // A bare domain, or a host that merely ends in its letters, is no mirror host.
    if (host.size() < MirrorDomain.size() + 1 || !host.ends_with(MirrorDomain))
        return {};
    const std::string_view prefix = host.substr(0, host.size() - MirrorDomain.size());
    if (!prefix.starts_with("bt"))
        return {};

    std::vector<std::string> urls;
    for (const std::string_view name : MirrorHosts) {
        if (name == prefix)
            continue;
        std::string mirror(url.substr(0, hostStart));
        mirror += name;
        mirror += MirrorDomain;
        mirror += url.substr(hostEnd);
        urls.push_back(std::move(mirror));
    }
    return urls;
}

std::vector<TrackerEntry> policy_trackers(const std::vector<TrackerEntry> &current,
                                          const std::vector<std::string> &extras, bool mirrors)
{
    std::vector<TrackerEntry> list;
    std::set<std::string> seen;
    for (const TrackerEntry &entry : current) {
        if (entry.tier == MirrorTier || entry.tier == ExtraTier)
            continue;
        if (seen.insert(entry.url).second)
            list.push_back(entry);
    }
    if (mirrors) {
        // Mirrors only of the torrent's own trackers: `list` holds nothing else yet.
        const size_t own = list.size();
        for (size_t k = 0; k < own; ++k) {
            for (std::string &url : mirror_urls(list[k].url)) {
                if (seen.insert(url).second)
                    list.push_back(TrackerEntry{std::move(url), MirrorTier});
            }
        }
    }
    for (const std::string &url : extras) {
        if (seen.insert(url).second)
            list.push_back(TrackerEntry{url, ExtraTier});
    }
    return list;
}

bool client_banned(std::string_view peer_id, std::string_view client,
                   const std::vector<std::string> &patterns)
{
    const std::string_view tag = peer_id.substr(0, std::min(peer_id.size(), PeerIdTagLength));
    const std::string name = lower_ascii(client);
    for (const std::string &pattern : patterns) {
        if (pattern.empty())
            continue;
        if (pattern.front() == '-') {
            if (tag.starts_with(pattern))
                return true;
        } else if (name.find(lower_ascii(pattern)) != std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace tb
