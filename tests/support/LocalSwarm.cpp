#include "support/LocalSwarm.h"

#include <libtorrent/alert_types.hpp>
#include <libtorrent/create_torrent.hpp>
#include <libtorrent/ip_filter.hpp>
#include <libtorrent/peer_info.hpp>
#include <libtorrent/session.hpp>
#include <libtorrent/torrent_info.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace lt = libtorrent;

namespace testsupport {

namespace {

std::string hex(const char *bytes, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t k = 0; k < n; ++k) {
        const auto c = static_cast<unsigned char>(bytes[k]);
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

} // namespace

MadeTorrent makeTorrent(const std::string &root, const std::string &content, const std::string &outDir,
                        const TorrentOptions &options)
{
    lt::file_storage fs;
    lt::add_files(fs, root + "/" + content);
    lt::create_flags_t flags{};
    if (options.v1Only)
        flags |= lt::create_torrent::v1_only;
    lt::create_torrent ct(fs, options.pieceLength, flags);
    int tier = 0;
    for (const auto &url : options.trackers)
        ct.add_tracker(url, tier++);
    ct.set_priv(options.isPrivate);
    ct.set_creator("velix tests");
    lt::set_piece_hashes(ct, root);
    std::vector<char> bytes;
    lt::bencode(std::back_inserter(bytes), ct.generate());

    const lt::torrent_info info(bytes, lt::from_span);
    MadeTorrent made;
    made.name = info.name();
    made.contentRoot = root;
    made.pieceLength = info.piece_length();
    made.numPieces = info.num_pieces();
    const lt::info_hash_t hashes = info.info_hashes();
    made.v1Hex = hex(hashes.v1.data(), 20);
    made.id = hashes.has_v2() ? hex(hashes.v2.data(), 20) : made.v1Hex;
    std::filesystem::create_directories(outDir);
    made.torrentPath = outDir + "/" + made.name + ".torrent";
    std::ofstream(made.torrentPath, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return made;
}

struct LocalSeeder::Impl
{
    std::unique_ptr<lt::session> session;
    std::map<std::string, lt::torrent_handle> handles;
};

LocalSeeder::LocalSeeder(int uploadLimit)
    : m_impl(std::make_unique<Impl>())
{
    lt::settings_pack pack;
    pack.set_str(lt::settings_pack::listen_interfaces, "127.0.0.1:0");
    pack.set_bool(lt::settings_pack::enable_dht, false);
    pack.set_bool(lt::settings_pack::enable_lsd, false);
    pack.set_bool(lt::settings_pack::enable_upnp, false);
    pack.set_bool(lt::settings_pack::enable_natpmp, false);
    pack.set_bool(lt::settings_pack::allow_multiple_connections_per_ip, true);
    pack.set_int(lt::settings_pack::tick_interval, 100);
    pack.set_str(lt::settings_pack::dht_bootstrap_nodes, "");
    pack.set_int(lt::settings_pack::alert_mask, lt::alert_category::error | lt::alert_category::status);
    if (uploadLimit > 0)
        pack.set_int(lt::settings_pack::upload_rate_limit, uploadLimit);
    m_impl->session = std::make_unique<lt::session>(std::move(pack));
    if (uploadLimit > 0) {
        // Loopback peers are exempt from rate limits unless a filter puts them in the global class.
        lt::ip_filter filter;
        filter.add_rule(lt::make_address("127.0.0.0"), lt::make_address("127.255.255.255"),
                        1 << static_cast<std::uint32_t>(lt::session::global_peer_class_id));
        m_impl->session->set_peer_class_filter(filter);
    }
}

LocalSeeder::~LocalSeeder() = default;

bool LocalSeeder::seed(const MadeTorrent &t)
{
    lt::add_torrent_params params;
    params.ti = std::make_shared<lt::torrent_info>(t.torrentPath);
    params.save_path = t.contentRoot;
    params.flags |= lt::torrent_flags::seed_mode;
    params.flags &= ~lt::torrent_flags::auto_managed;
    params.flags &= ~lt::torrent_flags::paused;
    lt::error_code ec;
    lt::torrent_handle h = m_impl->session->add_torrent(std::move(params), ec);
    if (ec)
        return false;
    m_impl->handles[t.id] = h;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
        if (h.status().is_seeding)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int LocalSeeder::port() const
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (m_impl->session->listen_port() == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return m_impl->session->listen_port();
}

std::string LocalSeeder::endpoint() const
{
    return "127.0.0.1:" + std::to_string(port());
}

std::string LocalSeeder::magnet(const MadeTorrent &t) const
{
    return "magnet:?xt=urn:btih:" + t.v1Hex + "&dn=" + t.name + "&x.pe=" + endpoint();
}

bool LocalSeeder::connectTo(const MadeTorrent &t, int peerPort)
{
    const auto it = m_impl->handles.find(t.id);
    if (it == m_impl->handles.end())
        return false;
    const lt::tcp::endpoint peer(lt::make_address("127.0.0.1"), static_cast<std::uint16_t>(peerPort));
    // A peer that refused once (its listen socket was not up yet) is only tried again after a
    // minute, longer than a test waits; so the connection is asked for until it stands.
    // A peer that wanted little may have taken it and closed the connection before it is seen.
    const std::int64_t sentBefore = it->second.status().total_payload_upload;
    const auto connected = [&] {
        if (it->second.status().total_payload_upload > sentBefore)
            return true;
        std::vector<lt::peer_info> peers;
        it->second.get_peer_info(peers);
        for (const lt::peer_info &p : peers) {
            if (p.ip == peer && !(p.flags & (lt::peer_info::connecting | lt::peer_info::handshake)))
                return true;
        }
        return false;
    };
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < giveUp) {
        it->second.connect_peer(peer);
        const auto retry = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (std::chrono::steady_clock::now() < retry) {
            if (connected())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    return false;
}

void LocalSeeder::offer(const MadeTorrent &t, int peerPort)
{
    const auto it = m_impl->handles.find(t.id);
    if (it != m_impl->handles.end())
        it->second.connect_peer(lt::tcp::endpoint(lt::make_address("127.0.0.1"), static_cast<std::uint16_t>(peerPort)));
}

std::string quietSettingsText(int port)
{
    return "listen_interfaces=127.0.0.1:" + std::to_string(port)
        + "\nenable_dht=0\nenable_lsd=0\nenable_upnp=0\nenable_natpmp=0"
          "\nallow_multiple_connections_per_ip=1\ntick_interval=100\ndht_bootstrap_nodes="
          "\nuser_agent=Velix/0.1 libtorrent/2.1";
}

int freeTcpPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    ::close(fd);
    return port;
}

} // namespace testsupport
