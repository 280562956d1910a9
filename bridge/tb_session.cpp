#include "bridge/tb_session.h"

#include "bridge/BridgeJson.h"
#include "bridge/BridgeText.h"

#include <libtorrent/read_resume_data.hpp>
#include <libtorrent/session_params.hpp>
#include <libtorrent/session_stats.hpp>
#include <libtorrent/settings_pack.hpp>
#include <libtorrent/write_resume_data.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <sys/stat.h>

namespace tb {

namespace {

constexpr char HexDigits[] = "0123456789abcdef";

std::string hex(const char *bytes, size_t count)
{
    std::string text;
    text.reserve(count * 2);
    for (size_t k = 0; k < count; ++k) {
        const auto c = static_cast<unsigned char>(bytes[k]);
        text += HexDigits[c >> 4];
        text += HexDigits[c & 15];
    }
    return text;
}

} // namespace

std::string id_of(const lt::info_hash_t &hashes)
{
    if (hashes.has_v2())
        return hex(hashes.v2.data(), 20);
    return hex(hashes.v1.data(), 20);
}

lt::settings_pack make_pack(const char *text)
{
    lt::settings_pack pack;
    pack.set_int(lt::settings_pack::hashing_threads, 16);
    pack.set_int(lt::settings_pack::checking_mem_usage, 16384);
    for (const auto &[key, value] : options(text)) {
        const int name = lt::setting_by_name(key);
        if (name < 0)
            continue;
        switch (name & lt::settings_pack::type_mask) {
        case lt::settings_pack::string_type_base:
            pack.set_str(name, value);
            break;
        case lt::settings_pack::int_type_base:
            pack.set_int(name, std::atoi(value.c_str()));
            break;
        case lt::settings_pack::bool_type_base:
            pack.set_bool(name, value == "1" || value == "true");
            break;
        default:
            break;
        }
    }
    // The alert queue carries only what the bridge handles, whatever the text asked for.
    pack.set_int(lt::settings_pack::alert_mask,
                 static_cast<int>(0x40004Du | (reader_log_enabled() ? trace_alert_mask() : 0u)));
    return pack;
}

bool reader_log_enabled()
{
    static const bool enabled = std::getenv("VELIX_READER_LOG") != nullptr;
    return enabled;
}

bool check_log_enabled()
{
    static const bool enabled = std::getenv("VELIX_CHECK_LOG") != nullptr;
    return enabled;
}

void check_log(const char *what, const std::string &name)
{
    if (!check_log_enabled())
        return;
    timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    std::fprintf(stderr, "check %s at_ms=%.3f name=%s\n", what,
                 static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6, name.c_str());
}

} // namespace tb

using namespace tb;

lt::torrent_handle tb_session::find(const std::string &id)
{
    std::lock_guard<std::mutex> guard(mutex);
    const auto it = torrents.find(id);
    return it == torrents.end() ? lt::torrent_handle() : it->second.handle;
}

std::string tb_session::id_for(const lt::torrent_handle &handle)
{
    std::lock_guard<std::mutex> guard(mutex);
    return id_for_locked(handle);
}

std::string tb_session::id_for_locked(const lt::torrent_handle &handle) const
{
    const auto it = handle_ids.find(handle);
    return it == handle_ids.end() ? std::string() : it->second;
}

std::string tb_session::resume_path(const std::string &id) const
{
    return dir + "/resume/" + id + ".resume";
}

std::string tb_session::presence_path(const std::string &id) const
{
    return dir + "/resume/" + id + ".presence";
}

void tb_session::event(const std::string &type, const std::string &id, const std::string &name,
                       const std::string &message)
{
    events.push_back(Event{type, id, name, message});
    // A slow engine loses the oldest half and keeps the newest events.
    if (events.size() >= 201)
        events.erase(events.begin(), events.begin() + 100);
}

void tb_session::write_state()
{
    const lt::session_params params = session->session_state(lt::session::save_dht_state);
    const std::vector<char> bytes = lt::write_session_params_buf(params, lt::session::save_dht_state);
    write_file(dir + "/session.state", bytes);
}

void tb_session::alert_loop()
{
    std::vector<lt::alert *> alerts;
    while (!stop.load()) {
        session->wait_for_alert(std::chrono::milliseconds(300));
        alerts.clear();
        session->pop_alerts(&alerts);
        for (lt::alert *alert : alerts)
            handle_alert(alert);
        const SteadyTime now = std::chrono::steady_clock::now();
        bool fileScan = false;
        bool banScan = false;
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (now - last_file_scan > std::chrono::seconds(1)) {
                last_file_scan = now;
                fileScan = true;
            }
            if (now - last_ban_scan > std::chrono::seconds(15)) {
                last_ban_scan = now;
                banScan = true;
            }
        }
        try {
            if (fileScan)
                scan_files();
            if (banScan)
                scan_banned_peers();
        } catch (const std::exception &e) {
            std::fprintf(stderr, "bridge scan failed: %s\n", e.what());
        }
    }
}

void tb_session::scan_files()
{
    std::lock_guard<std::mutex> guard(mutex);
    if (torrents.empty())
        return;
    // One trip to the network thread for every torrent's status, instead of one per torrent:
    // with thousands of torrents the per-torrent trips were the whole cost of a quiet second.
    std::vector<lt::torrent_status> all = session->get_torrent_status(
        [](const lt::torrent_status &) { return true; },
        lt::torrent_handle::query_save_path | lt::torrent_handle::query_torrent_file);
    std::map<lt::torrent_handle, const lt::torrent_status *> by_handle;
    for (const lt::torrent_status &st : all)
        by_handle.emplace(st.handle, &st);
    for (auto &[id, rec] : torrents) {
        const auto found = by_handle.find(rec.handle);
        if (found != by_handle.end())
            check_files(id, rec, *found->second);
    }
}

void tb_session::start_next_check()
{
    // The library's queue starts a waiting check at most once a second. After a restart every
    // torrent is checked again, one at a time, and with many small torrents that second, not
    // the disk, set the pace. The queue's own choice is made here as soon as a check ends: the
    // torrent stays in the queue's hands, which counts it as the one check running.
    const std::vector<lt::torrent_status> checking = session->get_torrent_status(
        [](const lt::torrent_status &st) {
            return st.state == lt::torrent_status::checking_files
                || st.state == lt::torrent_status::checking_resume_data;
        },
        {});
    const lt::torrent_status *next = nullptr;
    for (const lt::torrent_status &st : checking) {
        if (!(st.flags & lt::torrent_flags::paused))
            return;
        // A torrent the user paused is not in the queue's hands and waits for the user.
        if (!(st.flags & lt::torrent_flags::auto_managed) || st.state != lt::torrent_status::checking_files)
            continue;
        if (!next || st.queue_position < next->queue_position)
            next = &st;
    }
    if (next)
        next->handle.resume();
}

void tb_session::handle_alert(lt::alert *alert)
{
    if (!alert) {
        std::lock_guard<std::mutex> guard(mutex);
        return;
    }
    try {
        if (reader_log_enabled())
            trace_alert(alert);
        switch (alert->type()) {
        case lt::piece_finished_alert::alert_type:
            piece_reads_changed.notify_all();
            break;
        case lt::read_piece_alert::alert_type: {
            auto *a = lt::alert_cast<lt::read_piece_alert>(alert);
            const std::string id = id_for(a->handle);
            {
                std::lock_guard<std::mutex> guard(piece_reads_lock);
                const auto it = piece_reads.find({id, static_cast<int>(a->piece)});
                if (reader_log_enabled())
                    std::fprintf(stderr, "read_piece_alert piece=%d size=%d error=%s known=%d\n",
                                 static_cast<int>(a->piece), a->size,
                                 a->error ? a->error.message().c_str() : "-",
                                 it != piece_reads.end() ? 1 : 0);
                if (it != piece_reads.end()) {
                    it->second.ready = true;
                    it->second.failed = static_cast<bool>(a->error);
                    it->second.buffer = a->buffer;
                    it->second.size = a->size;
                }
                trim_piece_cache();
            }
            piece_reads_changed.notify_all();
            break;
        }
        case lt::save_resume_data_alert::alert_type: {
            auto *a = lt::alert_cast<lt::save_resume_data_alert>(alert);
            const std::vector<char> bytes = lt::write_resume_data_buf(a->params);
            {
                // Checked and written under one lock: tb_remove erases the record and deletes
                // the file under it too, so a removed torrent never gets its file back from a
                // write that was already on its way.
                std::lock_guard<std::mutex> guard(mutex);
                const std::string id = id_for_locked(a->handle);
                if (!id.empty() && torrents.count(id) != 0)
                    write_file(resume_path(id), bytes);
            }
            [[fallthrough]];
        }
        case lt::save_resume_data_failed_alert::alert_type: {
            {
                std::lock_guard<std::mutex> guard(save_mutex);
                if (pending_saves > 0)
                    --pending_saves;
            }
            save_done.notify_all();
            break;
        }
        case lt::metadata_received_alert::alert_type: {
            auto *a = lt::alert_cast<lt::metadata_received_alert>(alert);
            std::lock_guard<std::mutex> guard(mutex);
            const std::string id = id_for_locked(a->handle);
            const auto it = torrents.find(id);
            if (it != torrents.end())
                apply_trackers(it->second);
            a->handle.save_resume_data(lt::torrent_handle::save_info_dict);
            event("metadata", id, a->torrent_name(), "");
            break;
        }
        case lt::torrent_checked_alert::alert_type:
            if (check_log_enabled())
                check_log("done", lt::alert_cast<lt::torrent_checked_alert>(alert)->torrent_name());
            start_next_check();
            break;
        case lt::torrent_finished_alert::alert_type: {
            auto *a = lt::alert_cast<lt::torrent_finished_alert>(alert);
            std::lock_guard<std::mutex> guard(mutex);
            event("finished", id_for_locked(a->handle), a->torrent_name(), "");
            a->handle.save_resume_data(lt::torrent_handle::save_info_dict);
            break;
        }
        case lt::file_error_alert::alert_type: {
            auto *a = lt::alert_cast<lt::file_error_alert>(alert);
            std::fprintf(stderr, "file error %s op=%s file=%s\n", a->error.message().c_str(),
                         lt::operation_name(a->op), a->filename());
            std::lock_guard<std::mutex> guard(mutex);
            const std::string id = id_for_locked(a->handle);
            const auto it = torrents.find(id);
            if (it != torrents.end()) {
                check_files(id, it->second);
                // The user already has the text about the missing file; the raw error says less.
                if (!it->second.missing.empty())
                    break;
            }
            const bool readOp = a->op == lt::operation_t::file_read
                || a->op == lt::operation_t::partfile_read;
            const bool gone = a->error == boost::system::errc::no_such_file_or_directory
                || a->error == boost::system::errc::not_a_directory;
            if (readOp && !gone && it != torrents.end() && it->second.rechecks < 3) {
                // Data that didn't read back gets three chances per run, so one bad disk
                // cannot loop for ever.
                ++it->second.rechecks;
                a->handle.clear_error();
                a->handle.force_recheck();
                a->handle.resume();
                event("recheck", id, a->torrent_name(), "");
            } else {
                event("error", id, a->torrent_name(),
                      a->error.message() + ": " + std::string(a->filename()));
            }
            break;
        }
        case lt::torrent_error_alert::alert_type: {
            auto *a = lt::alert_cast<lt::torrent_error_alert>(alert);
            std::lock_guard<std::mutex> guard(mutex);
            event("error", id_for_locked(a->handle), a->torrent_name(), a->error.message());
            break;
        }
        case lt::listen_succeeded_alert::alert_type: {
            auto *a = lt::alert_cast<lt::listen_succeeded_alert>(alert);
            std::lock_guard<std::mutex> guard(mutex);
            listening.push_back(std::string(a->socket_type == lt::socket_type_t::utp ? "uTP " : "TCP ")
                                + a->address.to_string() + ":" + std::to_string(a->port));
            break;
        }
        case lt::listen_failed_alert::alert_type: {
            auto *a = lt::alert_cast<lt::listen_failed_alert>(alert);
            const std::string where = a->address.to_string() + ":" + std::to_string(a->port);
            const std::string text = where + " " + a->error.message();
            std::lock_guard<std::mutex> guard(mutex);
            listen_errors.push_back(text);
            event("listen_failed", "", "", text);
            break;
        }
        case lt::external_ip_alert::alert_type: {
            auto *a = lt::alert_cast<lt::external_ip_alert>(alert);
            std::lock_guard<std::mutex> guard(mutex);
            external_ip = a->external_address.to_string();
            break;
        }
        case lt::portmap_alert::alert_type: {
            auto *a = lt::alert_cast<lt::portmap_alert>(alert);
            std::lock_guard<std::mutex> guard(mutex);
            portmap = std::string(a->map_transport == lt::portmap_transport::upnp ? "UPnP" : "NAT-PMP")
                + " " + std::to_string(a->external_port);
            break;
        }
        case lt::alerts_dropped_alert::alert_type: {
            auto *a = lt::alert_cast<lt::alerts_dropped_alert>(alert);
            std::fprintf(stderr, "alerts dropped: %zu kinds\n", a->dropped_alerts.count());
            break;
        }
        case lt::session_stats_alert::alert_type: {
            auto *a = lt::alert_cast<lt::session_stats_alert>(alert);
            const auto counters = a->counters();
            std::lock_guard<std::mutex> guard(mutex);
            if (dht_nodes_idx >= 0 && dht_nodes_idx < counters.size())
                dht_nodes = counters[dht_nodes_idx];
            if (incoming_idx >= 0 && incoming_idx < counters.size())
                incoming = counters[incoming_idx] != 0;
            metrics.assign(counters.begin(), counters.end());
            stats_time = std::chrono::steady_clock::now();
            has_stats = true;
            break;
        }
        default:
            break;
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "alert %s failed: %s\n", alert->what(), e.what());
    }
}

extern "C" {

tb_session *tb_session_create(const char *dir, const char *settings)
{
    auto *s = new tb_session;
    s->dir = dir ? dir : "";
    ::mkdir(s->dir.c_str(), 0755);
    ::mkdir((s->dir + "/resume").c_str(), 0755);

    lt::session_params params;
    const std::vector<char> state = read_file(s->dir + "/session.state");
    if (!state.empty()) {
        try {
            params = lt::read_session_params(state, lt::session::save_dht_state);
        } catch (const std::exception &) {
            // A corrupt state file costs only the DHT's memory; the next save replaces it.
            params = lt::session_params();
        }
    }
    // Settings always come from the text, never from the state file.
    params.settings = make_pack(settings);
    // Files are read and written with pread and pwrite, never through memory maps. A hash
    // check through a map advises the kernel after every block that the pages are cold, and
    // each such advice interrupts the other cores to flush their TLBs: a quarter of a check's
    // time went there. Mapped pages also count as the process's own resident memory while a
    // film streams. The text never names this setting, so applying it later keeps it.
    params.settings.set_int(lt::settings_pack::mmap_file_size_cutoff, std::numeric_limits<int>::max());
    params.settings.set_int(lt::settings_pack::disk_write_mode, lt::settings_pack::always_pwrite);
    s->dht_nodes_idx = lt::find_metric_idx("dht.dht_nodes");
    s->incoming_idx = lt::find_metric_idx("net.has_incoming_connections");
    s->session = std::make_unique<lt::session>(std::move(params));
    s->thread = std::thread([s] { s->alert_loop(); });
    s->restorer = std::thread([s] { s->load_resume_files(); });
    return s;
}

bool tb_session_restoring(tb_session *s)
{
    return s && s->restoring.load();
}

void tb_apply_settings(tb_session *s, const char *settings)
{
    if (!s)
        return;
    try {
        lt::settings_pack pack = make_pack(settings);
        if (pack.has_val(lt::settings_pack::listen_interfaces)) {
            const std::string wanted = pack.get_str(lt::settings_pack::listen_interfaces);
            const std::string current = s->session->get_settings().get_str(lt::settings_pack::listen_interfaces);
            if (wanted != current) {
                // Fresh listen alerts fill these; old errors must not stand beside them.
                std::lock_guard<std::mutex> guard(s->mutex);
                s->listening.clear();
                s->listen_errors.clear();
                s->portmap.clear();
            }
        }
        s->session->apply_settings(std::move(pack));
    } catch (const std::exception &e) {
        std::fprintf(stderr, "apply settings failed: %s\n", e.what());
    }
}

void tb_save_state(tb_session *s)
{
    if (!s)
        return;
    try {
        std::vector<lt::torrent_handle> handles;
        {
            std::lock_guard<std::mutex> guard(s->mutex);
            for (const auto &[id, rec] : s->torrents)
                handles.push_back(rec.handle);
        }
        for (const auto &h : handles) {
            if (h.is_valid() && h.need_save_resume_data())
                h.save_resume_data(lt::torrent_handle::flush_disk_cache | lt::torrent_handle::save_info_dict);
        }
        s->write_state();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "save state failed: %s\n", e.what());
    }
}

void tb_session_destroy(tb_session *s)
{
    if (!s)
        return;
    using namespace std::chrono;
    s->stop = true;
    if (s->restorer.joinable())
        s->restorer.join();
    if (s->thread.joinable())
        s->thread.join();
    s->piece_reads_changed.notify_all();

    try {
        // The watch runs once a second; a torrent that finished within that second must still
        // have its complete files on record, or a file deleted before the next start would be
        // fetched again without a word.
        s->scan_files();

        lt::settings_pack quick;
        quick.set_int(lt::settings_pack::stop_tracker_timeout, 1);
        s->session->apply_settings(std::move(quick));

        std::vector<lt::torrent_handle> handles;
        {
            std::lock_guard<std::mutex> guard(s->mutex);
            for (const auto &[id, rec] : s->torrents)
                handles.push_back(rec.handle);
        }
        int32_t asked = 0;
        for (const auto &h : handles) {
            if (!h.is_valid())
                continue;
            h.save_resume_data(lt::torrent_handle::flush_disk_cache | lt::torrent_handle::save_info_dict);
            ++asked;
        }
        {
            std::lock_guard<std::mutex> guard(s->save_mutex);
            s->pending_saves += asked;
        }
        const auto deadline = steady_clock::now() + seconds(10);
        std::vector<lt::alert *> alerts;
        for (;;) {
            {
                std::lock_guard<std::mutex> guard(s->save_mutex);
                if (s->pending_saves <= 0)
                    break;
            }
            if (steady_clock::now() >= deadline)
                break;
            s->session->wait_for_alert(milliseconds(200));
            alerts.clear();
            s->session->pop_alerts(&alerts);
            for (lt::alert *alert : alerts)
                s->handle_alert(alert);
        }
        s->write_state();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "session shutdown: %s\n", e.what());
    }

    // Closing the library can hang on a tracker or a disk; the user has already seen the
    // window go, so it gets 3 seconds and is then left to finish on its own.
    auto proxy = std::make_shared<lt::session_proxy>(s->session->abort());
    s->session.reset();
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread closer([proxy = std::move(proxy), done]() mutable {
        proxy.reset();
        done->store(true);
    });
    const auto limit = steady_clock::now() + seconds(3);
    while (!done->load() && steady_clock::now() < limit)
        std::this_thread::sleep_for(milliseconds(20));
    if (done->load())
        closer.join();
    else
        closer.detach();
    delete s;
}

void tb_free(void *pointer)
{
    std::free(pointer);
}

char *tb_poll_events(tb_session *s)
{
    if (!s)
        return dup("[]");
    std::vector<Event> taken;
    {
        std::lock_guard<std::mutex> guard(s->mutex);
        taken.swap(s->events);
    }
    std::string out;
    {
        Arr arr(out);
        for (const Event &e : taken) {
            Obj o(arr.next());
            o.s("type", e.type);
            o.s("id", e.id);
            o.s("name", e.name);
            o.s("message", e.message);
        }
    }
    return dup(out);
}

} // extern "C"
