// The stream's timeline on the monotonic clock, with VELIX_READER_LOG: when the tracker
// answered, when the first peer was dialled, asked and delivered, when each piece passed its
// check. Set beside the reader's own lines and the player's first frame, it shows where the
// time to the first frame goes. Only the first of each kind per torrent is written, but for
// pieces, which are few.

#include "bridge/tb_session.h"

#include <libtorrent/alert_types.hpp>

#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <set>

namespace tb {

namespace {

double monotonic_ms()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Runs on the alert thread only, but a lock costs nothing here and keeps it safe at shutdown.
std::mutex seen_lock;
std::map<lt::torrent_handle, std::set<std::string>> seen;

bool first_of(const lt::torrent_handle &handle, const char *what)
{
    std::lock_guard<std::mutex> guard(seen_lock);
    return seen[handle].insert(what).second;
}

} // namespace

std::uint32_t trace_alert_mask()
{
    return static_cast<std::uint32_t>(lt::alert_category::tracker | lt::alert_category::connect
                                      | lt::alert_category::block_progress | lt::alert_category::piece_progress);
}

void trace_line(const char *what, const std::string &detail)
{
    std::fprintf(stderr, "trace %s at_ms=%.3f %s\n", what, monotonic_ms(), detail.c_str());
}

void trace_alert(const lt::alert *alert)
{
    switch (alert->type()) {
    case lt::tracker_reply_alert::alert_type: {
        const auto *a = lt::alert_cast<lt::tracker_reply_alert>(alert);
        if (first_of(a->handle, "tracker"))
            trace_line("tracker_reply", "peers=" + std::to_string(a->num_peers));
        break;
    }
    case lt::peer_connect_alert::alert_type: {
        const auto *a = lt::alert_cast<lt::peer_connect_alert>(alert);
        if (first_of(a->handle, "connect"))
            trace_line("connect", a->endpoint.address().to_string());
        break;
    }
    case lt::block_downloading_alert::alert_type: {
        // A peer is asked for a block as soon as it unchokes.
        const auto *a = lt::alert_cast<lt::block_downloading_alert>(alert);
        if (first_of(a->handle, "request"))
            trace_line("unchoke_request", "piece=" + std::to_string(static_cast<int>(a->piece_index)));
        break;
    }
    case lt::block_finished_alert::alert_type: {
        const auto *a = lt::alert_cast<lt::block_finished_alert>(alert);
        if (first_of(a->handle, "block"))
            trace_line("first_block", "piece=" + std::to_string(static_cast<int>(a->piece_index)));
        break;
    }
    case lt::piece_finished_alert::alert_type: {
        const auto *a = lt::alert_cast<lt::piece_finished_alert>(alert);
        trace_line("piece_verified", "piece=" + std::to_string(static_cast<int>(a->piece_index)));
        break;
    }
    default:
        break;
    }
}

} // namespace tb
