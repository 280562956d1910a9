#include "bridge/tb_session.h"

#include "bridge/BridgeJson.h"
#include "bridge/BridgeText.h"

#include <libtorrent/error_code.hpp>
#include <libtorrent/load_torrent.hpp>
#include <libtorrent/magnet_uri.hpp>
#include <libtorrent/read_resume_data.hpp>
#include <libtorrent/torrent_info.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <sys/stat.h>

namespace tb {

std::set<int> parse_presence(const std::vector<char> &bytes)
{
    std::set<int> present;
    const std::string text(bytes.begin(), bytes.end());
    size_t pos = 0;
    bool first = true;
    while (pos < text.size()) {
        const size_t start = text.find_first_not_of(" \t\r\n", pos);
        if (start == std::string::npos)
            break;
        size_t end = text.find_first_of(" \t\r\n", start);
        if (end == std::string::npos)
            end = text.size();
        const std::string word = text.substr(start, end - start);
        pos = end;
        if (first) {
            // Another first word is a format this build doesn't know: trusting its numbers
            // could hold back a torrent for a file that was never complete.
            if (word != "v1")
                return {};
            first = false;
            continue;
        }
        char *stop = nullptr;
        errno = 0;
        const long value = std::strtol(word.c_str(), &stop, 10);
        if (stop == word.c_str() || *stop != '\0' || errno == ERANGE || value < 0 || value > INT_MAX)
            continue;
        present.insert(static_cast<int>(value));
    }
    return present;
}

std::string presence_text(const std::set<int> &present)
{
    std::string text = "v1\n";
    for (const int index : present)
        text += std::to_string(index) + "\n";
    return text;
}

} // namespace tb

using namespace tb;

namespace {

bool is_id(const std::string &text)
{
    return text.size() == 40
        && std::all_of(text.begin(), text.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string id_of_params(const lt::add_torrent_params &params)
{
    return id_of(params.ti ? params.ti->info_hashes() : params.info_hashes);
}

void set_error(char **out_error, const std::string &text)
{
    if (out_error)
        *out_error = dup(text);
}

std::vector<lt::download_priority_t> parse_priorities(const std::string &text)
{
    std::vector<lt::download_priority_t> result;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        if (comma == std::string::npos)
            comma = text.size();
        const int value = std::atoi(text.substr(pos, comma - pos).c_str());
        // The library keeps a priority in one byte; a negative value would wrap to a high one.
        result.emplace_back(static_cast<std::uint8_t>(std::clamp(value, 0, 7)));
        pos = comma + 1;
    }
    return result;
}

void apply_options(lt::add_torrent_params &params, const char *text)
{
    const auto opts = options(text);
    const auto value = [&opts](const char *key) {
        const auto it = opts.find(key);
        return it == opts.end() ? std::string() : it->second;
    };
    if (opts.count("save_path"))
        params.save_path = value("save_path");
    if (value("paused") == "1") {
        params.flags |= lt::torrent_flags::paused;
        params.flags &= ~lt::torrent_flags::auto_managed;
    } else {
        params.flags |= lt::torrent_flags::auto_managed;
        params.flags &= ~lt::torrent_flags::paused;
    }
    if (value("sequential") == "1")
        params.flags |= lt::torrent_flags::sequential_download;
    if (value("choose") == "1")
        params.flags |= lt::torrent_flags::default_dont_download;
    // A magnet link's file count is unknown until its metadata comes; priorities for it would
    // land on files nobody has seen.
    if (params.ti && opts.count("priorities"))
        params.file_priorities = parse_priorities(value("priorities"));
}

} // namespace

namespace tb {

std::set<int> resume_candidates(const lt::add_torrent_params &params)
{
    std::set<int> candidates;
    if (!params.ti)
        return candidates;
    const lt::file_storage &files = params.ti->files();
    // A finished torrent that the user paused can come without a piece list; its files were
    // all there when it was saved.
    const bool paused_complete = params.have_pieces.empty() && params.completed_time > 0
        && (params.flags & lt::torrent_flags::paused);
    for (const lt::file_index_t file : files.file_range()) {
        const int index = static_cast<int>(file);
        if (files.pad_file_at(file) || files.file_size(file) <= 0)
            continue;
        if (static_cast<size_t>(index) < params.file_priorities.size()
            && params.file_priorities[static_cast<size_t>(index)] == lt::dont_download)
            continue;
        if (paused_complete) {
            candidates.insert(index);
            continue;
        }
        const int first = static_cast<int>(files.map_file(file, 0, 1).piece);
        const int last = static_cast<int>(files.map_file(file, files.file_size(file) - 1, 1).piece);
        for (int piece = first; piece <= last && piece < params.have_pieces.size(); ++piece) {
            if (params.have_pieces.get_bit(lt::piece_index_t(piece))) {
                candidates.insert(index);
                break;
            }
        }
    }
    return candidates;
}

bool candidate_missing(const lt::add_torrent_params &params, const std::set<int> &candidates)
{
    if (!params.ti)
        return false;
    const lt::file_storage &files = params.ti->files();
    for (const int index : candidates) {
        if (index >= files.num_files())
            break;
        const lt::file_index_t file(index);
        // Pad files are never written to disk; an index of one names nothing to look for.
        if (files.pad_file_at(file) || files.file_size(file) <= 0)
            continue;
        // A file the user no longer wants says nothing about the others.
        if (static_cast<size_t>(index) < params.file_priorities.size()
            && params.file_priorities[static_cast<size_t>(index)] == lt::dont_download)
            continue;
        std::string path;
        const auto renamed = params.renamed_files.find(file);
        if (renamed != params.renamed_files.end())
            path = renamed->second.rfind('/', 0) == 0 ? renamed->second
                                                       : params.save_path + "/" + renamed->second;
        else
            path = files.file_path(file, params.save_path);
        struct stat info{};
        if (::stat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR))
            return true;
    }
    return false;
}

} // namespace tb

namespace {

char *add(tb_session *s, lt::add_torrent_params params, const char *opts, char **out_error)
{
    apply_options(params, opts);
    // A duplicate must leave the torrent that is there as it is; without this flag the
    // library would hand back its handle and merge the new link's trackers into it.
    params.flags |= lt::torrent_flags::duplicate_is_error;
    const std::string id = id_of_params(params);
    // A torrent of the library that the restore has not reached yet is brought back first,
    // so that adding it again finds it instead of starting it over in a new place.
    s->restore_before_add(id);
    lt::error_code ec;
    lt::torrent_handle handle;
    {
        // The library call runs under the lock, so that no alert of the new torrent is
        // handled before its id is known: a link with a peer in it can bring its metadata
        // within milliseconds, and after that the handle's hash no longer gives the id back.
        // Alerts look ids up under ids_lock, so that is the lock held across the call.
        std::lock_guard<std::mutex> guard(s->mutex);
        if (s->torrents.count(id)) {
            set_error(out_error, "duplicate");
            return dup(id);
        }
        std::lock_guard<std::mutex> ids(s->ids_lock);
        handle = s->session->add_torrent(params, ec);
        if (!ec && handle.is_valid()) {
            s->torrents[id].handle = handle;
            s->handle_ids[handle] = id;
        }
    }
    if (ec == lt::errors::duplicate_torrent) {
        // Present under the other half of a hybrid hash: a btih link of a torrent that was
        // added from its file, or the other way round. The answer is the id it was added under.
        const lt::info_hash_t hashes = params.ti ? params.ti->info_hashes() : params.info_hashes;
        lt::torrent_handle existing;
        if (hashes.has_v1())
            existing = s->session->find_torrent(hashes.v1);
        if (!existing.is_valid() && hashes.has_v2())
            existing = s->session->find_torrent(lt::sha1_hash(hashes.v2.data()));
        const std::string existing_id = existing.is_valid() ? s->id_for(existing) : std::string();
        if (!existing_id.empty()) {
            set_error(out_error, "duplicate");
            return dup(existing_id);
        }
    }
    if (ec || !handle.is_valid()) {
        set_error(out_error, ec ? ec.message() : std::string("add failed"));
        return nullptr;
    }
    s->remember(handle, id, {});
    // The first resume file makes the torrent survive a crash in its very first second.
    handle.save_resume_data(lt::torrent_handle::save_info_dict);
    return dup(id);
}

} // namespace

void tb_session::remember(const lt::torrent_handle &handle, const std::string &id,
                          const std::set<int> &present)
{
    std::lock_guard<std::mutex> guard(mutex);
    TorrentRec &rec = torrents[id];
    rec.handle = handle;
    rec.scanned_done = -1;
    set_id(handle, id);

    const std::vector<char> bytes = read_file(presence_path(id));
    if (bytes.empty()) {
        rec.present = present;
        save_presence(id, rec);
    } else {
        // The file was written while the files were watched; it knows better than the
        // piece list of a resume file.
        rec.present = parse_presence(bytes);
    }

    const std::shared_ptr<const lt::torrent_info> info = handle.torrent_file();
    if (info) {
        rec.is_private = info->priv();
        apply_trackers(rec);
    }
    check_files(id, rec);
}

lt::load_torrent_limits tb::resume_limits()
{
    lt::load_torrent_limits limits;
    limits.max_buffer_size = 10000000;
    limits.max_pieces = 2097152;
    limits.max_decode_depth = 100;
    limits.max_decode_tokens = 3000000;
    return limits;
}

void tb_session::load_resume_files()
{
    check_log("restore", dir);
    DIR *folder = ::opendir((dir + "/resume").c_str());
    std::vector<std::string> names;
    if (folder) {
        while (const dirent *entry = ::readdir(folder)) {
            const std::string name = entry->d_name;
            if (name.size() >= 8 && name.compare(name.size() - 7, 7, ".resume") == 0)
                names.push_back(name);
        }
        ::closedir(folder);
    }
    try {
        for (const std::string &name : names) {
            if (stop.load())
                break;
            std::lock_guard<std::mutex> one_at_a_time(restore_lock);
            restore_one(name);
        }
    } catch (...) {
        std::fprintf(stderr, "restore stopped early\n");
    }
    restoring = false;
    check_log("restored", dir);
}

void tb_session::restore_before_add(const std::string &id)
{
    if (!restoring.load())
        return;
    std::lock_guard<std::mutex> one_at_a_time(restore_lock);
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (torrents.count(id))
            return;
    }
    struct stat info {};
    if (::stat(resume_path(id).c_str(), &info) == 0)
        restore_one(id + ".resume");
}

void tb_session::restore_one(const std::string &name)
{
    try {
        const std::vector<char> bytes = read_file(dir + "/resume/" + name);
        if (bytes.empty())
            return;
        lt::error_code ec;
        lt::add_torrent_params params = lt::read_resume_data(bytes, ec, resume_limits());
        // A file that doesn't read stays on disk; the next start tries it again.
        if (ec)
            return;
        // The file carries the id the torrent was added under. For a btih link of a
        // hybrid torrent that is the v1 hash, while the metadata now names the v2 one.
        std::string id = name.substr(0, name.size() - 7);
        if (!is_id(id))
            id = id_of_params(params);

        std::set<int> candidates = resume_candidates(params);
        const std::vector<char> presence = read_file(presence_path(id));
        if (!presence.empty())
            candidates = parse_presence(presence);
        if (candidate_missing(params, candidates)) {
            // Added paused, the first check_files reports the file instead of a silent
            // download from scratch.
            params.flags |= lt::torrent_flags::paused;
            params.flags &= ~lt::torrent_flags::auto_managed;
        }

        // What the resume data says of pieces is not believed: every start hashes the
        // disk again.
        params.have_pieces.clear();
        params.verified_pieces.clear();
        params.unfinished_pieces.clear();
        params.flags &= ~(lt::torrent_flags::seed_mode | lt::torrent_flags::no_verify_files);
        // Two resume files of one torrent must not make two records of one handle.
        params.flags |= lt::torrent_flags::duplicate_is_error;

        // The resume data carries the torrent's own limits; the library reads below 1 as none.
        const int64_t download_limit = std::max(0, params.download_limit);
        const int64_t upload_limit = std::max(0, params.upload_limit);
        lt::torrent_handle handle;
        {
            // The alert thread runs meanwhile: the id is known before any alert of the
            // handle can be looked at.
            std::lock_guard<std::mutex> guard(mutex);
            std::lock_guard<std::mutex> ids(ids_lock);
            handle = session->add_torrent(std::move(params), ec);
            if (ec || !handle.is_valid())
                return;
            TorrentRec &rec = torrents[id];
            rec.handle = handle;
            rec.download_limit = download_limit;
            rec.upload_limit = upload_limit;
            handle_ids[handle] = id;
        }
        remember(handle, id, candidates);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "restore of %s failed: %s\n", name.c_str(), e.what());
    } catch (...) {
        std::fprintf(stderr, "restore of %s failed: %s\n", name.c_str(), "unknown exception");
    }
}

extern "C" {

char *tb_inspect_torrent(const char *path)
{
    std::string out;
    try {
        const lt::add_torrent_params params = lt::load_torrent_file(path ? path : "");
        const lt::torrent_info &info = *params.ti;
        const lt::file_storage &files = info.files();
        Obj o(out);
        o.s("id", id_of(info.info_hashes()));
        o.s("name", info.name());
        o.i("size", info.total_size());
        o.i("pieceLength", info.piece_length());
        o.i("pieces", info.num_pieces());
        o.b("private", info.priv());
        o.s("comment", info.comment());
        o.s("creator", info.creator());
        {
            // Loading moves the announce list out of the metadata into the parameters.
            Arr trackers(o.key("trackers"));
            for (const std::string &url : params.trackers)
                trackers.s(url);
        }
        Arr list(o.key("files"));
        for (const lt::file_index_t file : files.file_range()) {
            Obj f(list.next());
            f.i("i", static_cast<int>(file));
            f.s("path", files.file_path(file, ""));
            f.i("size", files.file_size(file));
            f.b("pad", files.pad_file_at(file));
        }
    } catch (const std::exception &e) {
        out.clear();
        Obj o(out);
        o.s("error", e.what());
    } catch (...) {
        out.clear();
        Obj o(out);
        o.s("error", "unknown exception");
    }
    return dup(out);
}

char *tb_add_torrent(tb_session *s, const char *path, const char *opts, char **out_error)
{
    if (!s) {
        set_error(out_error, "no session");
        return nullptr;
    }
    try {
        return add(s, lt::load_torrent_file(path ? path : ""), opts, out_error);
    } catch (const std::exception &e) {
        set_error(out_error, e.what());
        return nullptr;
    } catch (...) {
        set_error(out_error, "unknown exception");
        return nullptr;
    }
}

char *tb_add_magnet(tb_session *s, const char *uri, const char *opts, char **out_error)
{
    if (!s) {
        set_error(out_error, "no session");
        return nullptr;
    }
    try {
        lt::error_code ec;
        lt::add_torrent_params params = lt::parse_magnet_uri(uri ? uri : "", ec);
        if (ec) {
            set_error(out_error, ec.message());
            return nullptr;
        }
        return add(s, std::move(params), opts, out_error);
    } catch (const std::exception &e) {
        set_error(out_error, e.what());
        return nullptr;
    } catch (...) {
        set_error(out_error, "unknown exception");
        return nullptr;
    }
}

bool tb_remove(tb_session *s, const char *id, int flags)
{
    if (!s || !id)
        return false;
    try {
        const std::string key = id;
        const lt::torrent_handle handle = s->find(key);
        if (!handle.is_valid())
            return false;
        {
            // The record goes first and the files with it, under the lock the resume writes
            // take: a resume write that arrives late finds no record and writes no file back.
            std::lock_guard<std::mutex> files(s->files_lock);
            {
                std::lock_guard<std::mutex> guard(s->mutex);
                s->torrents.erase(key);
            }
            s->forget_id(handle);
            std::remove(s->resume_path(key).c_str());
            std::remove(s->presence_path(key).c_str());
        }
        s->forget_pieces(key);
        s->session->remove_torrent(handle, (flags & 1) ? lt::session_handle::delete_files
                                                       : lt::remove_flags_t{});
        return true;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "remove failed: %s\n", e.what());
        return false;
    } catch (...) {
        std::fprintf(stderr, "remove failed: %s\n", "unknown exception");
        return false;
    }
}

} // extern "C"
