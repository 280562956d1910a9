#include "bridge/tb_session.h"

#include "bridge/BridgeJson.h"
#include "bridge/BridgeText.h"

#include <libtorrent/announce_entry.hpp>
#include <libtorrent/peer_info.hpp>
#include <libtorrent/session_stats.hpp>
#include <libtorrent/torrent_info.hpp>
#include <libtorrent/torrent_status.hpp>

#include <algorithm>
#include <cstdio>
#include <set>

using namespace tb;

namespace {

const char *state_word(lt::torrent_status::state_t state)
{
    switch (state) {
    case lt::torrent_status::checking_files:
    case lt::torrent_status::checking_resume_data:
        return "checking";
    case lt::torrent_status::downloading_metadata:
        return "metadata";
    case lt::torrent_status::downloading:
        return "downloading";
    case lt::torrent_status::finished:
        return "finished";
    case lt::torrent_status::seeding:
        return "seeding";
    default:
        return "unknown";
    }
}

bool is_checking(lt::torrent_status::state_t state)
{
    return state == lt::torrent_status::checking_files
        || state == lt::torrent_status::checking_resume_data;
}

// The library's own error of a torrent, with the file it concerns when it names one.
std::string library_error(const lt::torrent_status &st)
{
    if (!st.errc)
        return {};
    std::string text = st.errc.message();
    if (static_cast<int>(st.error_file) >= 0 && st.has_metadata) {
        const auto info = st.handle.torrent_file();
        if (info && st.error_file < info->files().end_file())
            text += ": " + std::string(info->files().file_name(st.error_file));
    }
    return text;
}

std::string source_words(lt::peer_source_flags_t source)
{
    static constexpr std::pair<lt::peer_source_flags_t, const char *> Words[] = {
        {lt::peer_info::tracker, "tracker"}, {lt::peer_info::dht, "dht"},
        {lt::peer_info::pex, "pex"},         {lt::peer_info::lsd, "lsd"},
        {lt::peer_info::resume_data, "resume"}, {lt::peer_info::incoming, "incoming"},
    };
    std::string text;
    for (const auto &[flag, word] : Words) {
        if (!(source & flag))
            continue;
        if (!text.empty())
            text += ' ';
        text += word;
    }
    return text;
}

// The piece span of one file, or of the whole torrent for an index outside it. An empty file
// has no piece of its own and stands for the whole torrent.
std::pair<int, int> piece_span(const lt::torrent_info &info, int file)
{
    const lt::file_storage &files = info.files();
    const int last_piece = info.num_pieces() - 1;
    if (file < 0 || file >= files.num_files())
        return {0, last_piece};
    const lt::file_index_t index(file);
    const int64_t size = files.file_size(index);
    if (size <= 0)
        return {0, last_piece};
    return {static_cast<int>(files.map_file(index, 0, 1).piece),
            static_cast<int>(files.map_file(index, size - 1, 1).piece)};
}

// A torrent's handle and metadata; the metadata is null for an unknown id or a torrent that
// has none yet, and every report then answers its empty form.
struct WithMetadata
{
    lt::torrent_handle handle;
    std::shared_ptr<const lt::torrent_info> info;
};

WithMetadata with_metadata(tb_session *s, const char *id)
{
    WithMetadata found{s->find(id), nullptr};
    if (found.handle.is_valid())
        found.info = found.handle.torrent_file();
    return found;
}

} // namespace

extern "C" {

char *tb_status_json(tb_session *s)
{
    if (!s)
        return dup("{}");
    try {
        s->session->post_session_stats();
        const std::vector<lt::torrent_status> statuses = s->session->get_torrent_status(
            [](const lt::torrent_status &) { return true; },
            lt::torrent_handle::query_save_path | lt::torrent_handle::query_name
                | lt::torrent_handle::query_distributed_copies);
        int64_t download = 0;
        int64_t upload = 0;
        std::vector<std::string> errors;
        errors.reserve(statuses.size());
        for (const lt::torrent_status &st : statuses) {
            download += st.download_payload_rate;
            upload += st.upload_payload_rate;
            errors.push_back(library_error(st));
        }

        // Some 900 bytes a torrent, every second: a buffer that keeps its capacity from one
        // report to the next spares the doubling copies into fresh pages of a new one.
        thread_local std::string out;
        out.clear();
        {
            std::lock_guard<std::mutex> guard(s->mutex);
            Obj root(out);
            {
                std::lock_guard<std::mutex> report(s->report_lock);
                Obj session(root.key("session"));
                session.i("download", download);
                session.i("upload", upload);
                session.i("dhtNodes", s->dht_nodes);
                session.b("incoming", s->incoming);
                session.s("externalIP", s->external_ip);
                session.s("portmap", s->portmap);
                session.i("banned", static_cast<int64_t>(s->banned_ips.size()));
                {
                    Arr listening(session.key("listening"));
                    for (const std::string &text : s->listening)
                        listening.s(text);
                }
                Arr listen_errors(session.key("listenErrors"));
                for (const std::string &text : s->listen_errors)
                    listen_errors.s(text);
            }
            Arr list(root.key("torrents"));
            for (size_t k = 0; k < statuses.size(); ++k) {
                const lt::torrent_status &st = statuses[k];
                // A torrent still on its way in has no record yet; the engine learns its id
                // from the add call and sees it in the next report.
                const std::string id = s->id_for(st.handle);
                const auto it = s->torrents.find(id);
                if (id.empty() || it == s->torrents.end())
                    continue;
                TorrentRec &rec = it->second;
                // A magnet link's extra trackers go in at the first report after its
                // metadata, also when the metadata alert was lost.
                if (st.has_metadata && !rec.trackers_applied)
                    s->apply_trackers(rec);
                const bool missing = !rec.missing.empty();
                Obj o(list.next());
                o.s("id", id);
                o.s("name", st.name);
                o.s("state", missing ? "missing" : state_word(st.state));
                o.b("paused", static_cast<bool>(st.flags & lt::torrent_flags::paused));
                o.b("autoManaged", static_cast<bool>(st.flags & lt::torrent_flags::auto_managed));
                o.b("sequential", static_cast<bool>(st.flags & lt::torrent_flags::sequential_download));
                o.b("private", rec.is_private);
                o.b("hasMetadata", st.has_metadata);
                o.b("finished", st.is_finished && !missing);
                o.b("seeding", st.is_seeding && !missing);
                o.b("moving", st.moving_storage);
                o.d("progress", st.progress);
                o.i("total", st.total);
                o.i("totalDone", st.total_done);
                o.i("wanted", st.total_wanted);
                o.i("wantedDone", st.total_wanted_done);
                o.i("downloadRate", st.download_payload_rate);
                o.i("uploadRate", st.upload_payload_rate);
                o.i("peers", st.num_peers - st.num_seeds);
                o.i("seeds", st.num_seeds);
                o.i("swarmPeers", st.num_incomplete);
                o.i("swarmSeeds", st.num_complete);
                o.i("connectCandidates", st.connect_candidates);
                o.i("uploaded", st.all_time_upload);
                o.i("downloaded", st.all_time_download);
                o.i("added", static_cast<int64_t>(st.added_time));
                o.i("completed", static_cast<int64_t>(st.completed_time));
                o.i("activeTime", st.active_duration.count());
                o.i("seedingTime", st.seeding_duration.count());
                // The status has no field for a torrent's rate limits; these two carry the
                // bandwidth queue lengths and the engine knows it.
                o.i("downloadLimit", st.down_bandwidth_queue);
                o.i("uploadLimit", st.up_bandwidth_queue);
                o.i("connectionsLimit", st.connections_limit);
                o.i("uploadsLimit", st.uploads_limit);
                // The rate limits themselves, in bytes per second, 0 for none.
                o.i("downloadRateLimit", rec.download_limit);
                o.i("uploadRateLimit", rec.upload_limit);
                o.i("queue", static_cast<int>(st.queue_position));
                o.i("pieces", st.num_pieces);
                o.d("availability", st.distributed_copies);
                o.s("savePath", st.save_path);
                o.s("tracker", st.current_tracker);
                o.s("error", missing ? rec.missing : errors[k]);
            }
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "status report failed: %s\n", e.what());
        return dup("{}");
    } catch (...) {
        std::fprintf(stderr, "status report failed: %s\n", "unknown exception");
        return dup("{}");
    }
}

char *tb_files_json(tb_session *s, const char *id)
{
    if (!s || !id)
        return dup("[]");
    try {
        const auto [handle, info] = with_metadata(s, id);
        if (!info)
            return dup("[]");
        const std::vector<int64_t> progress = handle.file_progress();
        const std::vector<lt::download_priority_t> priorities = handle.get_file_priorities();
        // The handle's metadata carries the renames; the original names stay in orig_files.
        const lt::file_storage &files = info->files();
        std::string out;
        {
            Arr list(out);
            for (const lt::file_index_t file : files.file_range()) {
                const auto index = static_cast<size_t>(static_cast<int>(file));
                const int64_t size = files.file_size(file);
                Obj o(list.next());
                o.i("i", static_cast<int>(file));
                o.s("path", files.file_path(file, ""));
                o.i("size", size);
                o.i("done", index < progress.size() ? progress[index] : 0);
                o.i("prio", index < priorities.size() ? static_cast<int>(static_cast<std::uint8_t>(priorities[index])) : 4);
                o.b("pad", files.pad_file_at(file));
                o.i("first", size > 0 ? static_cast<int>(files.map_file(file, 0, 1).piece) : 0);
                o.i("last", size > 0 ? static_cast<int>(files.map_file(file, size - 1, 1).piece) : 0);
            }
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "files report failed: %s\n", e.what());
        return dup("[]");
    } catch (...) {
        std::fprintf(stderr, "files report failed: %s\n", "unknown exception");
        return dup("[]");
    }
}

char *tb_peers_json(tb_session *s, const char *id)
{
    if (!s || !id)
        return dup("[]");
    try {
        const lt::torrent_handle handle = s->find(id);
        if (!handle.is_valid())
            return dup("[]");
        std::vector<lt::peer_info> peers;
        handle.get_peer_info(peers);
        std::string out;
        {
            Arr list(out);
            for (const lt::peer_info &p : peers) {
                std::string flags;
                if (p.flags & (lt::peer_info::rc4_encrypted | lt::peer_info::plaintext_encrypted))
                    flags += 'E';
                if (p.flags & lt::peer_info::utp_socket)
                    flags += 'U';
                if (p.flags & lt::peer_info::seed)
                    flags += 'S';
                if (p.source & lt::peer_info::incoming)
                    flags += 'I';
                Obj o(list.next());
                o.s("ip", p.ip.address().to_string());
                o.i("port", p.ip.port());
                o.s("client", p.client);
                o.s("flags", flags);
                o.s("source", source_words(p.source));
                o.d("progress", p.progress);
                o.i("downloadRate", p.payload_down_speed);
                o.i("uploadRate", p.payload_up_speed);
                o.i("downloaded", p.total_download);
                o.i("uploaded", p.total_upload);
                o.i("rttMs", p.rtt);
                o.i("outstandingRequests", p.download_queue_length);
                o.i("targetRequests", p.target_dl_queue_length);
                o.i("timedOutRequests", p.timed_out_requests);
                o.i("pendingDiskBytes", p.pending_disk_bytes);
                o.b("remoteChoked", static_cast<bool>(p.flags & lt::peer_info::remote_choked));
                o.b("waitingForDisk", static_cast<bool>(p.read_state & lt::peer_info::bw_disk));
                o.b("waitingForNetwork", static_cast<bool>(p.read_state & lt::peer_info::bw_network));
                o.b("waitingForRateLimit", static_cast<bool>(p.read_state & lt::peer_info::bw_limit));
            }
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "peers report failed: %s\n", e.what());
        return dup("[]");
    } catch (...) {
        std::fprintf(stderr, "peers report failed: %s\n", "unknown exception");
        return dup("[]");
    }
}

char *tb_trackers_json(tb_session *s, const char *id)
{
    if (!s || !id)
        return dup("[]");
    try {
        const lt::torrent_handle handle = s->find(id);
        if (!handle.is_valid())
            return dup("[]");
        const std::vector<lt::announce_entry> entries = handle.trackers();
        const auto now = lt::clock_type::now();
        std::string out;
        {
            Arr list(out);
            for (const lt::announce_entry &entry : entries) {
                // One endpoint per listen socket, each with a v1 and a v2 half: the report
                // folds them into one line per URL.
                bool updating = false;
                bool working = false;
                bool contacted = false;
                int fails = 0;
                int seeds = -1;
                int peers = -1;
                int downloaded = -1;
                int64_t next_announce = -1;
                std::string message;
                for (const lt::announce_endpoint &endpoint : entry.endpoints) {
                    for (const lt::announce_infohash &half : endpoint.info_hashes) {
                        updating = updating || half.updating;
                        if (half.start_sent && half.fails == 0 && !half.updating)
                            working = true;
                        if (half.fails > 0 || half.start_sent || half.updating)
                            contacted = true;
                        fails = std::max(fails, static_cast<int>(half.fails));
                        seeds = std::max(seeds, half.scrape_complete);
                        peers = std::max(peers, half.scrape_incomplete);
                        downloaded = std::max(downloaded, half.scrape_downloaded);
                        if (message.empty() && half.last_error)
                            message = half.last_error.message();
                        if (message.empty())
                            message = half.message;
                        if (half.next_announce > now) {
                            const int64_t wait = std::chrono::duration_cast<std::chrono::seconds>(
                                                     half.next_announce - now)
                                                     .count();
                            if (next_announce < 0 || wait < next_announce)
                                next_announce = wait;
                        }
                    }
                }
                const char *status = updating ? "updating"
                    : working                 ? "working"
                    : fails > 0               ? "error"
                    : contacted               ? "contacted"
                                              : "idle";
                Obj o(list.next());
                o.s("url", entry.url);
                o.i("tier", entry.tier);
                o.s("status", status);
                o.s("message", message);
                o.i("fails", fails);
                o.i("seeds", seeds);
                o.i("peers", peers);
                o.i("downloaded", downloaded);
                o.i("nextAnnounce", next_announce);
                // Tiers 98 and 99 tag the trackers the bridge added itself.
                o.b("extra", entry.tier == 99);
                o.b("mirror", entry.tier == 98);
            }
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "trackers report failed: %s\n", e.what());
        return dup("[]");
    } catch (...) {
        std::fprintf(stderr, "trackers report failed: %s\n", "unknown exception");
        return dup("[]");
    }
}

char *tb_diagnostics_json(tb_session *s)
{
    if (!s)
        return dup("{}");
    try {
        // Asked for now, the sample is fresh for the next call.
        s->session->post_session_stats();
        const lt::settings_pack settings = s->session->get_settings();
        std::vector<int64_t> metrics;
        int64_t age_ms = -1;
        {
            std::lock_guard<std::mutex> guard(s->report_lock);
            metrics = s->metrics;
            if (s->has_stats)
                age_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - s->stats_time)
                             .count();
        }
        static constexpr std::pair<int, const char *> Settings[] = {
            {lt::settings_pack::download_rate_limit, "download_rate_limit"},
            {lt::settings_pack::upload_rate_limit, "upload_rate_limit"},
            {lt::settings_pack::connections_limit, "connections_limit"},
            {lt::settings_pack::connection_speed, "connection_speed"},
            {lt::settings_pack::max_out_request_queue, "max_out_request_queue"},
            {lt::settings_pack::request_queue_time, "request_queue_time"},
            {lt::settings_pack::max_queued_disk_bytes, "max_queued_disk_bytes"},
            {lt::settings_pack::aio_threads, "aio_threads"},
            {lt::settings_pack::hashing_threads, "hashing_threads"},
            {lt::settings_pack::checking_mem_usage, "checking_mem_usage"},
            {lt::settings_pack::send_buffer_watermark, "send_buffer_watermark"},
            {lt::settings_pack::mixed_mode_algorithm, "mixed_mode_algorithm"},
        };
        std::string out;
        {
            Obj root(out);
            root.i("sampleAgeMs", age_ms);
            {
                Obj counters(root.key("counters"));
                for (const lt::stats_metric &metric : lt::session_stats_metrics()) {
                    if (metric.value_index >= 0
                        && static_cast<size_t>(metric.value_index) < metrics.size())
                        counters.i(metric.name, metrics[static_cast<size_t>(metric.value_index)]);
                }
            }
            Obj values(root.key("settings"));
            for (const auto &[name, key] : Settings)
                values.i(key, settings.get_int(name));
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "diagnostics report failed: %s\n", e.what());
        return dup("{}");
    } catch (...) {
        std::fprintf(stderr, "diagnostics report failed: %s\n", "unknown exception");
        return dup("{}");
    }
}

char *tb_pieces(tb_session *s, const char *id, int file)
{
    if (!s || !id)
        return dup("");
    try {
        const auto [handle, info] = with_metadata(s, id);
        if (!info)
            return dup("");
        const lt::torrent_status st = handle.status(lt::torrent_handle::query_pieces);
        std::set<int> queued;
        for (const lt::partial_piece_info &piece : handle.get_download_queue())
            queued.insert(static_cast<int>(piece.piece_index));
        const auto [first, last] = piece_span(*info, file);
        std::string out;
        for (int piece = first; piece <= last; ++piece) {
            if (piece < st.pieces.size() && st.pieces.get_bit(lt::piece_index_t(piece)))
                out += '1';
            else if (queued.count(piece))
                out += '2';
            else
                out += '0';
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pieces report failed: %s\n", e.what());
        return dup("");
    } catch (...) {
        std::fprintf(stderr, "pieces report failed: %s\n", "unknown exception");
        return dup("");
    }
}

char *tb_piece_states(tb_session *s, const char *id)
{
    if (!s || !id)
        return dup("");
    try {
        const auto [handle, info] = with_metadata(s, id);
        if (!info)
            return dup("");
        const lt::torrent_status st = handle.status(lt::torrent_handle::query_pieces);
        const int count = info->num_pieces();
        if (st.is_seeding)
            return dup(std::string(static_cast<size_t>(count), '1'));
        std::string out(static_cast<size_t>(count), '0');

        // Availability means something only for a running torrent with peers: a paused one
        // would show every missing piece as lost.
        const bool with_availability = !is_checking(st.state)
            && !(st.flags & lt::torrent_flags::paused) && st.num_peers > 0;
        std::vector<int> availability;
        std::vector<lt::download_priority_t> priorities;
        if (with_availability) {
            handle.piece_availability(availability);
            priorities = handle.get_piece_priorities();
        }
        for (int piece = 0; piece < count; ++piece) {
            const auto k = static_cast<size_t>(piece);
            if (piece < st.pieces.size() && st.pieces.get_bit(lt::piece_index_t(piece)))
                out[k] = '1';
            else if (with_availability && k < availability.size() && availability[k] == 0
                     && k < priorities.size() && priorities[k] > lt::dont_download)
                out[k] = '3';
        }
        for (const lt::partial_piece_info &piece : handle.get_download_queue()) {
            const int index = static_cast<int>(piece.piece_index);
            if (index < 0 || index >= count || out[static_cast<size_t>(index)] == '1')
                continue;
            if (piece.finished + piece.writing + piece.requested > 0)
                out[static_cast<size_t>(index)] = '2';
        }
        return dup(out);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "piece states report failed: %s\n", e.what());
        return dup("");
    } catch (...) {
        std::fprintf(stderr, "piece states report failed: %s\n", "unknown exception");
        return dup("");
    }
}

} // extern "C"
