// How fast a stream starts against a rate-limited seeder on 127.0.0.1: time to the first byte
// through the stream reader, to the first frame through the MPV core, and to playing again after
// a seek into a stretch that has not been downloaded. Each figure is a median over several runs
// on a fresh session and is set against its physical bound: the bytes that had to come over the
// wire, divided by the seeder's rate.
//
// usage: velix_bench_streaming [--runs N] [--rate KiB/s] [--seconds S] [--bitrate kbit/s]
//                              [--piece KiB] [--seek FRACTION] [--tick MS] [--set key=value,...]
//                              [--film PATH] [--keep-trace PATH]
// Run it inside a loopback-only namespace. Figures go to standard output; standard error is
// kept in a file, because the reader's trace there tells which pieces each step needed.

#include "bridge/tb_bridge.h"
#include "engine/AppSettings.h"
#include "playback/MPVCore.h"
#include "playback/StreamAddress.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QGuiApplication>
#include <QProcess>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

using namespace testsupport;
using Clock = std::chrono::steady_clock;

namespace {

struct BenchOptions
{
    int runs = 5;
    int rateKiB = 1536;
    double seconds = 180.0;
    int bitrateKbit = 4000;
    int pieceKiB = 256;
    double seekFraction = 0.7;
    int tickMs = 0; // 0 leaves the library's default, as the program does
    std::string keepTrace; // where to copy the trace at the end, for a closer look
    std::string film;      // a film to reuse; made there when missing
    std::string extra;     // further settings lines for the streaming session, "key=value,..."
};

struct RunFigures
{
    double firstByteMs = -1;
    int64_t firstBytePieces = 0;
    double loadedMs = -1;
    double firstFrameMs = -1;
    int64_t firstFramePieces = 0;
    int64_t firstFramePresentBefore = 0;
    double seekMs = -1;
    int64_t seekPieces = 0;
    int64_t seekPresentBefore = 0;
};

// Splits the pieces a step fetched into those that had to come over the wire and those that
// were already there when it began.
void countNeeded(const std::set<int> &fetched, const std::string &before, int64_t &needed, int64_t &had)
{
    for (const int piece : fetched) {
        if (piece >= 0 && piece < static_cast<int>(before.size()) && before[static_cast<size_t>(piece)] == '1')
            ++had;
        else
            ++needed;
    }
}

// A film at a real stream's bit rate: a moving test picture under noise, so the encoder cannot
// squeeze it to nothing, in Matroska, whose index sits at the end of the file.
bool makeFilm(const std::string &path, const BenchOptions &options)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const QString seconds = QString::number(options.seconds);
    const QString rate = QString::number(options.bitrateKbit) + QLatin1Char('k');
    QProcess ffmpeg;
    ffmpeg.setStandardInputFile(QProcess::nullDevice());
    ffmpeg.setProcessChannelMode(QProcess::MergedChannels);
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                  QStringLiteral("-y"), QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                  QStringLiteral("testsrc2=size=1280x720:rate=25:duration=") + seconds, QStringLiteral("-f"),
                  QStringLiteral("lavfi"), QStringLiteral("-i"), QStringLiteral("sine=frequency=440:duration=") + seconds,
                  QStringLiteral("-vf"), QStringLiteral("noise=alls=12:allf=t"), QStringLiteral("-c:v"),
                  QStringLiteral("libx264"), QStringLiteral("-preset"), QStringLiteral("ultrafast"),
                  QStringLiteral("-b:v"), rate, QStringLiteral("-maxrate"), rate, QStringLiteral("-bufsize"),
                  QString::number(options.bitrateKbit * 2) + QLatin1Char('k'), QStringLiteral("-g"),
                  QStringLiteral("50"), QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p"),
                  QStringLiteral("-c:a"), QStringLiteral("aac"), QStringLiteral("-b:a"), QStringLiteral("128k"),
                  QString::fromStdString(path)});
    if (!ffmpeg.waitForFinished(600000))
        return false;
    return ffmpeg.exitStatus() == QProcess::NormalExit && ffmpeg.exitCode() == 0;
}

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values)
{
    values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return v < 0; }), values.end());
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

std::string take(char *text)
{
    std::string copy = text ? text : "";
    tb_free(text);
    return copy;
}

// The standard profile's settings as the program sends them, held to the loopback.
std::string sessionSettings(int port, const BenchOptions &options)
{
    std::string text = AppSettings::defaults(NetworkProfile::Standard, port).libtorrentSettings().toStdString();
    text += "\nlisten_interfaces=127.0.0.1:" + std::to_string(port)
        + "\nenable_dht=0\nenable_lsd=0\nenable_upnp=0\nenable_natpmp=0\ndht_bootstrap_nodes="
          "\nallow_multiple_connections_per_ip=1";
    if (options.tickMs > 0)
        text += "\ntick_interval=" + std::to_string(options.tickMs);
    // Later lines win, so a lever under test overrides the program's own value.
    std::string extra = options.extra;
    std::replace(extra.begin(), extra.end(), ',', '\n');
    if (!extra.empty())
        text += "\n" + extra;
    return text;
}

// Standard error goes to this file; its read position marks where a step began.
class TraceFile
{
public:
    explicit TraceFile(const std::string &path)
        : m_path(path)
    {
        std::fflush(stderr);
        const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
    }
    int64_t mark() const { return ::lseek(STDERR_FILENO, 0, SEEK_CUR); }

    // Pieces that a reader fetched successfully between two marks.
    std::set<int> fetchedPieces(int64_t from, int64_t to) const
    {
        std::set<int> pieces;
        FILE *file = std::fopen(m_path.c_str(), "r");
        if (!file)
            return pieces;
        std::fseek(file, static_cast<long>(from), SEEK_SET);
        std::vector<char> text(static_cast<size_t>(std::max<int64_t>(to - from, 0)) + 1, '\0');
        const size_t n = std::fread(text.data(), 1, text.size() - 1, file);
        std::fclose(file);
        text[n] = '\0';
        const char *cursor = text.data();
        while ((cursor = std::strstr(cursor, "fetch piece="))) {
            int piece = -1;
            int ok = 0;
            if (std::sscanf(cursor, "fetch piece=%d ok=%d", &piece, &ok) == 2 && ok == 1)
                pieces.insert(piece);
            ++cursor;
        }
        return pieces;
    }

private:
    std::string m_path;
};

struct Film
{
    MadeTorrent torrent;
    int64_t size = 0;
};

// A fresh session with the film added and the seeder connected; nothing is read yet.
class Downloader
{
public:
    Downloader(const Film &film, LocalSeeder &seeder, const BenchOptions &options)
        : m_port(freeTcpPort())
    {
        m_session = tb_session_create(m_dir.file("state").c_str(), sessionSettings(m_port, options).c_str());
        const std::string addOptions = "save_path=" + m_dir.file("down") + "\npaused=0";
        char *error = nullptr;
        m_id = take(tb_add_torrent(m_session, film.torrent.torrentPath.c_str(), addOptions.c_str(), &error));
        if (error)
            std::printf("add failed: %s\n", error);
        tb_free(error);
        seeder.connectTo(film.torrent, m_port);
        // The clock starts with a peer at hand: finding peers is not what is measured.
        m_connected = waitFor([&] { return take(tb_peers_json(m_session, m_id.c_str())) != "[]"; },
                              std::chrono::seconds(30));
    }
    ~Downloader() { tb_session_destroy(m_session); }

    tb_session *session() const { return m_session; }
    const std::string &id() const { return m_id; }
    bool ready() const { return m_connected && !m_id.empty(); }
    // One digit a piece of the film: '1' downloaded.
    std::string pieces() const { return take(tb_pieces(m_session, m_id.c_str(), 0)); }

private:
    TempDir m_dir;
    int m_port = 0;
    tb_session *m_session = nullptr;
    std::string m_id;
    bool m_connected = false;
};

void measureFirstByte(const Film &film, LocalSeeder &seeder, const BenchOptions &options,
                      const TraceFile &trace, RunFigures &figures)
{
    Downloader downloader(film, seeder, options);
    if (!downloader.ready())
        return;
    const int64_t mark = trace.mark();
    std::fprintf(stderr, "bench first byte\n");
    const Clock::time_point start = Clock::now();
    tb_reader *reader = tb_reader_open(downloader.session(), downloader.id().c_str(), 0);
    char byte = 0;
    if (reader && tb_reader_read(reader, &byte, 1) == 1)
        figures.firstByteMs = msSince(start);
    figures.firstBytePieces = static_cast<int64_t>(trace.fetchedPieces(mark, trace.mark()).size());
    tb_reader_close(reader);
}

void measurePlayback(const Film &film, LocalSeeder &seeder, const BenchOptions &options,
                     const TraceFile &trace, RunFigures &figures)
{
    Downloader downloader(film, seeder, options);
    if (!downloader.ready())
        return;
    std::unique_ptr<MPVCore> core = MPVCore::create(downloader.session(), false, true);
    if (!core)
        return;
    int restarts = 0;
    double duration = 0;
    std::optional<Clock::time_point> loadedAt;
    std::optional<Clock::time_point> restartAt;
    core->setOnEvent([&](const MPVEvent &event) {
        if (event.kind == MPVEvent::Kind::FileLoaded)
            loadedAt = Clock::now();
        if (event.kind == MPVEvent::Kind::PlaybackRestart) {
            ++restarts;
            restartAt = Clock::now();
        }
        if (event.kind == MPVEvent::Kind::Property && event.name == QLatin1String("duration")
            && event.value.kind == MPVValue::Kind::Double)
            duration = event.value.number;
    });

    const std::string atLoad = downloader.pieces();
    const int64_t loadMark = trace.mark();
    std::fprintf(stderr, "bench load\n");
    const Clock::time_point start = Clock::now();
    core->commandAsync({QStringLiteral("loadfile"), streamAddress(QString::fromStdString(downloader.id()), 0)});
    if (!waitFor([&] { return restarts > 0 && duration > 0; }, std::chrono::seconds(120)))
        return;
    if (loadedAt)
        figures.loadedMs = std::chrono::duration<double, std::milli>(*loadedAt - start).count();
    figures.firstFrameMs = std::chrono::duration<double, std::milli>(*restartAt - start).count();
    countNeeded(trace.fetchedPieces(loadMark, trace.mark()), atLoad, figures.firstFramePieces,
                figures.firstFramePresentBefore);

    // Only pieces missing at the seek had to come over the wire for it.
    const std::string before = downloader.pieces();
    const int64_t seekMark = trace.mark();
    std::fprintf(stderr, "bench seek\n");
    const Clock::time_point seekStart = Clock::now();
    core->commandAsync({QStringLiteral("seek"), QString::number(duration * options.seekFraction, 'f', 3),
                        QStringLiteral("absolute")});
    if (waitFor([&] { return restarts > 1; }, std::chrono::seconds(120)))
        figures.seekMs = std::chrono::duration<double, std::milli>(*restartAt - seekStart).count();
    countNeeded(trace.fetchedPieces(seekMark, trace.mark()), before, figures.seekPieces, figures.seekPresentBefore);
    core->destroy();
}

std::optional<BenchOptions> parseOptions(int argc, char **argv)
{
    BenchOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (i + 1 >= argc)
            return std::nullopt;
        const char *value = argv[++i];
        if (flag == "--runs")
            options.runs = std::max(1, std::atoi(value));
        else if (flag == "--rate")
            options.rateKiB = std::max(16, std::atoi(value));
        else if (flag == "--seconds")
            options.seconds = std::max(10.0, std::atof(value));
        else if (flag == "--bitrate")
            options.bitrateKbit = std::max(200, std::atoi(value));
        else if (flag == "--piece")
            options.pieceKiB = std::max(16, std::atoi(value));
        else if (flag == "--seek")
            options.seekFraction = std::clamp(std::atof(value), 0.05, 0.95);
        else if (flag == "--film")
            options.film = value;
        else if (flag == "--set")
            options.extra = value;
        else if (flag == "--keep-trace")
            options.keepTrace = value;
        else if (flag == "--tick")
            options.tickMs = std::max(0, std::atoi(value));
        else
            return std::nullopt;
    }
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    // The trace is the only record of which pieces a step needed; the flag is read once.
    ::setenv("VELIX_READER_LOG", "1", 1);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    // Qt resets the locale in its constructor; libmpv needs LC_NUMERIC "C".
    std::setlocale(LC_NUMERIC, "C");
    const std::optional<BenchOptions> parsed = parseOptions(argc, argv);
    if (!parsed) {
        std::printf("usage: velix_bench_streaming [--runs N] [--rate KiB/s] [--seconds S] [--bitrate kbit/s]"
                    " [--piece KiB] [--seek FRACTION] [--tick MS] [--set key=value,...] [--film PATH]"
                    " [--keep-trace PATH]\n");
        return 2;
    }
    const BenchOptions options = *parsed;

    TempDir work;
    const TraceFile trace(work.file("stderr.log"));
    std::printf("making a %.0f s film...\n", options.seconds);
    std::fflush(stdout);
    Film film;
    std::error_code ec;
    if (!options.film.empty() && std::filesystem::exists(options.film)) {
        std::filesystem::create_directories(work.file("seed"));
        std::filesystem::copy_file(options.film, work.file("seed/film.mkv"), ec);
    } else if (makeFilm(work.file("seed/film.mkv"), options)) {
        if (!options.film.empty())
            std::filesystem::copy_file(work.file("seed/film.mkv"), options.film, ec);
    } else {
        std::printf("ffmpeg failed\n");
        return 1;
    }
    film.size = static_cast<int64_t>(std::filesystem::file_size(work.file("seed/film.mkv")));
    TorrentOptions torrentOptions;
    torrentOptions.pieceLength = options.pieceKiB * 1024;
    film.torrent = makeTorrent(work.file("seed"), "film.mkv", work.file("torrents"), torrentOptions);
    LocalSeeder seeder(options.rateKiB * 1024);
    if (!seeder.seed(film.torrent)) {
        std::printf("the seeder did not start\n");
        return 1;
    }

    const double rate = options.rateKiB * 1024.0;
    const double piece = film.torrent.pieceLength;
    if (!options.extra.empty())
        std::printf("extra settings: %s\n", options.extra.c_str());
    std::printf("film %.1f MiB (%d pieces of %d KiB), seeder %d KiB/s, tick %s, seek to %.0f %%, %d runs\n",
                static_cast<double>(film.size) / 1048576.0, film.torrent.numPieces, film.torrent.pieceLength / 1024,
                options.rateKiB, options.tickMs > 0 ? (std::to_string(options.tickMs) + " ms").c_str() : "default",
                options.seekFraction * 100, options.runs);
    std::printf("%4s %12s %10s %12s %12s %12s\n", "run", "first byte", "loaded", "first frame", "seek->play",
                "seek pieces");
    std::fflush(stdout);

    std::vector<RunFigures> runs;
    for (int r = 0; r < options.runs; ++r) {
        RunFigures figures;
        measureFirstByte(film, seeder, options, trace, figures);
        measurePlayback(film, seeder, options, trace, figures);
        runs.push_back(figures);
        std::printf("%4d %9.0f ms %7.0f ms %9.0f ms %9.0f ms %5lld (+%lld had)\n", r + 1, figures.firstByteMs,
                    figures.loadedMs, figures.firstFrameMs, figures.seekMs,
                    static_cast<long long>(figures.seekPieces), static_cast<long long>(figures.seekPresentBefore));
        std::fflush(stdout);
    }

    const auto pick = [&](auto field) {
        std::vector<double> values;
        for (const RunFigures &run : runs)
            values.push_back(static_cast<double>(run.*field));
        return median(values);
    };
    struct Row
    {
        const char *name;
        double measured;
        double pieces;
    };
    const Row rows[] = {
        {"first byte", pick(&RunFigures::firstByteMs), pick(&RunFigures::firstBytePieces)},
        {"first frame", pick(&RunFigures::firstFrameMs), pick(&RunFigures::firstFramePieces)},
        {"seek -> play", pick(&RunFigures::seekMs), pick(&RunFigures::seekPieces)},
    };
    std::printf("\n%-13s %10s %12s %12s %8s\n", "median", "measured", "bytes needed", "bound", "ratio");
    for (const Row &row : rows) {
        const double bytes = row.pieces * piece;
        const double bound = bytes / rate * 1000.0;
        std::printf("%-13s %7.0f ms %8.0f KiB %9.0f ms %8.2f\n", row.name, row.measured, bytes / 1024.0, bound,
                    bound > 0 && row.measured >= 0 ? row.measured / bound : 0.0);
    }
    std::printf("(loaded: median %.0f ms; bytes needed = pieces the reader fetched for the step and did not "
                "have before it)\n",
                pick(&RunFigures::loadedMs));
    if (!options.keepTrace.empty()) {
        std::filesystem::copy_file(work.file("stderr.log"), options.keepTrace,
                                   std::filesystem::copy_options::overwrite_existing, ec);
    }
    return 0;
}
