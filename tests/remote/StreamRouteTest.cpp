#include "ControlServerHarness.h"

#include <tuple>
#include <vector>

using namespace controltest;
using testsupport::waitFor;

namespace {

constexpr int FileSize = 3 * 1024 * 1024;

class StreamRouteTest : public ControlServerFixture
{
protected:
    void SetUp() override
    {
        testsupport::writePatternFile(content.file("Film.2019.mkv"), FileSize, 7);
        source = QByteArray::fromStdString(testsupport::readWholeFile(content.file("Film.2019.mkv")));
        made = testsupport::makeTorrent(content.path(), "Film.2019.mkv", content.path());
        startServer();
    }

    QByteArray stream(const QByteArray &range, const QByteArray &method = "GET")
    {
        return request(port, "/stream/" + id + "/0/Film.2019.mkv", range.isEmpty() ? range : "Range: " + range + "\r\n",
                       method);
    }

    testsupport::TempDir content;
    QByteArray source;
    testsupport::MadeTorrent made;
    QByteArray id;
};

TEST_F(StreamRouteTest, RangesAreServedWhileTheFileDownloads)
{
    // Slow enough that the whole file takes half a minute.
    testsupport::LocalSeeder seeder(100 * 1024);
    ASSERT_TRUE(seeder.seed(made));
    id = add(made);
    seeder.connectTo(made, enginePort);

    const std::vector<std::tuple<QByteArray, qint64, qint64>> rows{
        {"bytes=0-65535", 0, 65536},
        {"bytes=1500000-1599999", 1500000, 100000},
        {"bytes=-40000", FileSize - 40000, 40000},
        {"bytes=3000000-", 3000000, FileSize - 3000000},
    };
    // All at once, each on a reader of its own.
    std::vector<std::unique_ptr<RawExchange>> streams;
    for (const auto &[range, first, length] : rows)
        streams.push_back(std::make_unique<RawExchange>(port, stream(range)));
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto &[range, first, length] = rows[i];
        SCOPED_TRACE(range.toStdString());
        const HttpAnswer answer = streams[i]->finish();
        EXPECT_EQ(answer.status, 206);
        EXPECT_EQ(answer.headers.value("content-type"), QByteArray("video/x-matroska"));
        EXPECT_EQ(answer.headers.value("accept-ranges"), QByteArray("bytes"));
        EXPECT_EQ(answer.headers.value("content-range"), "bytes " + QByteArray::number(first) + '-'
                                                             + QByteArray::number(first + length - 1) + '/'
                                                             + QByteArray::number(FileSize));
        EXPECT_TRUE(answer.body == source.mid(first, length));
    }
    const QJsonObject torrent = torrentState(QString::fromUtf8(id));
    ASSERT_LT(torrent.value(QStringLiteral("wantedDone")).toInteger(), torrent.value(QStringLiteral("wanted")).toInteger())
        << "the download ended before the streams: they prove nothing about reading ahead of it";

    // HEAD opens no reader and sends no body; a range past the end gets nothing.
    const HttpAnswer head = exchange(port, stream({}, "HEAD"));
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.headers.value("content-length").toLongLong(), FileSize);
    EXPECT_TRUE(head.body.isEmpty());
    const HttpAnswer outside = exchange(port, stream("bytes=" + QByteArray::number(FileSize) + "-"));
    EXPECT_EQ(outside.status, 416);
    EXPECT_EQ(outside.headers.value("content-range"), "bytes */" + QByteArray::number(FileSize));
    EXPECT_EQ(exchange(port, request(port, "/stream/" + id + "/7/x.mkv")).status, 404);
    EXPECT_TRUE(waitFor([this] { return server->activeStreams() == 0; }));
}

TEST_F(StreamRouteTest, AClientThatLeavesCancelsItsReadAtOnce)
{
    // No peer at all: a read waits until it is cancelled, or ten minutes.
    id = add(made);
    RawExchange leaving(port, stream("bytes=1000000-"));
    ASSERT_TRUE(waitFor([&] { return parseAnswer(leaving.received()).status == 206; }));
    EXPECT_EQ(server->activeStreams(), 1);
    leaving.abort();
    EXPECT_TRUE(waitFor([this] { return server->activeStreams() == 0; }));

    // A stream still waiting when the server goes ends with it, before the session closes. Without
    // a range its head, sent before any piece, promises the whole file.
    RawExchange staying(port, stream({}));
    ASSERT_TRUE(waitFor([&] { return parseAnswer(staying.received()).answered; }));
    server.reset();
    const HttpAnswer whole = staying.finish();
    EXPECT_EQ(whole.status, 200);
    EXPECT_EQ(whole.headers.value("content-length").toLongLong(), FileSize);
    EXPECT_FALSE(whole.headers.contains("content-range"));
}

TEST_F(StreamRouteTest, StreamsBeyondTheLimitAreTurnedAwayUntilOneEnds)
{
    // No peer: every stream waits in its read, holding its thread, until its client goes.
    id = add(made);
    std::vector<std::unique_ptr<RawExchange>> streams;
    for (int i = 0; i < ControlServer::MaxStreams; ++i)
        streams.push_back(std::make_unique<RawExchange>(port, stream("bytes=" + QByteArray::number(i * 300000) + "-")));
    for (const auto &open : streams)
        ASSERT_TRUE(waitFor([&] { return parseAnswer(open->received()).status == 206; }));
    EXPECT_EQ(server->activeStreams(), ControlServer::MaxStreams);

    const HttpAnswer refused = exchange(port, stream({}));
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.headers.value("content-type"), QByteArray("application/json; charset=utf-8"));
    EXPECT_EQ(refused.object().value(QStringLiteral("error")).toString(), QStringLiteral("too many streams"));
    // Other routes don't count against streams.
    EXPECT_EQ(get("/files?id=" + id).status, 200);

    // A client that leaves frees its place, and its thread ends with it.
    streams.front()->abort();
    ASSERT_TRUE(waitFor([this] { return server->activeStreams() == ControlServer::MaxStreams - 1; }));
    RawExchange another(port, stream("bytes=100-"));
    EXPECT_TRUE(waitFor([&] { return parseAnswer(another.received()).status == 206; }));
    for (const auto &open : streams)
        open->abort();
    another.abort();
    EXPECT_TRUE(waitFor([this] { return server->activeStreams() == 0; }));
}

} // namespace
