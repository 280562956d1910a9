#pragma once

// The inside of the bridge: the session object and its records. Included only by bridge/*.cpp.

#include "bridge/tb_bridge.h"

#include <libtorrent/alert_types.hpp>
#include <libtorrent/session.hpp>
#include <libtorrent/torrent_handle.hpp>
#include <libtorrent/torrent_status.hpp>

#include <boost/shared_array.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
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

    // Guards the records and the report fields down to last_file_scan. Taken before
    // piece_reads_lock, never while waiting.
    std::mutex mutex;
    std::map<std::string, TorrentRec> torrents;
    std::vector<std::string> extra_trackers;
    bool mirrors = true;
    std::vector<std::string> banned_clients;
    std::set<std::string> banned_ips;
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
    SteadyTime last_ban_scan{};
    SteadyTime last_file_scan{};

    // The stream readers' piece cache. Never held while calling read_piece: the alert thread
    // needs it to deliver the piece.
    std::mutex piece_reads_lock;
    std::condition_variable piece_reads_changed;
    std::map<std::pair<std::string, int>, PieceRead> piece_reads;
    std::mutex readers_lock;
    std::set<tb_reader *> readers;

    // The window each streamed file (id, file index) has laid, steered by one reader at a time:
    // the one that opened or sought last. windows_lock also serialises laying windows, so a
    // reader that has just lost its file cannot lay its old window over the new one. It is
    // never held together with another lock.
    struct StreamWindowState
    {
        tb_reader *owner = nullptr;
        std::set<int> raised;
        int start = -1;
        int64_t laid_at = 0;
        bool tail_asked = false;
    };
    std::mutex windows_lock;
    std::map<std::pair<std::string, int>, StreamWindowState> stream_windows;
    // Bytes per second of film, as the player learns it from the film's duration.
    std::map<std::pair<std::string, int>, int64_t> stream_rates;

    // Resume data still awaited at shutdown.
    std::mutex save_mutex;
    std::condition_variable save_done;
    int32_t pending_saves = 0;

    // The id each handle was added under. A hybrid torrent's best hash changes when a magnet's
    // metadata arrives, so ids are never recomputed from a handle. Guarded by `mutex`.
    std::map<lt::torrent_handle, std::string> handle_ids;

    // Indexes of two session counters, found once.
    int dht_nodes_idx = -1;
    int incoming_idx = -1;

    lt::torrent_handle find(const std::string &id);
    // The id a handle was added under; "" when unknown. id_for takes `mutex`, the _locked form
    // expects it held.
    std::string id_for(const lt::torrent_handle &handle);
    std::string id_for_locked(const lt::torrent_handle &handle) const;
    void handle_alert(lt::alert *alert);
    // Appends an event; the caller holds `mutex`.
    void event(const std::string &type, const std::string &id, const std::string &name,
               const std::string &message);
    void alert_loop();
    void scan_files();
    // Starts the check the queue would start next, when none runs.
    void start_next_check();
    void scan_banned_peers();
    void check_files(const std::string &id, TorrentRec &rec);
    // The same with a status already taken with the save path and the torrent file.
    void check_files(const std::string &id, TorrentRec &rec, const lt::torrent_status &st);
    void save_presence(const std::string &id, const TorrentRec &rec);
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
// "v1" then one index a line; other first words give an empty set.
std::set<int> parse_presence(const std::vector<char> &bytes);
std::string presence_text(const std::set<int> &present);
bool reader_log_enabled();
// The stream's timeline, written with the reader's log: the alert kinds it needs, and the
// writer, called first for every alert.
std::uint32_t trace_alert_mask();
void trace_alert(const lt::alert *alert);
void trace_line(const char *what, const std::string &detail);
// VELIX_CHECK_LOG: when the restore begins and each hash check ends, on the monotonic clock,
// so a benchmark can time the checks without the poll's delay.
bool check_log_enabled();
void check_log(const char *what, const std::string &name);

} // namespace tb
