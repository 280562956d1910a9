#include "ControlServerHarness.h"
#include "remote/HttpRequest.h"
#include "remote/RouteParameters.h"

#include <limits>
#include <tuple>
#include <vector>

using namespace controltest;

namespace {

TEST(HttpRequestTest, ReadsTheRequestLineAndOnlyWholeHeaderLines)
{
    const auto request = parseHttpRequest("POST  /state?x=1   HTTP/1.1\r\nHost: 127.0.0.1:80\r\nX-A:  b \r\n\r\nbody");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, QStringLiteral("POST"));
    EXPECT_EQ(request->target, QStringLiteral("/state?x=1"));
    EXPECT_TRUE(request->headComplete);
    EXPECT_EQ(request->header("x-a"), QByteArray("b"));

    // A line the read cut could be the start of anything: it doesn't count.
    const auto cut = parseHttpRequest("GET /state HTTP/1.1\r\nHost: 127.0.0.1.example");
    ASSERT_TRUE(cut);
    EXPECT_FALSE(cut->headComplete);
    EXPECT_EQ(cut->header("host"), std::nullopt);

    EXPECT_EQ(parseHttpRequest("GET")->target, QStringLiteral("/"));
    EXPECT_EQ(parseHttpRequest(QByteArray()), std::nullopt);
    EXPECT_EQ(parseHttpRequest("GET /\xff\xfe HTTP/1.1\r\n\r\n"), std::nullopt);
}

TEST(HttpRequestTest, TheHeadEndsAtItsBlankLineWithin64KiB)
{
    using State = HeadScan::State;
    const QByteArray head = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    // Filler that brings a head's blank line to end exactly `end` bytes in.
    auto endingAt = [](qsizetype end) {
        const QByteArray start = "GET / HTTP/1.1\r\nX: ";
        return start + QByteArray(end - start.size() - 4, 'a') + "\r\n\r\n";
    };
    const std::vector<std::tuple<QByteArray, HeadScan>> rows{
        {"", {}},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n", {}},
        {"GET / HTTP/1.1\r\n\r", {}},
        {"GET / HTTP/1.1\n\n", {}}, // bare line feeds end nothing
        {head, {State::complete, head.size()}},
        // A body past the head is no part of it, however long.
        {head + QByteArray(200 * 1024, 'x'), {State::complete, head.size()}},
        {endingAt(MaxHeadBytes), {State::complete, MaxHeadBytes}},
        {endingAt(MaxHeadBytes + 1), {State::tooBig, 0}},
        {QByteArray(MaxHeadBytes - 1, 'a'), {}},
        {QByteArray(MaxHeadBytes, 'a'), {State::tooBig, 0}},
    };
    for (const auto &[data, scan] : rows)
        EXPECT_EQ(scanHead(data), scan) << data.left(60).constData() << " (" << data.size() << " bytes)";
}

TEST(HttpRequestTest, RefusesWhatAWebPageCouldHaveSent)
{
    const std::vector<std::pair<const char *, bool>> rows{
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: LOCALHOST\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: [::1]:8080\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.2\r\n\r\n", false},
        {"GET / HTTP/1.0\r\n\r\n", false}, // no Host at all: a script
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://localhost:3000\r\nSec-Fetch-Site: same-origin\r\n\r\n", false},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nSec-Fetch-Site: none\r\n\r\n", false}, // typed into the address bar
        // DNS rebinding: the page's own name now points at 127.0.0.1.
        {"GET / HTTP/1.1\r\nHost: evil.example:8080\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1.evil.example\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 0.0.0.0:8080\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: [::1\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: https://evil.example\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: null\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nReferer: https://evil.example/page\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nSec-Fetch-Site: cross-site\r\n\r\n", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nSec-Fetch-Site: Same-Site\r\n\r\n", true},
        // A head the read cut short: a foreign Origin could stand past the cut.
        {"GET /remove?id=x&data=1&pad=aaaa", true},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n", true},
    };
    for (const auto &[head, foreign] : rows)
        EXPECT_EQ(isForeignRequest(*parseHttpRequest(head)), foreign) << head;
}

TEST(HttpRequestTest, RangesResolveAgainstTheFileSize)
{
    const RangeAnswer whole{200, {0, 1000}};
    const RangeAnswer none{416, {0, 0}};
    const std::vector<std::tuple<std::optional<QByteArray>, qint64, RangeAnswer>> rows{
        {std::nullopt, 1000, whole},
        {QByteArray("bytes=0-99"), 1000, {206, {0, 100}}},
        {QByteArray("bytes=500-"), 1000, {206, {500, 500}}},
        {QByteArray("Bytes=990-2000"), 1000, {206, {990, 10}}},
        {QByteArray("bytes=-100"), 1000, {206, {900, 100}}},
        {QByteArray("bytes=-5000"), 1000, {206, {0, 1000}}},
        {QByteArray("bytes=1000-"), 1000, none},
        {QByteArray("bytes=-0"), 1000, none},
        {QByteArray("bytes=0-"), 0, none},
        // Ignored, and the whole file goes out: a server may always do that.
        {QByteArray("bytes=5-2"), 1000, whole},
        {QByteArray("bytes=0-1,5-6"), 1000, whole},
        {QByteArray("items=0-1"), 1000, whole},
        {QByteArray("bytes=+1-2"), 1000, whole},
        {QByteArray("bytes=99999999999999999999-"), 1000, whole},
    };
    for (const auto &[header, size, answer] : rows)
        EXPECT_EQ(resolveRange(header, size), answer) << header.value_or("(none)").constData();
}

TEST(RouteParametersTest, QueriesDecodeAsFormsDo)
{
    using Items = QMap<QString, QString>;
    const std::vector<std::pair<const char *, std::optional<Items>>> rows{
        {"/add", Items{}},
        // Python's urlencode and HTML forms: "+" for a space, "%2B" for a plus.
        {"/add?path=%2Ftmp%2Fmy+films%2Fa%2Bb.torrent", Items{{"path", "/tmp/my films/a+b.torrent"}}},
        // curl --data-urlencode and QUrl: "%20" for a space.
        {"/add?path=/tmp/my%20films/a+b.torrent", Items{{"path", "/tmp/my films/a b.torrent"}}},
        {"/open?path=%D0%A4%D0%B8%D0%BB%D1%8C%D0%BC.torrent", Items{{"path", QStringLiteral("Фильм.torrent")}}},
        {"/x?a=1&a=2&flag&&b=", Items{{"a", "2"}, {"flag", ""}, {"b", ""}}},
        {"/x?a+b=c%3Dd=e", Items{{"a b", "c=d=e"}}},
        {"/x?a=1#a=2", Items{{"a", "1"}}},
        // A broken escape or bytes that are no UTF-8 could name a different file: no guess.
        {"/x?a=%zz", std::nullopt},
        {"/x?a=%4", std::nullopt},
        {"/x?a=%FF", std::nullopt},
        {"/x?%C3=1", std::nullopt},
    };
    for (const auto &[target, items] : rows)
        EXPECT_EQ(RouteParameters::formQuery(QString::fromUtf8(target)), items) << target;
}

TEST(RouteParametersTest, LevelsMapToTheFourPriorities)
{
    const std::vector<std::pair<const char *, FilePriority>> rows{
        {"-2", FilePriority::skip}, {"0", FilePriority::skip}, {"1", FilePriority::low},
        {"3", FilePriority::low},   {"4", FilePriority::normal},  {"5", FilePriority::normal},
        {"6", FilePriority::high},  {"9", FilePriority::high},    {"", FilePriority::normal},
        {"two", FilePriority::normal}, {"4x", FilePriority::normal},
    };
    for (const auto &[level, priority] : rows)
        EXPECT_EQ(RouteParameters::priorityForLevel(QString::fromUtf8(level)), priority) << level;
}

TEST(RouteParametersTest, LimitsAreScaledAndHeldTo32Bits)
{
    constexpr qint32 Max = std::numeric_limits<qint32>::max();
    constexpr qint32 Min = std::numeric_limits<qint32>::min();
    const std::vector<std::tuple<const char *, qint64, qint32>> rows{
        {"100", 1024, 102400},     {"", 1024, 0},           {"abc", 1024, 0},
        {"-5", 1024, -5120},       {"2097151", 1024, 2147482624},
        {"2097152", 1024, Max},    {"-2097153", 1024, Min}, {"99999999999999999999", 1024, 0},
        {"9223372036854775807", 1024, Max}, {"20", 1, 20},  {"3000000000", 1, Max},
    };
    for (const auto &[text, factor, value] : rows)
        EXPECT_EQ(RouteParameters::clampedInt32(QString::fromUtf8(text), factor), value) << text;
}

class ControlServerHttpTest : public ControlServerFixture
{
protected:
    void SetUp() override
    {
        startServer();
        server->setQuitHandler([this] { ++quits; });
    }
    int quits = 0;
};

TEST_F(ControlServerHttpTest, AnyMethodGetsTheSameAnswerWithSortedKeysAndClose)
{
    const HttpAnswer viaGet = get("/state");
    ASSERT_EQ(viaGet.status, 200);
    EXPECT_EQ(viaGet.headers.value("content-type"), QByteArray("application/json; charset=utf-8"));
    EXPECT_EQ(viaGet.headers.value("connection"), QByteArray("close"));
    EXPECT_EQ(viaGet.headers.value("content-length").toLongLong(), viaGet.body.size());
    // The session part follows the live engine between two requests; the rest must match.
    auto steady = [](const QByteArray &body) {
        QJsonObject o = QJsonDocument::fromJson(body).object();
        o.remove(QStringLiteral("session"));
        return o;
    };
    EXPECT_EQ(steady(exchange(port, request(port, "/state", {}, "POST")).body), steady(viaGet.body));

    // Sorted at every level, so scripts can diff two answers.
    EXPECT_TRUE(viaGet.body.startsWith(R"({"player":{"audio":[],"buffering":false,)")) << viaGet.body.constData();
    EXPECT_TRUE(viaGet.object().value(QStringLiteral("player")).toObject().value(QStringLiteral("firstFrameAfter")).isNull());
}

TEST_F(ControlServerHttpTest, ErrorsAreJsonWithStatus200)
{
    const std::vector<std::pair<QByteArray, const char *>> rows{
        {"/nosuch", "unknown"},       {"/state?x=%zz", "bad request"},       {"/add", "path"},
        {"/open", "path"},            {"/play?id=abc", "id/file"},           {"/play?id=abc&file=0", "file"},
        {"/track?kind=sub&option=s1", "option"}, {"/key?code=70000", "code"},
        {"/snapshot?window=nosuch&path=/tmp/a.png", "window/path"},
    };
    for (const auto &[target, error] : rows) {
        SCOPED_TRACE(target.toStdString());
        const HttpAnswer answer = get(target);
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.object().value(QStringLiteral("error")).toString(), error);
    }
    // Without windows or offers, those routes answer as for a program that has none.
    EXPECT_EQ(getJson("/window?open=player").value(QStringLiteral("windows")).toArray(), QJsonArray());
    EXPECT_EQ(getJson("/offers?action=refresh").value(QStringLiteral("offers")).toArray(), QJsonArray());
    EXPECT_EQ(get("/contents-action?action=togglePause").body, QByteArray(R"({"ok":false})"));
}

TEST_F(ControlServerHttpTest, SelectDrivesTheWindowStateAndIgnoresUnknownValues)
{
    get("/select?settings=1&settingsPage=network&tab=peers&filter=paused&search=%20film&layout=table&sort=size"
        "&details=1&contents=abc&compact=1&contentsSearch=ep&transferDetails=toggle");
    EXPECT_TRUE(ui->showSettings());
    EXPECT_EQ(ui->settingsPage(), SettingsPage::network);
    EXPECT_EQ(ui->tab(), DetailTab::peers);
    EXPECT_EQ(ui->filter(), TorrentFilter::paused);
    EXPECT_EQ(ui->search(), QStringLiteral(" film"));
    EXPECT_TRUE(ui->showDetails());
    EXPECT_EQ(ui->openedTorrentID(), QStringLiteral("abc"));
    EXPECT_TRUE(ui->contentsCompact());
    EXPECT_EQ(ui->contentsQuery(), QStringLiteral("ep"));
    // The preferences went to disk in the same step.
    const LibraryPreferences saved{LibraryLayout::table, LibrarySort::size, true};
    EXPECT_EQ(LibraryPreferences::load(ui->preferencesPath()), saved);

    get("/select?filter=bogus&layout=mosaic&tab=&settings=0&contents=&id=t1");
    EXPECT_FALSE(ui->showSettings());
    EXPECT_EQ(ui->filter(), TorrentFilter::all); // an id goes back to the whole library
    EXPECT_EQ(ui->selection(), QSet<QString>{QStringLiteral("t1")});
    EXPECT_EQ(ui->preferences(), saved);
    EXPECT_EQ(ui->tab(), DetailTab::peers);
    EXPECT_EQ(ui->openedTorrentID(), QString());
    get("/select?clear=1");
    EXPECT_TRUE(state().value(QStringLiteral("ui")).toObject().value(QStringLiteral("selection")).toArray().isEmpty());
}

TEST_F(ControlServerHttpTest, ForeignRequestsAreRefusedAndChangeNothing)
{
    const std::vector<QByteArray> heads{
        "GET /select?filter=paused HTTP/1.1\r\nHost: rebound.example\r\n\r\n",
        request(port, "/quit", "Origin: null\r\n"),
        request(port, "/stream/abc/0/a.mkv", "Referer: https://evil.example/\r\n"),
    };
    for (const QByteArray &head : heads)
        EXPECT_EQ(exchange(port, head).body, QByteArray(R"({"error":"forbidden"})")) << head.left(80).constData();
    EXPECT_EQ(ui->filter(), TorrentFilter::all);

    // A script's request goes through, whatever body follows its head.
    EXPECT_EQ(exchange(port, request(port, "/select?filter=seeding") + QByteArray(200 * 1024, 'x')).body,
              QByteArray(R"({"ok":true})"));
    EXPECT_EQ(ui->filter(), TorrentFilter::seeding);
    get("/quit");
    EXPECT_TRUE(testsupport::waitFor([this] { return quits > 0; }));
}

TEST_F(ControlServerHttpTest, AHeadIsGatheredOverItsSegmentsAndABadOneIsAnswered)
{
    const QByteArray host = "Host: 127.0.0.1:" + QByteArray::number(port) + "\r\n";
    // In pieces that cut the request line, a header and the blank line; the last one with a
    // half-close, as `nc -N` ends a request.
    PiecewiseClient pieces(port, {"GET /sel", "ect?filter=pau", "sed HTTP/1.1\r\n" + host.left(7), host.mid(7) + "\r", "\n"},
                           true);
    EXPECT_EQ(pieces.finish().body, QByteArray(R"({"ok":true})"));
    EXPECT_EQ(ui->filter(), TorrentFilter::paused);

    const QByteArray badRequest = R"({"error":"bad request"})";
    const QByteArray big(MaxHeadBytes, 'a');
    const std::vector<std::pair<const char *, QList<QByteArray>>> rows{
        {"ends before its blank line", {"GET /select?filter=seeding HTTP/1.1\r\n", host}},
        {"grows past 64 KiB", {"GET /select?filter=seeding HTTP/1.1\r\n" + host, "X-Pad: " + big, "\r\n\r\n"}},
        {"request line past 64 KiB", {"GET /select?filter=seeding&pad=" + big + " HTTP/1.1\r\n" + host + "\r\n"}},
        {"is no UTF-8", {"GET /select?filter=seeding&x=\xff HTTP/1.1\r\n" + host + "\r\n"}},
        {"is binary", {"\xff\xfe\xfd\r\n\r\n"}},
    };
    for (const auto &[what, sent] : rows) {
        SCOPED_TRACE(what);
        PiecewiseClient client(port, sent, true);
        const HttpAnswer answer = client.finish();
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.body, badRequest);
    }
    EXPECT_EQ(ui->filter(), TorrentFilter::paused) << "no bad request may act";

    // A connection that only opens and closes asked nothing, and gets nothing.
    PiecewiseClient silent(port, {}, true);
    silent.finish();
    EXPECT_TRUE(silent.received().isEmpty());
}

} // namespace
