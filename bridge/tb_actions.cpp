#include "bridge/tb_session.h"

#include "bridge/BridgeText.h"

#include <libtorrent/announce_entry.hpp>
#include <libtorrent/torrent_info.hpp>
#include <libtorrent/torrent_status.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <optional>
#include <string_view>
#include <sys/stat.h>

using namespace tb;

namespace {

// libtorrent 2.0 has one bit for "only if something changed" where later versions split it by
// kind; with it the save after a command is skipped when the command changed nothing.
constexpr lt::resume_data_flags_t SaveIfChanged =
    lt::torrent_handle::save_info_dict | lt::torrent_handle::only_if_modified;

std::string bare_name(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string missing_text(const std::string &path)
{
    return "Файл удалён или перемещён: «" + bare_name(path)
        + "». Верните файл и проверьте его или перезапустите загрузку.";
}

enum class Action {
    Pause,
    Resume,
    ForceStart,
    Recheck,
    Reannounce,
    SequentialOn,
    SequentialOff,
    QueueUp,
    QueueDown,
    QueueTop,
    QueueBottom,
    Unknown,
};

Action action_of(std::string_view word)
{
    static constexpr std::pair<std::string_view, Action> Words[] = {
        {"pause", Action::Pause},
        {"resume", Action::Resume},
        {"force_start", Action::ForceStart},
        {"recheck", Action::Recheck},
        {"reannounce", Action::Reannounce},
        {"sequential_on", Action::SequentialOn},
        {"sequential_off", Action::SequentialOff},
        {"queue_up", Action::QueueUp},
        {"queue_down", Action::QueueDown},
        {"queue_top", Action::QueueTop},
        {"queue_bottom", Action::QueueBottom},
    };
    for (const auto &[name, action] : Words) {
        if (name == word)
            return action;
    }
    return Action::Unknown;
}

bool is_checking(lt::torrent_status::state_t state)
{
    return state == lt::torrent_status::checking_files
        || state == lt::torrent_status::checking_resume_data;
}

} // namespace

void tb_session::check_files(const std::string &id, TorrentRec &rec)
{
    try {
        // A missing file is reported once; the text stands until the user acts.
        if (!rec.missing.empty() || !rec.handle.is_valid())
            return;
        check_files(id, rec, rec.handle.status(lt::torrent_handle::query_save_path
                                               | lt::torrent_handle::query_torrent_file));
    } catch (const std::exception &e) {
        // The handle was removed meanwhile; the next scan no longer sees it.
        std::fprintf(stderr, "check files failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "check files failed: %s\n", "unknown exception");
    }
}

void tb_session::check_files(const std::string &id, TorrentRec &rec, const lt::torrent_status &st)
{
    try {
        // A presence file that didn't reach the disk is written again on the next round.
        if (rec.presence_unsaved)
            save_presence(id, rec);
        if (!rec.missing.empty() || !rec.handle.is_valid())
            return;
        const std::shared_ptr<const lt::torrent_info> info = st.torrent_file.lock();
        // While the storage moves, the files are legitimately between two places.
        if (!info || st.moving_storage)
            return;
        // files() rather than orig_files(): it carries the user's renames.
        const lt::file_storage &fs = info->files();
        const int count = fs.num_files();

        // A check rebuilds the progress from nothing; read during one it would say nothing. A
        // file can only have become complete if bytes arrived since the last look, so a torrent
        // at rest costs no per-file call into the library.
        if (is_checking(st.state)) {
            rec.scanned_done = -1;
        } else if (st.total_done != rec.scanned_done) {
            const std::vector<std::int64_t> progress = rec.handle.file_progress();
            bool grew = false;
            const int known = std::min(count, static_cast<int>(progress.size()));
            for (int k = 0; k < known; ++k) {
                const lt::file_index_t file(k);
                const std::int64_t size = fs.file_size(file);
                if (fs.pad_file_at(file) || size <= 0 || progress[static_cast<size_t>(k)] < size)
                    continue;
                grew = rec.present.insert(k).second || grew;
            }
            rec.scanned_done = st.total_done;
            if (grew)
                save_presence(id, rec);
        }

        // Priorities only matter for a file that is gone (one the user doesn't want may be
        // deleted on purpose), so they are fetched only then.
        std::optional<std::vector<lt::download_priority_t>> priorities;
        std::string gone;
        for (const int k : rec.present) {
            if (k < 0 || k >= count)
                continue;
            const lt::file_index_t file(k);
            if (fs.pad_file_at(file) || fs.file_size(file) <= 0)
                continue;
            const std::string path = fs.file_path(file, st.save_path);
            struct stat info_on_disk {};
            // Only "not there" counts: a permission or I/O error says nothing about the data.
            if (::stat(path.c_str(), &info_on_disk) == 0 || (errno != ENOENT && errno != ENOTDIR))
                continue;
            if (!priorities)
                priorities = rec.handle.get_file_priorities();
            if (static_cast<size_t>(k) < priorities->size() && (*priorities)[static_cast<size_t>(k)] == lt::dont_download)
                continue;
            gone = path;
            break;
        }
        if (gone.empty())
            return;

        rec.missing = missing_text(gone);
        // Held paused and out of the queue's reach: a check now would find the pieces gone and
        // quietly fetch the whole file again. The recheck only marks the pieces unverified; it
        // runs when the user resumes.
        rec.handle.unset_flags(lt::torrent_flags::auto_managed);
        rec.handle.pause();
        rec.handle.force_recheck();
        forget_pieces(id);
        rec.handle.save_resume_data(lt::torrent_handle::save_info_dict);
        event("error", id, info->name(), rec.missing);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "check files failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "check files failed: %s\n", "unknown exception");
    }
}

void tb_session::save_presence(const std::string &id, const TorrentRec &rec)
{
    const std::string text = presence_text(rec.present);
    post_work([this, id, bytes = std::vector<char>(text.begin(), text.end())] {
        const bool written = write_torrent_file(id, presence_path(id), bytes);
        // The next file scan writes a presence file that didn't reach the disk again.
        std::lock_guard<std::mutex> guard(mutex);
        const auto it = torrents.find(id);
        if (it != torrents.end())
            it->second.presence_unsaved = !written;
    });
}

void tb_session::forget_pieces(const std::string &id)
{
    std::lock_guard<std::mutex> guard(piece_reads_lock);
    const auto first = piece_reads.lower_bound({id, INT_MIN});
    auto last = first;
    while (last != piece_reads.end() && last->first.first == id)
        ++last;
    piece_reads.erase(first, last);
}

extern "C" {

bool tb_action(tb_session *s, const char *id, const char *word)
{
    if (!s || !id || !word)
        return false;
    const Action action = action_of(word);
    if (action == Action::Unknown)
        return false;
    try {
        const std::string key(id);
        lt::torrent_handle h;
        bool restarted = false;
        {
            std::lock_guard<std::mutex> guard(s->mutex);
            const auto it = s->torrents.find(key);
            if (it == s->torrents.end() || !it->second.handle.is_valid())
                return false;
            TorrentRec &rec = it->second;
            h = rec.handle;
            if (action == Action::Resume || action == Action::ForceStart || action == Action::Recheck) {
                // Whether the file came back or the user starts over, a fresh check decides, and
                // the watch starts anew from what that check finds complete.
                s->check_files(key, rec);
                if (!rec.missing.empty()) {
                    rec.missing.clear();
                    rec.present.clear();
                    rec.scanned_done = -1;
                    s->save_presence(key, rec);
                    s->forget_pieces(key);
                    // force_recheck clears a file error itself; a clear_error first restarts
                    // an errored torrent, and the check asked for behind it can then hang.
                    h.force_recheck();
                    restarted = true;
                }
            }
        }

        switch (action) {
        case Action::Pause:
            h.unset_flags(lt::torrent_flags::auto_managed);
            h.pause(lt::torrent_handle::graceful_pause);
            break;
        case Action::Resume:
            h.clear_error();
            h.set_flags(lt::torrent_flags::auto_managed);
            h.resume();
            break;
        case Action::ForceStart:
            h.clear_error();
            h.unset_flags(lt::torrent_flags::auto_managed);
            h.resume();
            break;
        case Action::Recheck:
            if (restarted) {
                // The user asked for a check, not a download: the torrent pauses when it ends.
                h.set_flags(lt::torrent_flags::stop_when_ready);
                h.resume();
            } else {
                h.force_recheck();
            }
            break;
        case Action::Reannounce:
            h.force_reannounce(0, -1, lt::torrent_handle::ignore_min_interval);
            h.force_dht_announce();
            break;
        case Action::SequentialOn:
            h.set_flags(lt::torrent_flags::sequential_download);
            break;
        case Action::SequentialOff:
            h.unset_flags(lt::torrent_flags::sequential_download);
            break;
        case Action::QueueUp:
            h.queue_position_up();
            break;
        case Action::QueueDown:
            h.queue_position_down();
            break;
        case Action::QueueTop:
            h.queue_position_top();
            break;
        case Action::QueueBottom:
            h.queue_position_bottom();
            break;
        case Action::Unknown:
            return false;
        }
        h.save_resume_data(SaveIfChanged);
        return true;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "action %s failed: %s\n", word, e.what());
        return false;
    } catch (...) {
        std::fprintf(stderr, "action %s failed: %s\n", word, "unknown exception");
        return false;
    }
}

bool tb_set_file_priorities(tb_session *s, const char *id, const int32_t *files, int32_t count,
                            int32_t priority)
{
    if (!s || !id)
        return false;
    try {
        const lt::torrent_handle h = s->find(id);
        if (!h.is_valid())
            return false;
        const std::shared_ptr<const lt::torrent_info> info = h.torrent_file();
        if (!info)
            return false;
        const int32_t num_files = info->num_files();
        const lt::download_priority_t value(static_cast<std::uint8_t>(std::clamp(priority, 0, 7)));
        // One file at a time, never the whole list read, changed and written back: a stream
        // opening meanwhile makes its own file wanted, and a whole list would undo that.
        for (int32_t k = 0; files && k < count; ++k) {
            const int32_t index = files[k];
            if (index >= 0 && index < num_files)
                h.file_priority(lt::file_index_t(index), value);
        }
        h.save_resume_data(lt::torrent_handle::save_info_dict);
        return true;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "set file priorities failed: %s\n", e.what());
        return false;
    } catch (...) {
        std::fprintf(stderr, "set file priorities failed: %s\n", "unknown exception");
        return false;
    }
}

bool tb_set_limits(tb_session *s, const char *id, int32_t download, int32_t upload,
                   int32_t connections, int32_t uploads)
{
    if (!s || !id)
        return false;
    try {
        lt::torrent_handle h;
        {
            std::lock_guard<std::mutex> guard(s->mutex);
            const auto it = s->torrents.find(id);
            if (it == s->torrents.end() || !it->second.handle.is_valid())
                return false;
            h = it->second.handle;
            // Kept where the status report can read them back, so that a caller that changes
            // one limit can keep the others.
            it->second.download_limit = std::max<int64_t>(download, 0);
            it->second.upload_limit = std::max<int64_t>(upload, 0);
        }
        // libtorrent reads a rate of 0 or less as no limit.
        h.set_download_limit(download);
        h.set_upload_limit(upload);
        h.set_max_connections(connections < 1 ? -1 : connections);
        // The library's own "unlimited" for unchoke slots.
        h.set_max_uploads(uploads < 1 ? 16777215 : uploads);
        h.save_resume_data(lt::torrent_handle::save_info_dict);
        return true;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "set limits failed: %s\n", e.what());
        return false;
    } catch (...) {
        std::fprintf(stderr, "set limits failed: %s\n", "unknown exception");
        return false;
    }
}

bool tb_add_trackers(tb_session *s, const char *id, const char *urls)
{
    if (!s || !id)
        return false;
    try {
        const lt::torrent_handle h = s->find(id);
        if (!h.is_valid())
            return false;
        for (const std::string &url : lines(urls))
            h.add_tracker(lt::announce_entry(url));
        h.force_reannounce(0, -1, lt::torrent_handle::ignore_min_interval);
        h.save_resume_data(lt::torrent_handle::save_info_dict);
        return true;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "add trackers failed: %s\n", e.what());
        return false;
    } catch (...) {
        std::fprintf(stderr, "add trackers failed: %s\n", "unknown exception");
        return false;
    }
}

bool tb_move_storage(tb_session *s, const char *id, const char *path)
{
    if (!s || !id || !path)
        return false;
    try {
        const lt::torrent_handle h = s->find(id);
        if (!h.is_valid())
            return false;
        // No waiting: the status shows "moving" until the library is done.
        h.move_storage(path);
        return true;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "move storage failed: %s\n", e.what());
        return false;
    } catch (...) {
        std::fprintf(stderr, "move storage failed: %s\n", "unknown exception");
        return false;
    }
}

} // extern "C"
