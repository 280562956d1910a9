#include "bridge/tb_session.h"

#include "bridge/BridgeText.h"
#include "bridge/TrackerPolicy.h"

#include <libtorrent/announce_entry.hpp>
#include <libtorrent/bencode.hpp>
#include <libtorrent/ip_filter.hpp>
#include <libtorrent/peer_info.hpp>
#include <libtorrent/torrent_info.hpp>
#include <libtorrent/write_resume_data.hpp>

#include <cstdio>
#include <iterator>

using namespace tb;

namespace {

// A filter that blocks exactly the addresses of `banned`; text that is no address gives no rule.
lt::ip_filter filter_of(const std::set<std::string> &banned)
{
    lt::ip_filter filter;
    for (const std::string &text : banned) {
        lt::error_code ec;
        const lt::address address = lt::make_address(text, ec);
        if (!ec)
            filter.add_rule(address, address, lt::ip_filter::blocked);
    }
    return filter;
}

} // namespace

std::vector<char> tb::resume_bytes(const lt::add_torrent_params &params)
{
    // Resume data keeps a tracker's tier as the place of its list among the lists of tiers.
    // libtorrent leaves the places between tiers unset, the encoder drops them, and a tagged
    // tracker comes back from a restart as an untagged one, tier 1 instead of 99, which no
    // policy run can take out again. Empty lists keep the places.
    lt::entry resume = lt::write_resume_data(params);
    if (lt::entry *tiers = resume.find_key("trackers"); tiers && tiers->type() == lt::entry::list_t) {
        for (lt::entry &tier : tiers->list()) {
            if (tier.type() == lt::entry::undefined_t)
                tier = lt::entry::list_type();
        }
    }
    std::vector<char> bytes;
    lt::bencode(std::back_inserter(bytes), resume);
    return bytes;
}

void tb_session::apply_trackers(TorrentRec &rec)
{
    try {
        if (!rec.handle.is_valid())
            return;
        // A magnet without metadata keeps what it was believed to be until the metadata says.
        if (const auto info = rec.handle.torrent_file())
            rec.is_private = info->priv();
        if (rec.is_private) {
            // Private trackers count what each user announces; added ones would leak the swarm.
            rec.trackers_applied = true;
            return;
        }
        const std::vector<lt::announce_entry> entries = rec.handle.trackers();
        std::vector<TrackerEntry> current;
        current.reserve(entries.size());
        for (const lt::announce_entry &entry : entries)
            current.push_back(TrackerEntry{entry.url, entry.tier});
        const std::vector<TrackerEntry> wanted = policy_trackers(current, extra_trackers, mirrors);
        if (wanted != current) {
            // The torrent's own entries go back as they were, with their source and fail limit.
            std::map<std::string, const lt::announce_entry *> own;
            for (const lt::announce_entry &entry : entries)
                own.emplace(entry.url, &entry);
            std::vector<lt::announce_entry> list;
            list.reserve(wanted.size());
            for (const TrackerEntry &entry : wanted) {
                const auto it = own.find(entry.url);
                if (it != own.end() && it->second->tier == entry.tier) {
                    list.push_back(*it->second);
                } else {
                    lt::announce_entry added(entry.url);
                    added.tier = static_cast<std::uint8_t>(entry.tier);
                    list.push_back(std::move(added));
                }
            }
            rec.handle.replace_trackers(list);
        }
        rec.trackers_applied = true;
    } catch (const std::exception &e) {
        // The handle went away meanwhile; trackers_applied stays false, so a later pass retries.
        std::fprintf(stderr, "apply trackers failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "apply trackers failed: %s\n", "unknown exception");
    }
}

void tb_session::scan_banned_peers()
{
    std::vector<std::string> patterns;
    std::vector<lt::torrent_handle> handles;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (banned_clients.empty())
            return;
        patterns = banned_clients;
        handles.reserve(torrents.size());
        for (const auto &[id, rec] : torrents)
            handles.push_back(rec.handle);
    }

    // Peer lists can take long to fetch; the lock stays free meanwhile.
    std::vector<std::string> found;
    std::vector<lt::peer_info> peers;
    for (const lt::torrent_handle &handle : handles) {
        try {
            if (!handle.is_valid())
                continue;
            peers.clear();
            handle.get_peer_info(peers);
        } catch (const std::exception &) {
            continue; // removed meanwhile
        }
        for (const lt::peer_info &peer : peers) {
            const std::string_view id(peer.pid.data(), peer.pid.size());
            if (client_banned(id, peer.client, patterns))
                found.push_back(peer.ip.address().to_string());
        }
    }
    if (found.empty())
        return;

    std::lock_guard<std::mutex> guard(mutex);
    // The list may have been emptied while the peers were fetched; then nothing is banned.
    if (banned_clients.empty())
        return;
    bool changed = false;
    for (const std::string &address : found)
        changed = banned_ips.insert(address).second || changed;
    // The filter is built from banned_ips and set under the same lock as tb_set_banned_clients
    // sets its empty one, so the two can never leave the session's filter out of step with the
    // set. set_ip_filter only posts to the network thread; it does not wait.
    if (changed)
        session->set_ip_filter(filter_of(banned_ips));
}

extern "C" {

void tb_set_extra_trackers(tb_session *s, const char *urls, bool mirrors)
{
    if (!s)
        return;
    try {
        std::lock_guard<std::mutex> guard(s->mutex);
        s->extra_trackers = lines(urls);
        s->mirrors = mirrors;
        for (auto &[id, rec] : s->torrents)
            s->apply_trackers(rec);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "set extra trackers failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "set extra trackers failed: %s\n", "unknown exception");
    }
}

void tb_set_banned_clients(tb_session *s, const char *patterns)
{
    if (!s)
        return;
    try {
        std::lock_guard<std::mutex> guard(s->mutex);
        s->banned_clients = lines(patterns);
        // An empty list lifts every ban at once; a changed list keeps the bans it has, since
        // those peers were leeches whatever the list says now.
        if (s->banned_clients.empty() && !s->banned_ips.empty()) {
            s->banned_ips.clear();
            s->session->set_ip_filter(lt::ip_filter());
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "set banned clients failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "set banned clients failed: %s\n", "unknown exception");
    }
}

} // extern "C"
