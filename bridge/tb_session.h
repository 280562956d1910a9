#pragma once

// The inside of the bridge: the session object and its records. Included only by bridge/*.cpp.

#include "bridge/tb_bridge.h"

#include <libtorrent/alert_types.hpp>
#include <libtorrent/read_resume_data.hpp>
#include <libtorrent/session.hpp>
#include <libtorrent/torrent_handle.hpp>
#include <libtorrent/torrent_status.hpp>

#include <boost/shared_array.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace lt = libtorrent;

// What the bridge keeps per torrent beside the library's handle.
struct TorrentRec
{
    lt::torrent_handle handle;
    bool is_private = false;
    bool trackers_applied = false;
    // Automatic rechecks after a read error; capped so one bad disk cannot loop for ever.
    int32_t rechecks = 0;
    // Files seen complete on disk; the library cannot tell a file never fetched from one that
    // vanished, this set can.
    std::set<int> present;
    // The user-visible text of a file gone missing; empty while all is well.
    std::string missing;
    // total_done when the file progress was last read; -1 when it must be read again.
    int64_t scanned_done = -1;
    // The presence file on disk is behind `present`: its last write failed.
    bool presence_unsaved = false;
    // The limits last set, in bytes per second, 0 for none. The library's status has no field
    // for them, and asking the handle costs a trip to its thread for each torrent of a report.
    int64_t download_limit = 0;
    int64_t upload_limit = 0;
};

struct Event
{
    std::string type;
    std::string id;
    std::string name;
    std::string message;
};

// A piece fetched with read_piece for the stream readers, shared by all of them.
struct PieceRead
{
    boost::shared_array<char> buffer;
    int size = 0;
    bool ready = false;
    bool failed = false;
    int64_t last_used = 0;
};

using SteadyTime = std::chrono::steady_clock::time_point;

struct tb_session
{
    std::string dir;
    std::unique_ptr<lt::session> session;
    std::thread thread;
    std::atomic<bool> stop{false};
    // The library comes back on its own thread, so that a big one does not hold up the start.
    std::thread restorer;
    std::atomic<bool> restoring{true};
    std::mutex restore_lock;

    // Guards the records, the tracker policy and the bans. Taken after files_lock and before
    // ids_lock, report_lock and piece_reads_lock, never while waiting.
    std::mutex mutex;
    std::map<std::string, TorrentRec> torrents;
    std::vector<std::string> extra_trackers;
    bool mirrors = true;
    std::vector<std::string> banned_clients;
    std::set<std::string> banned_ips;
    // Only the alert thread reads and sets these two.
    SteadyTime last_ban_scan{};
    SteadyTime last_file_scan{};

    // Guards the events and the session's report fields below. Taken last and only for a
    // copy: the alert thread sets them while a status report may hold `mutex` for long.
    std::mutex report_lock;
    std::vector<Event> events;
    std::vector<std::string> listening;
    std::vector<std::string> listen_errors;
    std::string external_ip;
    std::string portmap;
    int64_t dht_nodes = 0;
    bool incoming = false;
    std::vector<int64_t> metrics;
    SteadyTime stats_time{};
    bool has_stats = false;

    // The files under resume/: a write checks that its torrent is still there and writes under
    // this lock, and tb_remove deletes under it, so a write already on its way never brings a
    // removed torrent's file back. Taken before `mutex`; no file is written under `mutex`.
    std::mutex files_lock;

    // The worker thread: resume, presence and state files with their fsyncs, the file scan
    // and the ban scan. The alert thread only copies out of alerts and hands the slow part
    // here, so a delivered piece never waits behind a disk.
    std::thread worker;
    std::mutex worker_lock;
    std::condition_variable worker_wake;
    std::condition_variable worker_idle;
    std::deque<std::function<void()>> worker_jobs;
    bool worker_busy = false;
    bool worker_stop = false;
    // A file scan is queued and has not begun; a second one would see nothing new.
    std::atomic<bool> file_scan_queued{false};
    std::atomic<bool> ban_scan_queued{false};
    std::atomic<bool> check_start_queued{false};

    // The stream readers' piece cache. Never held while calling read_piece: the alert thread
    // needs it to deliver the piece.
    std::mutex piece_reads_lock;
    std::condition_variable piece_reads_changed;
    std::map<std::pair<std::string, int>, PieceRead> piece_reads;
    std::mutex readers_lock;
    std::set<tb_reader *> readers;

    // Resume data still awaited at shutdown.
    std::mutex save_mutex;
    std::condition_variable save_done;
    int32_t pending_saves = 0;

    // Writes that failed, so that a full disk is told once and not once a file. Taken last,
    // for a copy or an update only.
    std::mutex write_failures_lock;
    // Paths whose last write failed; the user hears of the first and then of none until all
    // of them were written again.
    std::set<std::string> failing_writes;
    // Ids whose resume data didn't reach the disk: asked again at the next save whether or not
    // the library thinks they changed, since it counts them as saved.
    std::set<std::string> unsaved_resume;
    // Events about failed writes, handed out with the others by tb_poll_events.
    std::vector<Event> write_events;

    // The id each handle was added under. A hybrid torrent's best hash changes when a magnet's
    // metadata arrives, so ids are never recomputed from a handle. Its own lock, taken last:
    // the alert thread looks ids up for every delivered piece and must not wait for `mutex`.
    std::mutex ids_lock;
    std::map<lt::torrent_handle, std::string> handle_ids;

    // Indexes of two session counters, found once.
    int dht_nodes_idx = -1;
    int incoming_idx = -1;

    lt::torrent_handle find(const std::string &id);
    // The id a handle was added under; "" when unknown. Takes ids_lock.
    std::string id_for(const lt::torrent_handle &handle);
    void set_id(const lt::torrent_handle &handle, const std::string &id);
    void forget_id(const lt::torrent_handle &handle);
    // Runs fn later on the worker thread, in the order posted.
    void post_work(std::function<void()> fn);
    // Waits until every job posted so far has run.
    void drain_work();
    void worker_loop();
    // Writes a torrent's file under resume/ unless the torrent was removed meanwhile.
    // False only when the write itself failed; a torrent removed meanwhile needs none.
    bool write_torrent_file(const std::string &id, const std::string &path, const std::vector<char> &bytes);
    // Asks again for the resume data of torrents whose last file didn't reach the disk.
    int32_t retry_unsaved(lt::resume_data_flags_t flags);
    void file_error(const lt::torrent_handle &handle, lt::error_code error, lt::operation_t op,
                    const std::string &file, const std::string &name);
    // Asks resume data of every torrent that has changed since its last save; the count asked.
    int32_t save_changed(lt::resume_data_flags_t flags);
    void handle_alert(lt::alert *alert);
    // Appends an event; takes report_lock.
    void event(const std::string &type, const std::string &id, const std::string &name,
               const std::string &message);
    void alert_loop();
    void scan_files();
    // Starts the check the queue would start next, when none runs.
    void start_next_check();
    // The same on the worker, once for any number of asks that come before it runs.
    void queue_check_start();
    void scan_banned_peers();
    void check_files(const std::string &id, TorrentRec &rec);
    // The same with a status already taken with the save path and the torrent file.
    void check_files(const std::string &id, TorrentRec &rec, const lt::torrent_status &st);
    // Queues the write of the presence file as the record is now; the caller holds `mutex`.
    void save_presence(const std::string &id, const TorrentRec &rec);
    // Writes one of the bridge's files whole; a failure is logged with the path and the error
    // and, when it is the first of its kind, told to the engine as a "save_failed" event.
    bool write_saved(const std::string &path, const std::vector<char> &bytes);
    void forget_pieces(const std::string &id);
    void apply_trackers(TorrentRec &rec);
    void trim_piece_cache();
    // Runs on `restorer`: every resume file, one at a time under `restore_lock`.
    void load_resume_files();
    void restore_one(const std::string &file_name);
    // While the restore runs: brings back the torrent of this id now, if it has a resume file.
    void restore_before_add(const std::string &id);
    void remember(const lt::torrent_handle &handle, const std::string &id,
                  const std::set<int> &present);
    std::string resume_path(const std::string &id) const;
    std::string presence_path(const std::string &id) const;
    void write_state();
};

namespace tb {

// The id of a torrent: hex of the v1 hash, or of the v2 hash cut to 20 bytes when there is one.
std::string id_of(const lt::info_hash_t &hashes);
// Settings text to a pack; unknown keys are skipped, alert_mask is forced.
lt::settings_pack make_pack(const char *text);
// The resume file's bytes for a torrent's parameters, with its trackers' tiers as they stand.
std::vector<char> resume_bytes(const lt::add_torrent_params &params);
// "v1" then one index a line; other first words give an empty set.
std::set<int> parse_presence(const std::vector<char> &bytes);
std::string presence_text(const std::set<int> &present);
// What a resume file may cost to read: its size, pieces and bencode depth and tokens.
lt::load_torrent_limits resume_limits();
// Files that the resume data says were at least partly on disk: each wanted file with a
// piece of its own span in have_pieces.
std::set<int> resume_candidates(const lt::add_torrent_params &params);
// True when a file that should be on disk is gone: the torrent must not start hashing, find
// nothing and quietly download it all again.
bool candidate_missing(const lt::add_torrent_params &params, const std::set<int> &candidates);
bool reader_log_enabled();
// VELIX_CHECK_LOG: when the restore begins and each hash check ends, on the monotonic clock,
// so a benchmark can time the checks without the poll's delay.
bool check_log_enabled();
void check_log(const char *what, const std::string &name);

} // namespace tb
