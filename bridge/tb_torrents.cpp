// PLACEHOLDER until adding/removing lands.
#include "bridge/tb_session.h"
#include "bridge/BridgeText.h"
void tb_session::load_resume_files() {}
void tb_session::remember(const lt::torrent_handle &, const std::string &, const std::set<int> &) {}
namespace tb {
std::set<int> parse_presence(const std::vector<char> &) { return {}; }
std::string presence_text(const std::set<int> &) { return "v1\n"; }
}
extern "C" {
char *tb_inspect_torrent(const char *) { return tb::dup("{}"); }
char *tb_add_torrent(tb_session *, const char *, const char *, char **) { return nullptr; }
char *tb_add_magnet(tb_session *, const char *, const char *, char **) { return nullptr; }
bool tb_remove(tb_session *, const char *, int) { return false; }
}
