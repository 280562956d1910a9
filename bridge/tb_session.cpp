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
#include <cstring>
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
    pack.set_int(lt::settings_pack::alert_mask, 0x40004D);
    // Added trackers are told from a torrent's own by their tier alone. With this on, libtorrent
    // swaps a udp tracker with an http tracker of the same host, tiers included, each time a
    // list is replaced or a torrent loaded: the extra tag then lands on the torrent's own
    // tracker, and clearing the extras takes that one out and keeps the extra.
    pack.set_bool(lt::settings_pack::prefer_udp_trackers, false);
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
    std::lock_guard<std::mutex> guard(ids_lock);
    const auto it = handle_ids.find(handle);
    return it == handle_ids.end() ? std::string() : it->second;
}

void tb_session::set_id(const lt::torrent_handle &handle, const std::string &id)
{
    std::lock_guard<std::mutex> guard(ids_lock);
    handle_ids[handle] = id;
}

void tb_session::forget_id(const lt::torrent_handle &handle)
{
    std::lock_guard<std::mutex> guard(ids_lock);
    handle_ids.erase(handle);
}

void tb_session::post_work(std::function<void()> fn)
{
    {
        std::lock_guard<std::mutex> guard(worker_lock);
        if (!worker_stop) {
            worker_jobs.push_back(std::move(fn));
            worker_wake.notify_one();
            return;
        }
    }
    // The worker has ended: only the session's own shutdown gets here, on its one thread.
    fn();
}

void tb_session::drain_work()
{
    std::unique_lock<std::mutex> guard(worker_lock);
    worker_idle.wait(guard, [this] { return worker_jobs.empty() && !worker_busy; });
}

void tb_session::worker_loop()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> guard(worker_lock);
            worker_wake.wait(guard, [this] { return worker_stop || !worker_jobs.empty(); });
            if (worker_jobs.empty())
                return;
            job = std::move(worker_jobs.front());
            worker_jobs.pop_front();
            worker_busy = true;
        }
        try {
            job();
        } catch (const std::exception &e) {
            std::fprintf(stderr, "bridge worker job failed: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "bridge worker job failed\n");
        }
        std::lock_guard<std::mutex> guard(worker_lock);
        worker_busy = false;
        if (worker_jobs.empty())
            worker_idle.notify_all();
    }
}

bool tb_session::write_torrent_file(const std::string &id, const std::string &path, const std::vector<char> &bytes)
{
    std::lock_guard<std::mutex> files(files_lock);
    {
        std::lock_guard<std::mutex> guard(mutex);
        // A removed torrent has nothing left to save.
        if (id.empty() || torrents.count(id) == 0)
            return true;
    }
    return write_saved(path, bytes);
}

int32_t tb_session::retry_unsaved(lt::resume_data_flags_t flags)
{
    std::set<std::string> unsaved;
    {
        std::lock_guard<std::mutex> failures(write_failures_lock);
        unsaved = unsaved_resume;
    }
    int32_t asked = 0;
    for (const std::string &id : unsaved) {
        const lt::torrent_handle handle = find(id);
        if (!handle.is_valid())
            continue;
        handle.save_resume_data(flags);
        ++asked;
    }
    return asked;
}

int32_t tb_session::save_changed(lt::resume_data_flags_t flags)
{
    // One trip for the whole library instead of one need_save_resume_data call per torrent:
    // with thousands of torrents the trips, not the saves, were the cost.
    const std::vector<lt::torrent_status> changed = session->get_torrent_status(
        [](const lt::torrent_status &st) { return st.need_save_resume; }, {});
    int32_t asked = 0;
    for (const lt::torrent_status &st : changed) {
        if (!st.handle.is_valid())
            continue;
        st.handle.save_resume_data(flags);
        ++asked;
    }
    return asked;
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
    std::lock_guard<std::mutex> guard(report_lock);
    events.push_back(Event{type, id, name, message});
    // A slow engine loses the oldest half and keeps the newest events.
    if (events.size() >= 201)
        events.erase(events.begin(), events.begin() + 100);
}

void tb_session::write_state()
{
    const lt::session_params params = session->session_state(lt::session::save_dht_state);
    const std::vector<char> bytes = lt::write_session_params_buf(params, lt::session::save_dht_state);
    write_saved(dir + "/session.state", bytes);
}

bool tb_session::write_saved(const std::string &path, const std::vector<char> &bytes)
{
    int error = 0;
    const bool written = write_file(path, bytes, &error);
    std::lock_guard<std::mutex> guard(write_failures_lock);
    if (written) {
        failing_writes.erase(path);
        return true;
    }
    // Each path is logged when it starts failing, not at every retry while the disk is full.
    if (failing_writes.count(path) == 0)
        std::fprintf(stderr, "bridge: could not write %s: %s\n", path.c_str(), std::strerror(error));
    if (failing_writes.empty()) {
        write_events.push_back(Event{"save_failed", "", "",
                                     std::string("Не удалось сохранить состояние торрентов: ") + write_error_text(error)});
    }
    failing_writes.insert(path);
    return false;
}

void tb_session::alert_loop()
{
    std::vector<lt::alert *> alerts;
    while (!stop.load()) {
        try {
            session->wait_for_alert(std::chrono::milliseconds(300));
            alerts.clear();
            session->pop_alerts(&alerts);
        } catch (...) {
            // Nothing may leave this thread: an exception here would end the process.
            std::fprintf(stderr, "bridge: taking alerts failed\n");
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            continue;
        }
        for (lt::alert *alert : alerts)
            handle_alert(alert);
        const SteadyTime now = std::chrono::steady_clock::now();
        // A scan still queued behind slow disk work is not queued twice.
        if (now - last_file_scan > std::chrono::seconds(1)) {
            last_file_scan = now;
            if (!file_scan_queued.exchange(true)) {
                post_work([this] {
                    file_scan_queued = false;
                    scan_files();
                });
            }
        }
        if (now - last_ban_scan > std::chrono::seconds(15)) {
            last_ban_scan = now;
            if (!ban_scan_queued.exchange(true)) {
                post_work([this] {
                    ban_scan_queued = false;
                    scan_banned_peers();
                });
            }
        }
    }
}

void tb_session::scan_files()
{
    std::vector<std::pair<std::string, lt::torrent_handle>> records;
    {
        std::lock_guard<std::mutex> guard(mutex);
        records.reserve(torrents.size());
        for (const auto &[id, rec] : torrents)
            records.emplace_back(id, rec.handle);
    }
    if (records.empty())
        return;
    // One trip to the network thread for every torrent's status, instead of one per torrent:
    // with thousands of torrents the per-torrent trips were the whole cost of a quiet second.
    // The records stay free meanwhile, and each is locked only for its own look.
    std::vector<lt::torrent_status> all = session->get_torrent_status(
        [](const lt::torrent_status &) { return true; },
        lt::torrent_handle::query_save_path | lt::torrent_handle::query_torrent_file);
    std::map<lt::torrent_handle, const lt::torrent_status *> by_handle;
    for (const lt::torrent_status &st : all)
        by_handle.emplace(st.handle, &st);
    for (const auto &[id, handle] : records) {
        const auto found = by_handle.find(handle);
        if (found == by_handle.end())
            continue;
        std::lock_guard<std::mutex> guard(mutex);
        const auto it = torrents.find(id);
        // Removed, or removed and added again, while the statuses were on their way.
        if (it != torrents.end() && it->second.handle == handle)
            check_files(id, it->second, *found->second);
    }
}

void tb_session::queue_check_start()
{
    // Many torrents enter the queue together after a restart; one look serves them all.
    if (check_start_queued.exchange(true))
        return;
    post_work([this] {
        check_start_queued = false;
        start_next_check();
    });
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

void tb_session::file_error(const lt::torrent_handle &handle, lt::error_code error, lt::operation_t op,
                            const std::string &file, const std::string &name)
{
    const std::string id = id_for(handle);
    std::lock_guard<std::mutex> guard(mutex);
    const auto it = torrents.find(id);
    if (it != torrents.end()) {
        check_files(id, it->second);
        // The user already has the text about the missing file; the raw error says less.
        if (!it->second.missing.empty())
            return;
    }
    const bool readOp = op == lt::operation_t::file_read || op == lt::operation_t::partfile_read;
    const bool gone = error == boost::system::errc::no_such_file_or_directory
        || error == boost::system::errc::not_a_directory;
    if (readOp && !gone && it != torrents.end() && it->second.rechecks < 3) {
        // Data that didn't read back gets three chances per run, so one bad disk cannot loop
        // for ever.
        ++it->second.rechecks;
        handle.clear_error();
        handle.force_recheck();
        handle.resume();
        event("recheck", id, name, "");
    } else {
        event("error", id, name, error.message() + ": " + file);
    }
}

void tb_session::handle_alert(lt::alert *alert)
{
    if (!alert)
        return;
    try {
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
            const std::string id = id_for(a->handle);
            // The write with its fsync goes to the worker; the save counts as done once the
            // file is on disk, so a shutdown that waits for its saves waits for the files.
            post_work([this, id, bytes = resume_bytes(a->params)] {
                // A failed write keeps the last good file, from which the torrent comes back at
                // the next start; the next save asks for the data again.
                const bool written = write_torrent_file(id, resume_path(id), bytes);
                {
                    std::lock_guard<std::mutex> failures(write_failures_lock);
                    if (written)
                        unsaved_resume.erase(id);
                    else
                        unsaved_resume.insert(id);
                }
                {
                    std::lock_guard<std::mutex> guard(save_mutex);
                    if (pending_saves > 0)
                        --pending_saves;
                }
                save_done.notify_all();
            });
            break;
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
            // The tracker policy asks the library for the torrent's trackers: worker's work.
            post_work([this, handle = a->handle, id = id_for(a->handle), name = a->torrent_name()] {
                {
                    std::lock_guard<std::mutex> guard(mutex);
                    const auto it = torrents.find(id);
                    if (it != torrents.end())
                        apply_trackers(it->second);
                }
                handle.save_resume_data(lt::torrent_handle::save_info_dict);
                event("metadata", id, name, "");
            });
            break;
        }
        case lt::torrent_checked_alert::alert_type:
            if (check_log_enabled())
                check_log("done", lt::alert_cast<lt::torrent_checked_alert>(alert)->torrent_name());
            queue_check_start();
            break;
        case lt::state_changed_alert::alert_type:
            // A check asked for now waits in the queue; it starts at once when none runs.
            if (lt::alert_cast<lt::state_changed_alert>(alert)->state == lt::torrent_status::checking_files)
                queue_check_start();
            break;
        case lt::torrent_finished_alert::alert_type: {
            auto *a = lt::alert_cast<lt::torrent_finished_alert>(alert);
            event("finished", id_for(a->handle), a->torrent_name(), "");
            a->handle.save_resume_data(lt::torrent_handle::save_info_dict);
            break;
        }
        case lt::file_error_alert::alert_type: {
            auto *a = lt::alert_cast<lt::file_error_alert>(alert);
            std::fprintf(stderr, "file error %s op=%s file=%s\n", a->error.message().c_str(),
                         lt::operation_name(a->op), a->filename());
            // Looking at the files on disk is the worker's.
            post_work([this, handle = a->handle, error = a->error, op = a->op, file = std::string(a->filename()),
                       name = a->torrent_name()] { file_error(handle, error, op, file, name); });
            break;
        }
        case lt::torrent_error_alert::alert_type: {
            auto *a = lt::alert_cast<lt::torrent_error_alert>(alert);
            event("error", id_for(a->handle), a->torrent_name(), a->error.message());
            break;
        }
        case lt::listen_succeeded_alert::alert_type: {
            auto *a = lt::alert_cast<lt::listen_succeeded_alert>(alert);
            std::lock_guard<std::mutex> guard(report_lock);
            listening.push_back(std::string(a->socket_type == lt::socket_type_t::utp ? "uTP " : "TCP ")
                                + a->address.to_string() + ":" + std::to_string(a->port));
            break;
        }
        case lt::listen_failed_alert::alert_type: {
            auto *a = lt::alert_cast<lt::listen_failed_alert>(alert);
            const std::string where = a->address.to_string() + ":" + std::to_string(a->port);
            const std::string text = where + " " + a->error.message();
            {
                std::lock_guard<std::mutex> guard(report_lock);
                listen_errors.push_back(text);
            }
            event("listen_failed", "", "", text);
            break;
        }
        case lt::external_ip_alert::alert_type: {
            auto *a = lt::alert_cast<lt::external_ip_alert>(alert);
            std::lock_guard<std::mutex> guard(report_lock);
            external_ip = a->external_address.to_string();
            break;
        }
        case lt::portmap_alert::alert_type: {
            auto *a = lt::alert_cast<lt::portmap_alert>(alert);
            std::lock_guard<std::mutex> guard(report_lock);
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
            std::lock_guard<std::mutex> guard(report_lock);
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
    } catch (...) {
        std::fprintf(stderr, "alert %s failed\n", alert->what());
    }
}

extern "C" {

tb_session *tb_session_create(const char *dir, const char *settings)
{
    // Every step may throw (no memory, no threads, no sockets for the library's own wake-ups);
    // the engine gets null and ends the program with a message instead of an abort.
    std::unique_ptr<tb_session> s;
    try {
        s = std::make_unique<tb_session>();
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
        tb_session *raw = s.get();
        s->worker = std::thread([raw] { raw->worker_loop(); });
        s->thread = std::thread([raw] { raw->alert_loop(); });
        s->restorer = std::thread([raw] { raw->load_resume_files(); });
        return s.release();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bridge: the session could not start: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "bridge: the session could not start\n");
    }
    if (s) {
        // A thread that did start must end before its session goes.
        s->stop = true;
        if (s->thread.joinable())
            s->thread.join();
        if (s->restorer.joinable())
            s->restorer.join();
        {
            std::lock_guard<std::mutex> guard(s->worker_lock);
            s->worker_stop = true;
            s->worker_wake.notify_all();
        }
        if (s->worker.joinable())
            s->worker.join();
        try {
            s->session.reset();
        } catch (...) {
        }
    }
    return nullptr;
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
                std::lock_guard<std::mutex> guard(s->report_lock);
                s->listening.clear();
                s->listen_errors.clear();
                s->portmap.clear();
            }
        }
        s->session->apply_settings(std::move(pack));
    } catch (const std::exception &e) {
        std::fprintf(stderr, "apply settings failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "apply settings failed: %s\n", "unknown exception");
    }
}

void tb_save_state(tb_session *s)
{
    if (!s)
        return;
    try {
        const lt::resume_data_flags_t flags = lt::torrent_handle::flush_disk_cache | lt::torrent_handle::save_info_dict;
        s->save_changed(flags);
        s->retry_unsaved(flags);
        s->post_work([s] { s->write_state(); });
    } catch (const std::exception &e) {
        std::fprintf(stderr, "save state failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "save state failed\n");
    }
}

void tb_session_destroy(tb_session *s)
{
    if (!s)
        return;
    using namespace std::chrono;
    s->stop = true;
    // Each step is guarded on its own: a step that throws must not keep the later ones, and
    // above all the close of the library, from running.
    try {
        if (s->restorer.joinable())
            s->restorer.join();
        if (s->thread.joinable())
            s->thread.join();
    } catch (...) {
        std::fprintf(stderr, "session shutdown: a bridge thread did not join\n");
    }
    s->piece_reads_changed.notify_all();

    try {
        // The watch runs once a second; a torrent that finished within that second must still
        // have its complete files on record, or a file deleted before the next start would be
        // fetched again without a word.
        s->scan_files();

        lt::settings_pack quick;
        quick.set_int(lt::settings_pack::stop_tracker_timeout, 1);
        s->session->apply_settings(std::move(quick));

        // Only torrents that changed since their last save: the others' files on disk are
        // already what a save would write, and asking all of a big library cost seconds.
        const lt::resume_data_flags_t flags = lt::torrent_handle::flush_disk_cache | lt::torrent_handle::save_info_dict;
        const int32_t asked = s->save_changed(flags) + s->retry_unsaved(flags);
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
    } catch (const std::exception &e) {
        std::fprintf(stderr, "session shutdown: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "session shutdown: saving failed\n");
    }
    // The worker ends once the writes queued so far are done; the state is written last.
    try {
        {
            std::lock_guard<std::mutex> guard(s->worker_lock);
            s->worker_stop = true;
            s->worker_wake.notify_all();
        }
        if (s->worker.joinable())
            s->worker.join();
    } catch (...) {
        std::fprintf(stderr, "session shutdown: the bridge worker did not end\n");
    }
    try {
        s->write_state();
    } catch (...) {
        std::fprintf(stderr, "session shutdown: the session state was not saved\n");
    }

    // Closing the library can hang on a tracker or a disk; the user has already seen the
    // window go, so it gets 3 seconds and is then left to finish on its own.
    try {
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
    } catch (...) {
        std::fprintf(stderr, "session shutdown: the library did not close cleanly\n");
    }
    try {
        delete s;
    } catch (...) {
    }
}

void tb_free(void *pointer)
{
    std::free(pointer);
}

char *tb_poll_events(tb_session *s)
{
    if (!s)
        return dup("[]");
    try {
        std::vector<Event> taken;
        {
            std::lock_guard<std::mutex> guard(s->report_lock);
            taken.swap(s->events);
        }
        {
            std::lock_guard<std::mutex> guard(s->write_failures_lock);
            taken.insert(taken.end(), s->write_events.begin(), s->write_events.end());
            s->write_events.clear();
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
    } catch (...) {
        std::fprintf(stderr, "bridge: events could not be reported\n");
        return dup("[]");
    }
}

} // extern "C"
