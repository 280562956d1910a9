#pragma once

// Real torrents and a real seeder on 127.0.0.1 for integration tests. libtorrent stays inside
// this file's .cpp: tests see paths, ids, ports and magnet links only.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

struct MadeTorrent
{
    std::string torrentPath; // the .torrent file
    std::string contentRoot; // directory that holds the content (the save path for a seeder)
    std::string id;          // the id the bridge gives it (v1 hex, or v2 cut to 20 bytes)
    std::string v1Hex;       // the btih, for btih-only magnets of hybrid torrents
    std::string name;
    int pieceLength = 0;
    int numPieces = 0;
};

struct TorrentOptions
{
    int pieceLength = 16 * 1024;
    bool v1Only = false;   // default: hybrid v1+v2, as libtorrent makes them
    bool isPrivate = false;
    std::vector<std::string> trackers;
};

// Makes a .torrent for `content` (a file or a directory below `root`) and writes it beside the
// content as <name>.torrent in `outDir`.
MadeTorrent makeTorrent(const std::string &root, const std::string &content,
                        const std::string &outDir, const TorrentOptions &options = {});

// A libtorrent session that seeds on 127.0.0.1 with DHT, LSD, UPnP and NAT-PMP off.
class LocalSeeder
{
public:
    // uploadLimit in bytes per second, 0 for none. A limit also puts loopback peers in the
    // global peer class, since the library exempts local peers from rate limits otherwise.
    explicit LocalSeeder(int uploadLimit = 0);
    ~LocalSeeder();
    LocalSeeder(const LocalSeeder &) = delete;
    LocalSeeder &operator=(const LocalSeeder &) = delete;

    // Seeds a torrent whose content lies complete under t.contentRoot; waits until it seeds.
    bool seed(const MadeTorrent &t);
    int port() const;
    std::string endpoint() const; // "127.0.0.1:<port>"
    // magnet:?xt=urn:btih:<v1>&dn=<name>&x.pe=127.0.0.1:<port>
    std::string magnet(const MadeTorrent &t) const;
    // Connects the seeder to a peer listening at 127.0.0.1:port for torrent t and waits until
    // the connection stands; false if it did not within 30 s.
    bool connectTo(const MadeTorrent &t, int port);
    // One attempt to connect, without waiting; for loops that wait on something else.
    void offer(const MadeTorrent &t, int port);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// Settings text for a bridge session in a test: listens on 127.0.0.1 at a free port with DHT,
// LSD, UPnP and NAT-PMP off, and libtorrent ticking fast enough for short tests.
std::string quietSettingsText(int port = 0);
int freeTcpPort();

} // namespace testsupport
