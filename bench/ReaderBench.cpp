// How long a stream read waits for a piece that is on disk, in a session alone and in a session
// with a big library beside it: from tb_reader_read to the bytes, for a piece the read has to
// fetch (read_piece, the disk, the alert, the wake-up). The library's upkeep (the watch over
// its files each second, resume and presence writes) must not stand between a delivered piece
// and the read that waits for it.
//
// usage: velix_bench_reader [--library N] [--reads N] [--gap MS] [--film MiB] [--piece KiB]
// Run it inside a loopback-only namespace. It makes its data in a temporary directory.

#include "bridge/tb_bridge.h"
#include "engine/AppSettings.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace testsupport;
using Clock = std::chrono::steady_clock;

namespace {

struct Options
{
    int library = 2000;
    int reads = 600;
    int gapMs = 10;
    int filmMiB = 256;
    int pieceKiB = 256;
};

std::string take(char *text)
{
    std::string copy = text ? text : "";
    tb_free(text);
    return copy;
}

double percentileOf(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t at = std::min(values.size() - 1, static_cast<size_t>(p / 100.0 * static_cast<double>(values.size())));
    return values[at];
}

std::string add(tb_session *session, const MadeTorrent &t, const std::string &savePath)
{
    char *error = nullptr;
    const std::string options = "save_path=" + savePath + "\npaused=0";
    std::string id = take(tb_add_torrent(session, t.torrentPath.c_str(), options.c_str(), &error));
    tb_free(error);
    return id;
}

bool complete(tb_session *session, const std::string &id)
{
    const std::string map = take(tb_pieces(session, id.c_str(), -1));
    return !map.empty() && map.find_first_not_of('1') == std::string::npos;
}

// Read times of fresh pieces, in milliseconds: every other piece, so the read-ahead of one
// never serves the next.
std::vector<double> readTimes(tb_session *session, const std::string &id, const Options &options)
{
    std::vector<double> times;
    tb_reader *reader = tb_reader_open(session, id.c_str(), 0);
    if (!reader)
        return times;
    const int64_t piece = int64_t(options.pieceKiB) * 1024;
    const int64_t pieces = tb_reader_size(reader) / piece;
    std::vector<char> buffer(static_cast<size_t>(piece));
    for (int k = 0; k < options.reads; ++k) {
        const int64_t at = ((int64_t(k) * 2) % std::max<int64_t>(pieces - 1, 1)) * piece;
        tb_reader_seek(reader, at);
        const auto began = Clock::now();
        if (tb_reader_read(reader, buffer.data(), piece) <= 0)
            break;
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - began).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(options.gapMs));
    }
    tb_reader_close(reader);
    return times;
}

void run(const Options &options, int library)
{
    TempDir dir;
    const int port = freeTcpPort();
    std::string settings = AppSettings::defaults(NetworkProfile::Standard, port).libtorrentSettings().toStdString();
    settings += "\nlisten_interfaces=127.0.0.1:" + std::to_string(port)
        + "\nenable_dht=0\nenable_lsd=0\nenable_upnp=0\nenable_natpmp=0\ndht_bootstrap_nodes=";
    tb_session *session = tb_session_create(dir.file("state").c_str(), settings.c_str());

    // The library: small files whose data lies complete where they are saved, so the watch
    // has every one of them to look at each second.
    const auto made = Clock::now();
    for (int k = 0; k < library; ++k) {
        const std::string name = "item" + std::to_string(k) + ".bin";
        writePatternFile(dir.file("library/" + name), 16 * 1024, static_cast<uint32_t>(k + 7));
        add(session, makeTorrent(dir.file("library"), name, dir.file("torrents")), dir.file("library"));
    }
    writePatternFile(dir.file("film/film.bin"), int64_t(options.filmMiB) << 20, 3);
    TorrentOptions big;
    big.pieceLength = options.pieceKiB * 1024;
    const MadeTorrent film = makeTorrent(dir.file("film"), "film.bin", dir.file("torrents"), big);
    const std::string id = add(session, film, dir.file("film"));
    waitFor([&] { return complete(session, id); }, std::chrono::minutes(10));
    // The library's checks over, the session at rest but for its upkeep.
    std::this_thread::sleep_for(std::chrono::seconds(library ? 20 : 2));
    std::printf("library of %d ready after %.1f s\n", library,
                std::chrono::duration<double>(Clock::now() - made).count());

    const std::vector<double> times = readTimes(session, id, options);
    std::printf("  %-40s %8zu\n", "fresh pieces read", times.size());
    std::printf("  %-40s %8.2f ms\n", "read to data, median", percentileOf(times, 50));
    std::printf("  %-40s %8.2f ms\n", "read to data, p90", percentileOf(times, 90));
    std::printf("  %-40s %8.2f ms\n", "read to data, p99", percentileOf(times, 99));
    std::printf("  %-40s %8.2f ms\n", "read to data, max", percentileOf(times, 100));
    std::fflush(stdout);
    tb_session_destroy(session);
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    for (int k = 1; k + 1 < argc; k += 2) {
        const int value = std::atoi(argv[k + 1]);
        if (!std::strcmp(argv[k], "--library"))
            options.library = value;
        else if (!std::strcmp(argv[k], "--reads"))
            options.reads = value;
        else if (!std::strcmp(argv[k], "--gap"))
            options.gapMs = value;
        else if (!std::strcmp(argv[k], "--film"))
            options.filmMiB = value;
        else if (!std::strcmp(argv[k], "--piece"))
            options.pieceKiB = value;
    }
    run(options, 0);
    run(options, options.library);
    return 0;
}
