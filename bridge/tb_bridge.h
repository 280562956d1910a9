#pragma once

// The one public face of the torrent session: flat functions over an opaque session. Text goes
// in ("key=value" lines, short command words), JSON text comes out. No libtorrent type crosses
// this header, and nothing leaves these functions by throwing: a failure is an empty report, a
// false result, a null pointer or a text in an out-parameter.
//
// Every char* returned here was allocated by the bridge and is released with tb_free. Strings
// are NUL-terminated UTF-8. A torrent is named by its id: the 40 lower-case hex digits of its
// best info hash, taken once when it is added.
//
// Threads: the engine's serial queue makes the status, report and command calls, libmpv's
// stream thread makes reader calls; the bridge guards itself. Its own alert thread copies out
// of alerts, and its worker thread does the disk work (resume, presence and state files, the
// watch over the files on disk). Between the start and the
// ordered shutdown, the main thread calls only tb_stream_waiting.

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tb_session tb_session;
typedef struct tb_reader tb_reader;

// Session lifecycle ---------------------------------------------------------------------------

// Creates the session with its state in `dir` (made if missing, with "resume/" under it) and
// starts the alert thread. `settings` is the settings text. The torrents saved there come back
// on a thread of their own, so that a library of thousands does not hold up the start; adding
// one of them meanwhile restores it first and answers "duplicate".
tb_session *tb_session_create(const char *dir, const char *settings);
// Whether the torrents saved in the state directory are still coming back.
bool tb_session_restoring(tb_session *session);
// Applies a new settings text. A changed listen address clears the old listen results.
void tb_apply_settings(tb_session *session, const char *settings);
// Asks for resume data of torrents that changed and writes "session.state". Called about once
// a minute from the engine's queue.
void tb_save_state(tb_session *session);
// Saves what it can and closes the session: at most 10 s waiting for resume data and 3 s for
// the library to close. Null does nothing. No call on the session is allowed afterwards.
void tb_session_destroy(tb_session *session);
// Releases any string the bridge returned. Null does nothing.
void tb_free(void *pointer);

// Adding, inspecting and removing ---------------------------------------------------------------

// A look at a .torrent file without a session: JSON with id, name, sizes, trackers and files,
// or {"error": "..."}.
char *tb_inspect_torrent(const char *path);
// `options` are "key=value" lines: save_path, paused, sequential, choose, priorities.
// Returns the id or null; *out_error (when not null) receives an error text to tb_free. A torrent
// that is already there returns its id together with the error "duplicate".
char *tb_add_torrent(tb_session *session, const char *path, const char *options, char **out_error);
char *tb_add_magnet(tb_session *session, const char *uri, const char *options, char **out_error);
// flags: 0 keeps the files, 1 deletes them. False for an unknown id.
bool tb_remove(tb_session *session, const char *id, int flags);

// Events -------------------------------------------------------------------------------------

// Takes all pending events: a JSON array of {"type","id","name","message"}; "[]" when none.
char *tb_poll_events(tb_session *session);

// Actions ------------------------------------------------------------------------------------

// action: pause, resume, force_start, recheck, reannounce, sequential_on, sequential_off,
// queue_up, queue_down, queue_top, queue_bottom. False for an unknown id or action.
bool tb_action(tb_session *session, const char *id, const char *action);
// Priority is clamped to 0..7; indexes outside the torrent are ignored.
bool tb_set_file_priorities(tb_session *session, const char *id, const int32_t *files,
                            int32_t count, int32_t priority);
// Rates in bytes per second, 0 for unlimited; connections and uploads below 1 mean unlimited.
bool tb_set_limits(tb_session *session, const char *id, int32_t download, int32_t upload,
                   int32_t connections, int32_t uploads);
bool tb_add_trackers(tb_session *session, const char *id, const char *urls);
bool tb_move_storage(tb_session *session, const char *id, const char *path);

// Reports --------------------------------------------------------------------------------------

char *tb_status_json(tb_session *session);
char *tb_files_json(tb_session *session, const char *id);
char *tb_peers_json(tb_session *session, const char *id);
char *tb_trackers_json(tb_session *session, const char *id);
char *tb_diagnostics_json(tb_session *session);
// One digit a piece ("0" missing, "1" done, "2" queued) for one file, or for the whole torrent
// when `file` is negative or past the end.
char *tb_pieces(tb_session *session, const char *id, int file);
// One digit a piece: "0" waiting, "1" downloaded, "2" receiving, "3" unavailable.
char *tb_piece_states(tb_session *session, const char *id);

// Tracker policy and bans -----------------------------------------------------------------------

void tb_set_extra_trackers(tb_session *session, const char *urls, bool mirrors);
void tb_set_banned_clients(tb_session *session, const char *patterns);

// Stream reader ---------------------------------------------------------------------------------

// Opens one file of a torrent as a blocking byte stream; null when the torrent is unknown, has
// no metadata, the index is out of range, or a file of it is missing on disk. Wakes a paused
// torrent and makes an unwanted file wanted. Called on libmpv's stream thread.
tb_reader *tb_reader_open(tb_session *session, const char *id, int file);
// Blocks until the piece under the position is there (up to 600 s). Returns the bytes copied,
// at most to the end of the current piece; 0 at the end of the file; -1 on failure or cancel.
int64_t tb_reader_read(tb_reader *reader, void *buffer, int64_t length);
int64_t tb_reader_seek(tb_reader *reader, int64_t offset);
int64_t tb_reader_size(tb_reader *reader);
// Makes a blocked read return -1 soon; safe from any thread. A cancelled reader stays dead.
void tb_reader_cancel(tb_reader *reader);
void tb_reader_close(tb_reader *reader);
// Puts deadlines on a stretch of a file no reader has open (outside audio tracks).
void tb_prefetch(tb_session *session, const char *id, int file, int64_t bytes, double fraction);
// Share of the piece a stream on this file is blocked on, 0..1; -1 when no read is blocked.
// Asks the library for its download queue, so it waits on the session's network thread.
double tb_stream_progress(tb_session *session, const char *id, int file);
// Whether a read of a stream on this file is blocked on a piece. Only reads what the readers
// publish, under a lock held for nothing else than their list: safe on the main thread.
bool tb_stream_waiting(tb_session *session, const char *id, int file);

#ifdef __cplusplus
}
#endif
