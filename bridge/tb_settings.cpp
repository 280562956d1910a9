// Settings text as the library reads it.

#include "bridge/BridgeText.h"
#include "bridge/tb_session.h"
#include "bridge/tb_stream.h"

#include <libtorrent/settings_pack.hpp>

extern "C" {

char *tb_unknown_settings(const char *settings)
{
    std::string unknown;
    for (const auto &[key, value] : tb::options(settings)) {
        if (lt::setting_by_name(key) < 0)
            unknown += (unknown.empty() ? "" : "\n") + key;
    }
    return tb::dup(unknown);
}

} // extern "C"
