// PLACEHOLDER until reports land.
#include "bridge/tb_session.h"
#include "bridge/BridgeText.h"
extern "C" {
char *tb_status_json(tb_session *) { return tb::dup("{\"session\":{\"download\":0,\"upload\":0,\"dhtNodes\":0,\"incoming\":false,\"externalIP\":\"\",\"portmap\":\"\",\"banned\":0,\"listening\":[],\"listenErrors\":[]},\"torrents\":[]}"); }
char *tb_files_json(tb_session *, const char *) { return tb::dup("[]"); }
char *tb_peers_json(tb_session *, const char *) { return tb::dup("[]"); }
char *tb_trackers_json(tb_session *, const char *) { return tb::dup("[]"); }
char *tb_diagnostics_json(tb_session *) { return tb::dup("{}"); }
char *tb_pieces(tb_session *, const char *, int) { return tb::dup(""); }
char *tb_piece_states(tb_session *, const char *) { return tb::dup(""); }
}
