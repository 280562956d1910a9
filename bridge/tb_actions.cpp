// PLACEHOLDER until actions land.
#include "bridge/tb_session.h"
void tb_session::check_files(const std::string &, TorrentRec &) {}
void tb_session::save_presence(const std::string &, const TorrentRec &) {}
void tb_session::forget_pieces(const std::string &) {}
extern "C" {
bool tb_action(tb_session *, const char *, const char *) { return false; }
bool tb_set_file_priorities(tb_session *, const char *, const int32_t *, int32_t, int32_t) { return false; }
bool tb_set_limits(tb_session *, const char *, int32_t, int32_t, int32_t, int32_t) { return false; }
bool tb_add_trackers(tb_session *, const char *, const char *) { return false; }
bool tb_move_storage(tb_session *, const char *, const char *) { return false; }
}
