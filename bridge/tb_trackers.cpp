// PLACEHOLDER until tracker policy lands.
#include "bridge/tb_session.h"
void tb_session::apply_trackers(TorrentRec &) {}
void tb_session::scan_banned_peers() {}
extern "C" {
void tb_set_extra_trackers(tb_session *, const char *, bool) {}
void tb_set_banned_clients(tb_session *, const char *) {}
}
