// The stream reader against real torrents: a bridge session that downloads from a seeder on
// 127.0.0.1 while the reader serves bytes out of it.

#include "LiveBridge.h"

#include "bridge/tb_bridge.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <future>

using namespace testsupport;
using livebridge::LiveBridge;

namespace {

// A cache hit shows only in the reader's trace. The flag is read once, at the first reader
// call, so it is switched on before any test runs.
const bool TraceOn = [] {
    ::setenv("VELIX_READER_LOG", "1", 0);
    return true;
}();

// Reads `count` bytes from `offset` the way libmpv does: seek, then short reads in a loop. A
// read still blocked at the limit is cancelled, so that a hang fails its test, not the suite.
std::string readAt(tb_reader *reader, int64_t offset, int64_t count,
                   std::chrono::seconds limit = std::chrono::seconds(120))
{
    auto reading = std::async(std::launch::async, [=] {
        if (tb_reader_seek(reader, offset) != offset)
            return std::string("<seek failed>");
        std::string out;
        std::vector<char> buffer(64 * 1024);
        while (static_cast<int64_t>(out.size()) < count) {
            const int64_t want = std::min<int64_t>(count - static_cast<int64_t>(out.size()),
                                                   static_cast<int64_t>(buffer.size()));
            const int64_t n = tb_reader_read(reader, buffer.data(), want);
            if (n <= 0)
                break;
            out.append(buffer.data(), static_cast<size_t>(n));
        }
        return out;
    });
    if (reading.wait_for(limit) != std::future_status::ready)
        tb_reader_cancel(reader);
    return reading.get();
}

// One read of 100 bytes on another thread, for a piece that no peer has.
std::future<int64_t> blockedRead(tb_reader *reader)
{
    return std::async(std::launch::async, [reader] {
        char buffer[100];
        return tb_reader_read(reader, buffer, sizeof buffer);
    });
}

TEST(StreamReaderTest, ReadsAnywhereReturnTheFileBytesWhileItDownloads)
{
    ASSERT_TRUE(TraceOn);
    TempDir dir;
    // Sizes that are no multiple of the piece: every border between files falls inside a piece,
    // which v1-only torrents do not pad.
    const int64_t size = 3 * 1024 * 1024 + 777;
    writePatternFile(dir.file("seed/pack/a.bin"), size, 7);
    writePatternFile(dir.file("seed/pack/b.bin"), 70001, 12);
    writePatternFile(dir.file("seed/pack/c.bin"), 0, 13);
    TorrentOptions options;
    options.v1Only = true;
    const MadeTorrent made = makeTorrent(dir.file("seed"), "pack", dir.file("torrents"), options);

    // Slow enough that the reads below wait for pieces that are still on their way.
    LocalSeeder seeder(1024 * 1024);
    ASSERT_TRUE(seeder.seed(made));
    LiveBridge bridge(dir.file("state"));
    // Added paused: opening a stream has to wake it, or no peer gets in.
    const std::string id = bridge.add(made.torrentPath, dir.file("down"), true);
    ASSERT_EQ(id, made.id);
    const int a = bridge.fileIndex(id, "pack/a.bin");
    const int b = bridge.fileIndex(id, "pack/b.bin");
    const int c = bridge.fileIndex(id, "pack/c.bin");
    ASSERT_TRUE(a >= 0 && b >= 0 && c >= 0);
    int64_t start = 0; // of a.bin in the torrent, which has no pad files
    for (const QJsonValue &file : bridge.files(id))
        start += file["i"].toInt() < a ? file["size"].toInteger() : 0;
    const int64_t border = made.pieceLength - start % made.pieceLength; // the first inside a.bin
    // b is not wanted: a stream on it must make it wanted, for good.
    const int32_t skipped[] = {b};
    ASSERT_TRUE(tb_set_file_priorities(bridge.get(), id.c_str(), skipped, 1, 0));
    ASSERT_TRUE(waitFor([&] { return bridge.priority(id, b) == 0; }));

    const std::string content = readWholeFile(dir.file("seed/pack/a.bin"));
    tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), a);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(tb_reader_size(reader), size);
    seeder.connectTo(made, bridge.port());
    // Middle first, then the ends, then spans across piece borders, which take several short
    // reads each.
    const std::pair<int64_t, int64_t> spans[] = {
        {size / 2 + 12345, 5000},
        {0, 70000},
        {size - 10, 10},
        {border - 1, 2},
        {border + 4 * made.pieceLength - 100, 3 * made.pieceLength + 200},
        {size - 3 * made.pieceLength - 5, 3 * made.pieceLength + 5},
    };
    for (const auto &[offset, count] : spans) {
        SCOPED_TRACE(offset);
        EXPECT_TRUE(readAt(reader, offset, count) == content.substr(static_cast<size_t>(offset), static_cast<size_t>(count)));
    }

    // The end of the file is a valid position with nothing behind it; past it is not.
    char byte = 0;
    EXPECT_EQ(tb_reader_seek(reader, size), size);
    EXPECT_EQ(tb_reader_read(reader, &byte, 1), 0);
    EXPECT_EQ(tb_reader_seek(reader, size + 1), -1);
    EXPECT_EQ(tb_reader_seek(reader, -1), -1);

    // A reader that is open but not waiting is no blocked stream.
    EXPECT_EQ(tb_stream_progress(bridge.get(), id.c_str(), a), -1.0);

    // A second reader of the same file takes the pieces the first one fetched.
    tb_reader *second = tb_reader_open(bridge.get(), id.c_str(), a);
    ASSERT_NE(second, nullptr);
    testing::internal::CaptureStderr();
    const std::string again = readAt(second, size / 2 + 12345, 5000);
    const std::string trace = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(again == content.substr(static_cast<size_t>(size / 2 + 12345), 5000));
    const int64_t piece = (start + size / 2 + 12345) / made.pieceLength;
    EXPECT_NE(trace.find("fetch piece=" + std::to_string(piece) + " ok=1 cached=1"), std::string::npos)
        << trace;
    tb_reader_close(second);
    tb_reader_close(reader);

    // An empty file has no piece of its own to wait for.
    tb_reader *empty = tb_reader_open(bridge.get(), id.c_str(), c);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(tb_reader_size(empty), 0);
    EXPECT_EQ(tb_reader_read(empty, &byte, 1), 0);
    EXPECT_EQ(tb_reader_seek(empty, 1), -1);
    tb_reader_close(empty);

    // The tail first, as a container's index is read, then all of it from the start.
    const std::string small = readWholeFile(dir.file("seed/pack/b.bin"));
    reader = tb_reader_open(bridge.get(), id.c_str(), b);
    ASSERT_NE(reader, nullptr);
    ASSERT_EQ(tb_reader_size(reader), static_cast<int64_t>(small.size()));
    EXPECT_TRUE(readAt(reader, static_cast<int64_t>(small.size()) - 100, 100) == small.substr(small.size() - 100));
    EXPECT_TRUE(readAt(reader, 0, static_cast<int64_t>(small.size())) == small);
    tb_reader_close(reader);
    EXPECT_EQ(bridge.priority(id, b), 4);
}

TEST(StreamReaderTest, BlockedReadEndsOnCancelAndOnRemoval)
{
    TempDir dir;
    writePatternFile(dir.file("seed/lonely.bin"), 256 * 1024, 3);
    const MadeTorrent made = makeTorrent(dir.file("seed"), "lonely.bin", dir.file("torrents"));
    // No seeder: no piece will ever come.
    LiveBridge bridge(dir.file("state"));
    const std::string id = bridge.add(made.torrentPath, dir.file("down"));
    ASSERT_FALSE(id.empty());
    const auto progress = [&] { return tb_stream_progress(bridge.get(), id.c_str(), 0); };

    tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(progress(), -1.0);
    auto blocked = blockedRead(reader);
    // A blocked read shows as progress of its piece, nothing of which has come.
    ASSERT_TRUE(waitFor([&] { return progress() >= 0.0; }));
    EXPECT_EQ(progress(), 0.0);
    EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    tb_reader_cancel(reader);
    ASSERT_EQ(blocked.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(blocked.get(), -1);
    EXPECT_EQ(progress(), -1.0);
    // Cancelled is for good, and a second cancel changes nothing.
    tb_reader_cancel(reader);
    char byte = 0;
    EXPECT_EQ(tb_reader_read(reader, &byte, 1), -1);
    EXPECT_EQ(tb_reader_seek(reader, 0), -1);
    tb_reader_close(reader);

    // A read waiting on a torrent that goes away fails, and the reader still closes.
    tb_reader *orphan = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(orphan, nullptr);
    auto waiting = blockedRead(orphan);
    ASSERT_TRUE(waitFor([&] { return progress() >= 0.0; }));
    ASSERT_TRUE(tb_remove(bridge.get(), id.c_str(), 0));
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), -1);
    EXPECT_EQ(tb_reader_seek(orphan, 10), 10);
    EXPECT_EQ(tb_reader_read(orphan, &byte, 1), -1);
    tb_reader_close(orphan);
    EXPECT_EQ(tb_reader_open(bridge.get(), id.c_str(), 0), nullptr);
}

TEST(StreamReaderTest, KeepsServingAfterMoreThanTheCacheHolds)
{
    TempDir dir;
    // Read straight through more than the piece cache's limit; once the cache is full every
    // delivery trims it, and the piece a read waits for must survive that trim.
    const int64_t size = 80LL * 1024 * 1024 + 4321;
    writePatternFile(dir.file("seed/large.bin"), size, 21);
    TorrentOptions options;
    options.pieceLength = 1024 * 1024;
    const MadeTorrent made = makeTorrent(dir.file("seed"), "large.bin", dir.file("torrents"), options);

    // The data is complete where the torrent is added: no network, only the cache.
    LiveBridge bridge(dir.file("state"));
    const std::string id = bridge.add(made.torrentPath, dir.file("seed"));
    ASSERT_FALSE(id.empty());
    ASSERT_TRUE(bridge.waitForState(id, "seeding", std::chrono::seconds(120)));

    tb_reader *reader = tb_reader_open(bridge.get(), id.c_str(), 0);
    ASSERT_NE(reader, nullptr);
    const std::string got = readAt(reader, 0, size, std::chrono::seconds(300));
    EXPECT_EQ(got.size(), static_cast<size_t>(size));
    EXPECT_TRUE(got == readWholeFile(dir.file("seed/large.bin")));
    tb_reader_close(reader);
}

} // namespace
