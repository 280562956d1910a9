// The stream reader: one file of a torrent as a blocking, seekable byte stream for libmpv.
//
// A read maps its position to one piece, keeps a window of piece deadlines ahead of it, waits
// until the piece has passed its hash check, fetches it with read_piece into the session's piece
// cache and copies out of the delivered buffer. Reads are short on purpose: one never crosses a
// piece, and the caller loops.
//
// Locks: the reader's `lock`, the session's `piece_reads_lock`, `readers_lock` and `mutex` are
// never nested. read_piece is never called under piece_reads_lock, since the alert thread needs
// that lock to deliver the piece, and prioritize() runs with no other lock held because it
// calls into libtorrent synchronously.

#include "bridge/tb_session.h"

#include <libtorrent/torrent_info.hpp>
#include <libtorrent/torrent_status.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

namespace {

using namespace std::chrono_literals;

// The window of deadlines covers this much of a file whatever the piece size, and never fewer
// than MinWindowPieces pieces.
constexpr int64_t WindowBytes = 0x4000000;
constexpr int MinWindowPieces = 4;
// Deadlines grow by this much per piece away from the read position.
constexpr int DeadlineStepMs = 250;
// Containers keep their index at the end; the tail is asked for ahead of the window.
constexpr int TailDeadlineMs = 1000;
// status(query_pieces) is expensive: the same window is not laid again sooner than this.
constexpr int64_t WindowThrottleNs = 2'000'000'000;
// Peers come and go and libtorrent drops deadlines on the way, so a waiting read lays its
// window again this often.
constexpr int64_t RefreshNs = 2'000'000'000;
constexpr int64_t CacheLimitBytes = 0x4000000;
// A piece a read took within this time stays in the cache: it may be in use right now.
constexpr int64_t CacheKeepNs = 1'000'000'000;
constexpr int64_t FetchLimitNs = 30'000'000'000;
constexpr int64_t RetryDelayNs = 3'000'000'000;
constexpr int64_t OverallLimitNs = 600'000'000'000;
constexpr auto WaitSlice = 250ms;
constexpr auto RetrySlice = 500ms;
// `last_used` of an entry a read is waiting for. Such an entry must not be evicted the moment
// it arrives: under a full cache the trim that follows each delivery would otherwise pick the
// fresh, never-used piece first, and the waiting read would fetch it again and again.
constexpr int64_t WaitedFor = std::numeric_limits<int64_t>::max();

int64_t now_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool has_piece(const lt::typed_bitfield<lt::piece_index_t> &pieces, int piece)
{
    return piece >= 0 && piece < pieces.size() && pieces[lt::piece_index_t(piece)];
}

using PriorityList = std::vector<std::pair<lt::piece_index_t, lt::download_priority_t>>;

} // namespace

using tb::reader_log_enabled;

struct tb_reader
{
    tb_session *session = nullptr;
    lt::torrent_handle handle;
    std::string id;
    // The file on disk with renames applied; only the log shows it.
    std::string path;
    // The piece whose bytes the reading thread holds. Touched by that thread only.
    int held_piece = -1;
    boost::shared_array<char> held_buffer;
    int held_size = 0;
    int64_t file_offset = 0;
    int64_t size = 0;
    int piece_length = 0;
    int first_piece = 0;
    int last_piece = 0;
    int file_index = 0;
    // Atomic because cancel and tb_stream_progress come from other threads than the read.
    std::atomic<int64_t> position{0};
    std::atomic<bool> cancelled{false};
    std::atomic<int> waiting_piece{-1};
    // Guards the priority state below. Never held together with another lock.
    std::mutex lock;
    std::set<int> deadlined;
    int last_window_start = -1;
    int64_t last_window_at = 0;

    int piece_of(int64_t offset) const
    {
        return static_cast<int>((file_offset + offset) / std::max(piece_length, 1));
    }

    void prioritize(int start, bool force);
    void release();
    int64_t read(char *out, int64_t length);

private:
    bool acquire(int piece);
    bool wait_for_piece(int piece);
    bool fetch(int piece);
    bool wait_before_retry(int64_t overall_deadline);
    void read_ahead(int piece);
    void pause_for(std::chrono::milliseconds slice);
};

// Waits on the cache's condition for at most `slice`. Cancel sets its flag under the same lock
// before it notifies, so checking the flag here first cannot miss the wake-up.
void tb_reader::pause_for(std::chrono::milliseconds slice)
{
    std::unique_lock<std::mutex> guard(session->piece_reads_lock);
    if (!cancelled.load())
        session->piece_reads_changed.wait_for(guard, slice);
}

void tb_reader::prioritize(int start, bool force)
{
    std::lock_guard<std::mutex> guard(lock);
    const int64_t now = now_ns();
    if (!force && start == last_window_start && now - last_window_at < WindowThrottleNs)
        return;
    last_window_start = start;
    last_window_at = now;
    if (!handle.is_valid())
        return;

    const int64_t count = std::max<int64_t>(WindowBytes / std::max(piece_length, 1), MinWindowPieces);
    const int end = static_cast<int>(std::min<int64_t>(start + count - 1, last_piece));
    const lt::torrent_status status = handle.status(lt::torrent_handle::query_pieces);

    std::set<int> window;
    PriorityList changes;
    for (int piece = start; piece <= end; ++piece) {
        if (has_piece(status.pieces, piece))
            continue;
        handle.set_piece_deadline(lt::piece_index_t(piece), (piece - start) * DeadlineStepMs);
        window.insert(piece);
        // The whole window asks at the top priority; the deadlines alone order it.
        changes.emplace_back(lt::piece_index_t(piece), lt::top_priority);
    }
    const lt::download_priority_t file_priority = handle.file_priority(lt::file_index_t(file_index));
    for (const int piece : deadlined) {
        if (window.count(piece) || has_piece(status.pieces, piece))
            continue;
        handle.reset_piece_deadline(lt::piece_index_t(piece));
        changes.emplace_back(lt::piece_index_t(piece), file_priority);
    }
    if (!changes.empty())
        handle.prioritize_pieces(changes);
    deadlined = std::move(window);
}

void tb_reader::release()
{
    std::lock_guard<std::mutex> guard(lock);
    if (!handle.is_valid())
        return;
    const lt::download_priority_t file_priority = handle.file_priority(lt::file_index_t(file_index));
    const lt::torrent_status status = handle.status(lt::torrent_handle::query_pieces);
    PriorityList changes;
    auto give_back = [&](int piece) {
        if (has_piece(status.pieces, piece))
            return;
        handle.reset_piece_deadline(lt::piece_index_t(piece));
        changes.emplace_back(lt::piece_index_t(piece), file_priority);
    };
    for (const int piece : deadlined)
        give_back(piece);
    // An empty file never asked for a tail.
    if (size > 0 && !deadlined.count(last_piece))
        give_back(last_piece);
    if (!changes.empty())
        handle.prioritize_pieces(changes);
    deadlined.clear();
}

int64_t tb_reader::read(char *out, int64_t length)
{
    if (cancelled.load())
        return -1;
    const int64_t offset = position.load();
    if (offset >= size)
        return 0;
    if (length < 1)
        return -1;
    const int piece = piece_of(offset);
    prioritize(piece, false);

    const bool fresh = held_piece != piece;
    if (fresh && !acquire(piece))
        return -1;

    const int64_t inside = file_offset + offset - int64_t(held_piece) * piece_length;
    const int64_t n = std::min(size - offset, std::min<int64_t>(held_size - inside, length));
    if (n < 1)
        return -1;
    std::memcpy(out, held_buffer.get() + inside, static_cast<size_t>(n));
    position.store(offset + n);

    // Only when a piece is new: reads inside the held piece make no library call at all.
    if (fresh)
        read_ahead(piece);
    return n;
}

bool tb_reader::acquire(int piece)
{
    waiting_piece.store(piece);
    // Cleared on every way out, a library exception included, so tb_stream_progress never
    // reports a read that has ended.
    struct ClearWaiting
    {
        std::atomic<int> &waiting;
        ~ClearWaiting() { waiting.store(-1); }
    } clear{waiting_piece};

    const int64_t overall_deadline = now_ns() + OverallLimitNs;
    for (;;) {
        if (!wait_for_piece(piece))
            return false;
        if (fetch(piece))
            return true;
        if (reader_log_enabled())
            std::fprintf(stderr, "reader fetch failed piece=%d\n", piece);
        if (!wait_before_retry(overall_deadline))
            return false;
    }
}

// Has no limit of its own: a piece that no peer has yet may take as long as it takes, and only
// cancel, removal of the torrent or the overall deadline after a failed fetch end the read.
bool tb_reader::wait_for_piece(int piece)
{
    int64_t refreshed = now_ns();
    for (;;) {
        if (cancelled.load() || !handle.is_valid())
            return false;
        if (handle.have_piece(lt::piece_index_t(piece)))
            return true;
        pause_for(WaitSlice);
        if (now_ns() - refreshed > RefreshNs) {
            prioritize(piece, true);
            refreshed = now_ns();
        }
    }
}

bool tb_reader::fetch(int piece)
{
    const int64_t started = now_ns();
    const std::pair<std::string, int> key{id, piece};
    bool existed = false;
    bool ok = false;
    {
        std::unique_lock<std::mutex> guard(session->piece_reads_lock);
        auto it = session->piece_reads.find(key);
        existed = it != session->piece_reads.end();
        if (!existed) {
            // The entry must exist before the alert can come: one without an entry is dropped.
            session->piece_reads[key].last_used = WaitedFor;
            guard.unlock();
            try {
                handle.read_piece(lt::piece_index_t(piece));
            } catch (...) {
                guard.lock();
                session->piece_reads.erase(key);
                throw;
            }
            guard.lock();
        } else if (!it->second.ready) {
            it->second.last_used = WaitedFor;
        }
        for (;;) {
            it = session->piece_reads.find(key);
            if (it == session->piece_reads.end())
                break;
            PieceRead &entry = it->second;
            if (entry.ready) {
                if (entry.failed || !entry.buffer) {
                    session->piece_reads.erase(it);
                    break;
                }
                entry.last_used = now_ns();
                held_buffer = entry.buffer;
                held_size = entry.size;
                held_piece = piece;
                ok = true;
                break;
            }
            if (cancelled.load() || now_ns() - started > FetchLimitNs) {
                session->piece_reads.erase(it);
                break;
            }
            session->piece_reads_changed.wait_for(guard, WaitSlice);
        }
    }
    if (reader_log_enabled())
        std::fprintf(stderr, "fetch piece=%d ok=%d cached=%d ms=%lld\n", piece, ok ? 1 : 0,
                     existed ? 1 : 0, static_cast<long long>((now_ns() - started) / 1'000'000));
    return ok;
}

// After a failed fetch. While the torrent is being hash-checked no retry is made: the check
// decides whether the piece is there at all.
bool tb_reader::wait_before_retry(int64_t overall_deadline)
{
    if (cancelled.load())
        return false;
    const int64_t retry_at = now_ns() + RetryDelayNs;
    for (;;) {
        if (now_ns() > overall_deadline || !handle.is_valid())
            return false;
        const lt::torrent_status status = handle.status({});
        const bool checking = status.state == lt::torrent_status::checking_files
            || status.state == lt::torrent_status::checking_resume_data;
        if (!checking && now_ns() >= retry_at)
            return true;
        pause_for(RetrySlice);
        if (cancelled.load())
            return false;
    }
}

// The disk read of the next piece overlaps the consumer's work on this one.
void tb_reader::read_ahead(int piece)
{
    const int next = piece + 1;
    if (next > last_piece || !handle.have_piece(lt::piece_index_t(next)))
        return;
    const std::pair<std::string, int> key{id, next};
    {
        std::lock_guard<std::mutex> guard(session->piece_reads_lock);
        if (session->piece_reads.count(key))
            return;
        // Stamped now rather than left at 0, so that a full cache does not evict the piece the
        // moment it arrives; left unread it ages out like any other.
        session->piece_reads[key].last_used = now_ns();
    }
    try {
        handle.read_piece(lt::piece_index_t(next));
    } catch (...) {
        // A read ahead is only a hint; a later read fetches the piece itself.
        std::lock_guard<std::mutex> guard(session->piece_reads_lock);
        const auto it = session->piece_reads.find(key);
        if (it != session->piece_reads.end() && !it->second.ready)
            session->piece_reads.erase(it);
    }
}

void tb_session::trim_piece_cache()
{
    int64_t total = 0;
    for (const auto &[key, entry] : piece_reads)
        total += entry.size;
    // The cache's size after each trim, for the long-stream benchmark that watches its bound.
    const auto log_size = [&] {
        if (reader_log_enabled())
            std::fprintf(stderr, "cache bytes=%lld pieces=%zu\n", static_cast<long long>(total), piece_reads.size());
    };
    if (total <= CacheLimitBytes) {
        log_size();
        return;
    }
    const int64_t now = now_ns();
    while (total > CacheLimitBytes) {
        auto victim = piece_reads.end();
        for (auto it = piece_reads.begin(); it != piece_reads.end(); ++it) {
            const PieceRead &entry = it->second;
            // Entries in flight, and those a read took a moment ago, stay.
            if (!entry.ready || now - entry.last_used < CacheKeepNs)
                continue;
            if (victim == piece_reads.end() || entry.last_used < victim->second.last_used)
                victim = it;
        }
        if (victim == piece_reads.end())
            break;
        total -= victim->second.size;
        // A reader holding this buffer keeps it alive through its shared array.
        piece_reads.erase(victim);
    }
    log_size();
}

extern "C" {

tb_reader *tb_reader_open(tb_session *s, const char *id, int file)
{
    if (!s || !id)
        return nullptr;
    try {
        const std::string key = id;
        const lt::torrent_handle handle = s->find(key);
        if (!handle.is_valid())
            return nullptr;
        std::string missing;
        {
            std::lock_guard<std::mutex> guard(s->mutex);
            const auto it = s->torrents.find(key);
            if (it == s->torrents.end())
                return nullptr;
            s->check_files(key, it->second);
            missing = it->second.missing;
        }
        // A torrent with a file gone from disk would hash-fail on every read.
        if (!missing.empty())
            return nullptr;

        const std::shared_ptr<const lt::torrent_info> info = handle.torrent_file();
        if (!info)
            return nullptr;
        const lt::file_storage &files = info->files();
        if (file < 0 || file >= files.num_files())
            return nullptr;

        auto r = std::make_unique<tb_reader>();
        const lt::file_index_t index(file);
        r->session = s;
        r->handle = handle;
        r->id = key;
        r->file_index = file;
        r->file_offset = files.file_offset(index);
        r->size = files.file_size(index);
        r->piece_length = info->piece_length();
        if (r->size > 0) {
            r->first_piece = static_cast<int>(files.map_file(index, 0, 1).piece);
            r->last_piece = static_cast<int>(files.map_file(index, r->size - 1, 1).piece);
        }
        // torrent_file()'s storage carries the renames.
        r->path = files.file_path(index, handle.status(lt::torrent_handle::query_save_path).save_path);

        // Streaming a file the user did not want makes it wanted, and it stays so.
        if (handle.file_priority(index) == lt::dont_download)
            handle.file_priority(index, lt::default_priority);
        // Opening a stream wakes a paused torrent and takes it out of the queue's hands.
        if (handle.flags() & lt::torrent_flags::paused) {
            handle.unset_flags(lt::torrent_flags::auto_managed);
            handle.resume();
        }
        // An empty file has nothing to fetch; its piece numbers belong to other files.
        if (r->size > 0) {
            const lt::piece_index_t tail(r->last_piece);
            if (!handle.have_piece(tail)) {
                handle.set_piece_deadline(tail, TailDeadlineMs);
                handle.piece_priority(tail, lt::top_priority);
            }
            r->prioritize(r->first_piece, true);
        }
        if (reader_log_enabled())
            std::fprintf(stderr, "reader open %s file=%d size=%lld path=%s\n", key.c_str(), file,
                         static_cast<long long>(r->size), r->path.c_str());
        {
            std::lock_guard<std::mutex> guard(s->readers_lock);
            s->readers.insert(r.get());
        }
        return r.release();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "reader open failed: %s\n", e.what());
        return nullptr;
    } catch (...) {
        std::fprintf(stderr, "reader open failed: %s\n", "unknown exception");
        return nullptr;
    }
}

int64_t tb_reader_read(tb_reader *r, void *buffer, int64_t length)
{
    if (!r || !buffer)
        return -1;
    try {
        return r->read(static_cast<char *>(buffer), length);
    } catch (const std::exception &e) {
        if (reader_log_enabled())
            std::fprintf(stderr, "reader read failed: %s\n", e.what());
        return -1;
    } catch (...) {
        if (reader_log_enabled())
            std::fprintf(stderr, "reader read failed: %s\n", "unknown exception");
        return -1;
    }
}

int64_t tb_reader_seek(tb_reader *r, int64_t offset)
{
    if (!r)
        return -1;
    if (reader_log_enabled())
        std::fprintf(stderr, "reader seek %lld size=%lld\n", static_cast<long long>(offset),
                     static_cast<long long>(r->size));
    if (r->cancelled.load() || offset < 0 || offset > r->size)
        return -1;
    r->position.store(offset);
    // The end of the file needs no piece. The held piece stays valid either way, so a seek
    // inside it costs no fetch.
    if (offset == r->size)
        return offset;
    try {
        r->prioritize(r->piece_of(offset), true);
    } catch (const std::exception &e) {
        // The next read finds out whether the torrent is still there.
        if (reader_log_enabled())
            std::fprintf(stderr, "reader seek window failed: %s\n", e.what());
    } catch (...) {
        if (reader_log_enabled())
            std::fprintf(stderr, "reader seek window failed: %s\n", "unknown exception");
    }
    return offset;
}

int64_t tb_reader_size(tb_reader *r)
{
    return r ? r->size : -1;
}

void tb_reader_cancel(tb_reader *r)
{
    if (!r)
        return;
    {
        // Set under the cache's lock so that a read between its check and its wait cannot
        // sleep through the notification.
        std::lock_guard<std::mutex> guard(r->session->piece_reads_lock);
        r->cancelled.store(true);
    }
    r->session->piece_reads_changed.notify_all();
}

void tb_reader_close(tb_reader *r)
{
    if (!r)
        return;
    {
        std::lock_guard<std::mutex> guard(r->session->readers_lock);
        r->session->readers.erase(r);
    }
    try {
        r->release();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "reader release failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "reader release failed: %s\n", "unknown exception");
    }
    delete r;
}

void tb_prefetch(tb_session *s, const char *id, int file, int64_t bytes, double fraction)
{
    if (!s || !id)
        return;
    try {
        const lt::torrent_handle handle = s->find(id);
        if (!handle.is_valid())
            return;
        const std::shared_ptr<const lt::torrent_info> info = handle.torrent_file();
        if (!info)
            return;
        const lt::file_storage &files = info->files();
        if (file < 0 || file >= files.num_files())
            return;
        const lt::file_index_t index(file);
        const int64_t size = files.file_size(index);
        if (size < 1)
            return;
        if (handle.file_priority(index) == lt::dont_download)
            handle.file_priority(index, lt::default_priority);

        const auto piece_at = [&](int64_t offset) {
            return static_cast<int>(files.map_file(index, offset, 1).piece);
        };
        const int64_t p = static_cast<int64_t>(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(size));
        const int from = piece_at(std::max<int64_t>(p - bytes / 4, 0));
        const int to = piece_at(std::min<int64_t>(p + bytes, size - 1));
        std::set<int> pieces{piece_at(0), piece_at(size - 1)};
        for (int piece = from; piece <= to; ++piece)
            pieces.insert(piece);

        // Deadlines only: the stretch is a hint beside the open stream's window, not a claim on
        // the picker, and it is never taken back.
        int k = 0;
        for (const int piece : pieces) {
            if (handle.have_piece(lt::piece_index_t(piece)))
                continue;
            handle.set_piece_deadline(lt::piece_index_t(piece), 2000 + 400 * k);
            ++k;
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "prefetch failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "prefetch failed: %s\n", "unknown exception");
    }
}

bool tb_stream_waiting(tb_session *s, const char *id, int file)
{
    if (!s || !id)
        return false;
    std::lock_guard<std::mutex> guard(s->readers_lock);
    for (tb_reader *r : s->readers) {
        if (r->id == id && r->file_index == file && r->waiting_piece.load() >= 0)
            return true;
    }
    return false;
}

double tb_stream_progress(tb_session *s, const char *id, int file)
{
    if (!s || !id)
        return -1.0;
    lt::torrent_handle handle;
    int piece = -1;
    {
        std::lock_guard<std::mutex> guard(s->readers_lock);
        for (tb_reader *r : s->readers) {
            const int waiting = r->waiting_piece.load();
            if (r->id == id && r->file_index == file && waiting >= 0) {
                handle = r->handle;
                piece = waiting;
                break;
            }
        }
    }
    if (piece < 0 || !handle.is_valid())
        return -1.0;
    try {
        for (const lt::partial_piece_info &info : handle.get_download_queue()) {
            if (static_cast<int>(info.piece_index) == piece && info.blocks_in_piece >= 1)
                return static_cast<double>(info.finished + info.writing) / info.blocks_in_piece;
        }
        return 0.0;
    } catch (const std::exception &) {
        return -1.0;
    }
}

} // extern "C"
