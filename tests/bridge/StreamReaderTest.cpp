// The stream reader against real torrents: a bridge session that downloads from a seeder on
// 127.0.0.1 while the reader serves bytes out of it.

#include "LiveBridge.h"

#include "bridge/tb_bridge.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

using namespace testsupport;
using livebridge::LiveBridge;

namespace {

// A cache hit shows only in the reader's trace. The flag is read once, at the first reader
// call, so it is switched on before any test runs.
const bool TraceOn = [] {
    ::setenv("VELIX_READER_LOG", "1", 0);
    return true;
}();

// Cancels a reader whose read has not returned by the limit, so that a read that would never
// return fails its test instead of hanging the suite.
class Watchdog
{
public:
    Watchdog(tb_reader *reader, std::chrono::seconds limit)
        : m_thread([this, reader, limit] {
            std::unique_lock<std::mutex> guard(m_lock);
            if (!m_changed.wait_for(guard, limit, [this] { return m_done; })) {
                m_fired = true;
                tb_reader_cancel(reader);
            }
        })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_done = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    bool fired() const { return m_fired; }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_done = false;
    std::atomic<bool> m_fired{false};
    std::thread m_thread;
};

// Reads `count` bytes from `offset` the way libmpv does: seek, then short reads in a loop.
std::string readAt(tb_reader *reader, int64_t offset, int64_t count)
{
    if (tb_reader_seek(reader, offset) != offset)
        return "<seek failed>";
    std::string out;
    std::vector<char> buffer(48 * 1024);
    while (static_cast<int64_t>(out.size()) < count) {
        const int64_t want = std::min<int64_t>(count - static_cast<int64_t>(out.size()),
                                               static_cast<int64_t>(buffer.size()));
        const int64_t n = tb_reader_read(reader, buffer.data(), want);
        if (n <= 0)
            break;
        out.append(buffer.data(), static_cast<size_t>(n));
    }
    return out;
}

int filePriority(const LiveBridge &bridge, const std::string &id, int index)
{
    for (const QJsonValue &file : bridge.files(id)) {
        if (file["i"].toInt() == index)
            return file["prio"].toInt(-1);
    }
    return -1;
}

class StreamReaderTest : public ::testing::Test
{
protected:
    TempDir dir;
};

TEST_F(StreamReaderTest, ReadsAnywhereReturnTheFileBytesWhileItDownloads)
{
    ASSERT_TRUE(TraceOn);
    const int64_t size = 3 * 1024 * 1024 + 777;
    writePatternFile(dir.file("seed/movie.bin"), size, 7);
    const MadeTorrent made = makeTorrent(dir.file("seed"), "movie.bin", dir.file("torrents"));
    const std::string content = readWholeFile(dir.file("seed/movie.bin"));

    // Slow enough that the reads below wait for pieces that are still on their way.
    LocalSeeder seeder(1024 * 1024);
    ASSERT_TRUE(seeder.seed(made));
    LiveBridge bridge(dir.file("state"));
    const std::string id = bridge.add(made.torrentPath, dir.file("down"));
    ASSERT_EQ(id, made.id);
    seeder.connectTo(made, bridge.port());

    tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(tb_reader_size(reader), size);
    {
        Watchdog watchdog(reader, std::chrono::seconds(120));
        struct Span
        {
            int64_t offset;
            int64_t count;
        };
        // Middle first, then the ends, then spans across piece borders, which take several
        // short reads each.
        const Span spans[] = {
            {size / 2 + 12345, 5000},
            {0, 70000},
            {size - 10, 10},
            {made.pieceLength - 1, 2},
            {5 * made.pieceLength - 100, 3 * made.pieceLength + 200},
            {size - 3 * made.pieceLength - 5, 3 * made.pieceLength + 5},
        };
        for (const Span &span : spans) {
            SCOPED_TRACE(span.offset);
            const std::string got = readAt(reader, span.offset, span.count);
            ASSERT_EQ(static_cast<int64_t>(got.size()), span.count);
            EXPECT_TRUE(got == content.substr(static_cast<size_t>(span.offset), static_cast<size_t>(span.count)));
        }
        EXPECT_FALSE(watchdog.fired());
    }

    // The end of the file is a valid position with nothing behind it; past it is not.
    char byte = 0;
    EXPECT_EQ(tb_reader_seek(reader, size), size);
    EXPECT_EQ(tb_reader_read(reader, &byte, 1), 0);
    EXPECT_EQ(tb_reader_seek(reader, size + 1), -1);
    EXPECT_EQ(tb_reader_seek(reader, -1), -1);

    // A reader that is open but not waiting is no blocked stream.
    EXPECT_EQ(tb_stream_progress(bridge.get(), id.c_str(), 0), -1.0);

    // A second reader of the same file takes the pieces the first one fetched.
    tb_reader *second = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(second, nullptr);
    testing::internal::CaptureStderr();
    const std::string again = readAt(second, size / 2 + 12345, 5000);
    const std::string trace = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(again == content.substr(static_cast<size_t>(size / 2 + 12345), 5000));
    const int piece = static_cast<int>((size / 2 + 12345) / made.pieceLength);
    EXPECT_NE(trace.find("fetch piece=" + std::to_string(piece) + " ok=1 cached=1"), std::string::npos)
        << trace;

    tb_reader_close(second);
    tb_reader_close(reader);
}

TEST_F(StreamReaderTest, BlockedReadEndsOnCancelAndOnRemoval)
{
    writePatternFile(dir.file("seed/lonely.bin"), 256 * 1024, 3);
    const MadeTorrent made = makeTorrent(dir.file("seed"), "lonely.bin", dir.file("torrents"));
    // No seeder: no piece will ever come.
    LiveBridge bridge(dir.file("state"));
    const std::string id = bridge.add(made.torrentPath, dir.file("down"));
    ASSERT_FALSE(id.empty());

    tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(tb_stream_progress(bridge.get(), id.c_str(), 0), -1.0);
    auto blocked = std::async(std::launch::async, [reader] {
        char buffer[100];
        return tb_reader_read(reader, buffer, sizeof buffer);
    });
    // A blocked read shows as progress of its piece, nothing of which has come.
    ASSERT_TRUE(waitFor([&] { return tb_stream_progress(bridge.get(), id.c_str(), 0) >= 0.0; }));
    EXPECT_EQ(tb_stream_progress(bridge.get(), id.c_str(), 0), 0.0);
    EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    tb_reader_cancel(reader);
    ASSERT_EQ(blocked.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(blocked.get(), -1);
    EXPECT_EQ(tb_stream_progress(bridge.get(), id.c_str(), 0), -1.0);
    // Cancelled is for good, and a second cancel changes nothing.
    tb_reader_cancel(reader);
    char byte = 0;
    EXPECT_EQ(tb_reader_read(reader, &byte, 1), -1);
    EXPECT_EQ(tb_reader_seek(reader, 0), -1);
    tb_reader_close(reader);

    // A read waiting on a torrent that goes away fails, and the reader still closes.
    tb_reader *orphan = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(orphan, nullptr);
    auto waiting = std::async(std::launch::async, [orphan] {
        char buffer[100];
        return tb_reader_read(orphan, buffer, sizeof buffer);
    });
    ASSERT_TRUE(waitFor([&] { return tb_stream_progress(bridge.get(), id.c_str(), 0) >= 0.0; }));
    ASSERT_TRUE(tb_remove(bridge.get(), id.c_str(), 0));
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), -1);
    EXPECT_EQ(tb_reader_seek(orphan, 10), 10);
    EXPECT_EQ(tb_reader_read(orphan, &byte, 1), -1);
    tb_reader_close(orphan);
    EXPECT_EQ(tb_reader_open(bridge.get(), id.c_str(), 0), nullptr);
}

TEST_F(StreamReaderTest, FilesSharingPiecesServeTheirOwnBytes)
{
    // Sizes that are no multiple of the piece: every border between files falls inside a piece,
    // which v1-only torrents do not pad.
    writePatternFile(dir.file("seed/pack/a.bin"), 100003, 11);
    writePatternFile(dir.file("seed/pack/b.bin"), 70001, 12);
    writePatternFile(dir.file("seed/pack/c.bin"), 0, 13);
    TorrentOptions options;
    options.v1Only = true;
    const MadeTorrent made = makeTorrent(dir.file("seed"), "pack", dir.file("torrents"), options);

    LocalSeeder seeder;
    ASSERT_TRUE(seeder.seed(made));
    LiveBridge bridge(dir.file("state"));
    // Added paused: opening a stream has to wake it.
    const std::string id = bridge.add(made.torrentPath, dir.file("down"), true);
    ASSERT_FALSE(id.empty());
    const int a = bridge.fileIndex(id, "pack/a.bin");
    const int b = bridge.fileIndex(id, "pack/b.bin");
    const int c = bridge.fileIndex(id, "pack/c.bin");
    ASSERT_TRUE(a >= 0 && b >= 0 && c >= 0);
    // b is not wanted: a stream on it must make it wanted, for good.
    const int32_t skipped[] = {b};
    ASSERT_TRUE(tb_set_file_priorities(bridge.get(), id.c_str(), skipped, 1, 0));
    ASSERT_TRUE(waitFor([&] { return filePriority(bridge, id, b) == 0; }));
    seeder.connectTo(made, bridge.port());

    tb_reader *empty = tb_reader_open(bridge.get(), id.c_str(), c);
    ASSERT_NE(empty, nullptr);
    char byte = 0;
    EXPECT_EQ(tb_reader_size(empty), 0);
    EXPECT_EQ(tb_reader_read(empty, &byte, 1), 0);
    EXPECT_EQ(tb_reader_seek(empty, 0), 0);
    EXPECT_EQ(tb_reader_seek(empty, 1), -1);
    tb_reader_close(empty);

    for (const auto &[index, name] : {std::pair{b, "b.bin"}, std::pair{a, "a.bin"}}) {
        SCOPED_TRACE(name);
        const std::string content = readWholeFile(dir.file(std::string("seed/pack/") + name));
        tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), index);
        ASSERT_NE(reader, nullptr);
        ASSERT_EQ(tb_reader_size(reader), static_cast<int64_t>(content.size()));
        {
            Watchdog watchdog(reader, std::chrono::seconds(120));
            // The tail first, as a container's index is read, then all of it from the start.
            const std::string tail = readAt(reader, static_cast<int64_t>(content.size()) - 100, 100);
            EXPECT_TRUE(tail == content.substr(content.size() - 100));
            const std::string whole = readAt(reader, 0, static_cast<int64_t>(content.size()));
            EXPECT_TRUE(whole == content);
            EXPECT_FALSE(watchdog.fired());
        }
        tb_reader_close(reader);
    }
    EXPECT_EQ(filePriority(bridge, id, b), 4);
}

TEST_F(StreamReaderTest, KeepsServingAfterMoreThanTheCacheHolds)
{
    // Read straight through more than the piece cache's limit; once the cache is full every
    // delivery trims it, and the piece a read waits for must survive that trim.
    const int64_t size = 80LL * 1024 * 1024 + 4321;
    writePatternFile(dir.file("seed/large.bin"), size, 21);
    TorrentOptions options;
    options.pieceLength = 1024 * 1024;
    const MadeTorrent made = makeTorrent(dir.file("seed"), "large.bin", dir.file("torrents"), options);
    const std::string content = readWholeFile(dir.file("seed/large.bin"));

    // The data is complete where the torrent is added: no network, only the cache.
    LiveBridge bridge(dir.file("state"));
    const std::string id = bridge.add(made.torrentPath, dir.file("seed"));
    ASSERT_FALSE(id.empty());
    ASSERT_TRUE(bridge.waitForState(id, "seeding", std::chrono::seconds(120)));

    tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(reader, nullptr);
    {
        Watchdog watchdog(reader, std::chrono::seconds(300));
        std::vector<char> buffer(256 * 1024);
        int64_t offset = 0;
        bool same = true;
        while (offset < size) {
            const int64_t n = tb_reader_read(reader, buffer.data(), static_cast<int64_t>(buffer.size()));
            if (n <= 0)
                break;
            same = same && std::memcmp(buffer.data(), content.data() + offset, static_cast<size_t>(n)) == 0;
            offset += n;
        }
        EXPECT_EQ(offset, size);
        EXPECT_TRUE(same);
        EXPECT_FALSE(watchdog.fired());
    }
    tb_reader_close(reader);
}

} // namespace
