#include "AutomationHarness.h"

#include "remote/AutomationServer.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>

#include <array>
#include <sys/stat.h>
#include <unistd.h>

using namespace automationtest;

namespace {

const QByteArray Unauthorized = R"({"error":"Unauthorized or malformed request","ok":false})" "\n";
const QByteArray InvalidCommand = R"({"error":"Invalid command","ok":false})" "\n";
// A fixed text, sent as it is written rather than serialised.
const QByteArray ResponseTooLarge = R"({"ok":false,"error":"Response too large"})" "\n";

// Tools that need no engine: an echo of the call, and a result too large to send.
QCoro::Task<AutomationOutcome> standInTool(QString name, QJsonObject arguments)
{
    if (name == QLatin1String("big"))
        co_return QJsonValue(QString(9 * 1024 * 1024, QLatin1Char('x')));
    co_return QJsonValue(QJsonObject{{"name", name}, {"arguments", arguments}});
}

int modeOf(const QString &path)
{
    struct stat info{};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

QByteArray line(const QJsonObject &request)
{
    return QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray echo(const QString &token)
{
    return line({{"token", token}, {"name", "echo"}, {"arguments", QJsonObject{{"x", 1}}}});
}

class AutomationServerTest : public ::testing::Test
{
protected:
    QString directory() const { return m_dir.qpath() + QStringLiteral("/home/automation"); }
    QJsonObject endpoint() const { return readJsonFile(directory() + QStringLiteral("/endpoint.json")); }
    QString token() const { return endpoint().value(QLatin1String("token")).toString(); }
    std::unique_ptr<AutomationServer> startServer()
    {
        auto server = std::make_unique<AutomationServer>(directory(), standInTool);
        server->start();
        return server;
    }

    testsupport::TempDir m_dir;
};

} // namespace

TEST(AutomationServerRulesTest, TokenAndAnswerLimits)
{
    EXPECT_TRUE(AutomationServer::authorized("abc", "abc"));
    for (const char *given : {"abd", "ab", "abcd", "Abc", ""})
        EXPECT_FALSE(AutomationServer::authorized(given, "abc")) << given;
    EXPECT_FALSE(AutomationServer::authorized("", ""));

    // {"ok":true,"result":"..."} is 23 bytes around the text.
    const QString fits(AutomationServer::MaxResponseBytes - 23, QLatin1Char('x'));
    EXPECT_EQ(AutomationServer::responseBytes({{"ok", true}, {"result", fits}}).size(), AutomationServer::MaxResponseBytes + 1);
    EXPECT_EQ(AutomationServer::responseBytes({{"ok", true}, {"result", fits + QLatin1Char('x')}}), ResponseTooLarge);
}

TEST_F(AutomationServerTest, OneServerPublishesAPrivateEndpointForOneRun)
{
    auto server = startServer();
    ASSERT_TRUE(server->isListening());
    EXPECT_EQ(modeOf(directory()), 0700);
    EXPECT_EQ(modeOf(directory() + QStringLiteral("/endpoint.json")), 0600);
    // Nothing is left of the file written before the rename.
    EXPECT_EQ(QDir(directory()).entryList(QDir::Files | QDir::Hidden), (QStringList{"endpoint.json", "server.lock"}));
    const QJsonObject published = endpoint();
    EXPECT_EQ(published.value(QLatin1String("port")).toInt(), server->port());
    EXPECT_EQ(published.value(QLatin1String("pid")).toInteger(), ::getpid());
    EXPECT_EQ(published.value(QLatin1String("version")).toInt(), 1);
    const QString first = token();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{64}$")).match(first).hasMatch()) << first.toStdString();

    // A second server on the same directory stays silent and leaves the first one's endpoint.
    testing::internal::CaptureStderr();
    auto second = startServer();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string());
    EXPECT_FALSE(second->isListening());
    second->stop();
    EXPECT_EQ(endpoint(), published);

    const quint16 port = server->port();
    server->stop();
    EXPECT_FALSE(QFileInfo::exists(directory() + QStringLiteral("/endpoint.json")));
    EXPECT_TRUE(exchange(port, echo(first)).isEmpty());
    // Only "1" disables; the next start has a token of its own.
    qputenv("VELIX_MCP_DISABLED", "1");
    second->start();
    EXPECT_FALSE(second->isListening());
    qputenv("VELIX_MCP_DISABLED", "0");
    second->start();
    qunsetenv("VELIX_MCP_DISABLED");
    ASSERT_TRUE(second->isListening());
    EXPECT_EQ(endpoint().value(QLatin1String("port")).toInt(), second->port());
    EXPECT_NE(token(), first);
}

TEST_F(AutomationServerTest, DirectoryMustBeTheUsersOwnAndReal)
{
    ASSERT_TRUE(QDir().mkpath(directory()));
    ASSERT_EQ(::chmod(QFile::encodeName(directory()).constData(), 0777), 0);
    auto server = startServer();
    EXPECT_TRUE(server->isListening());
    EXPECT_EQ(modeOf(directory()), 0700);
    server->stop();

    const std::string refusal = "Velix automation unavailable: Unsafe automation directory\n";
    // A link in the directory's place is refused, even to a directory of the user's own.
    const QString elsewhere = m_dir.qpath() + QStringLiteral("/elsewhere");
    ASSERT_TRUE(QDir().mkpath(elsewhere) && QDir(directory()).removeRecursively());
    ASSERT_TRUE(QFile::link(elsewhere, directory()));
    testing::internal::CaptureStderr();
    server->start();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), refusal);
    EXPECT_FALSE(server->isListening());
    EXPECT_TRUE(QDir(elsewhere).isEmpty());
    ASSERT_TRUE(QFile::remove(directory()));

    if (::geteuid() != 0)
        GTEST_SKIP() << "giving the directory to another user needs root";
    ASSERT_TRUE(QDir().mkpath(directory()));
    ASSERT_EQ(::chown(QFile::encodeName(directory()).constData(), 65534, 65534), 0);
    testing::internal::CaptureStderr();
    server->start();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), refusal);
    EXPECT_FALSE(server->isListening());
}

TEST_F(AutomationServerTest, BadRequestsGetFixedAnswers)
{
    auto server = startServer();
    ASSERT_TRUE(server->isListening());
    const QString good = token();
    QString wrong = good;
    wrong[63] = wrong[63] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
    const std::array<std::pair<QByteArray, QByteArray>, 9> rows{{
        {line({{"token", good}, {"name", "big"}, {"arguments", QJsonObject()}}), ResponseTooLarge},
        {echo(wrong), Unauthorized},
        {line({{"token", 7}, {"name", "echo"}, {"arguments", QJsonObject()}}), Unauthorized},
        {"hello\n", Unauthorized},
        {"[\"" + good.toLatin1() + "\"]\n", Unauthorized},
        {line({{"token", good}, {"arguments", QJsonObject()}}), InvalidCommand},
        {line({{"token", good}, {"name", "echo"}, {"arguments", QJsonArray()}}), InvalidCommand},
        {QByteArray(AutomationServer::MaxRequestBytes + 1, 'x'), R"({"error":"Request too large","ok":false})" "\n"},
        // Only the first line of a connection is served.
        {echo(good) + line({{"token", good}, {"name", "big"}, {"arguments", QJsonObject()}}),
         R"({"ok":true,"result":{"arguments":{"x":1},"name":"echo"}})" "\n"},
    }};
    for (const auto &[request, answer] : rows) {
        SCOPED_TRACE(request.left(100).toStdString());
        EXPECT_EQ(exchange(server->port(), request), answer);
    }

    // A request that arrives in pieces is put together; one that never ends costs its slot.
    server->setIdleLimit(std::chrono::seconds(2));
    LineClient pieces(server->port());
    LineClient idle(server->port());
    ASSERT_TRUE(pieces.connected() && idle.connected());
    pieces.send(echo(good).left(10));
    idle.send(echo(good).left(10));
    testsupport::waitFor([] { return false; }, std::chrono::milliseconds(100));
    pieces.send(echo(good).mid(10));
    ASSERT_TRUE(pieces.waitClosed() && idle.waitClosed());
    EXPECT_TRUE(pieces.received().startsWith(R"({"ok":true)"));
    EXPECT_TRUE(idle.received().isEmpty());
}

TEST_F(AutomationServerTest, SeventeenthConnectionIsClosedAtOnce)
{
    auto server = startServer();
    // Long enough that only the connection limit can close anything here.
    server->setIdleLimit(std::chrono::hours(1));
    std::vector<std::unique_ptr<LineClient>> held;
    for (int i = 0; i < AutomationServer::MaxConnections; ++i) {
        held.push_back(std::make_unique<LineClient>(server->port()));
        ASSERT_TRUE(held.back()->connected());
    }
    ASSERT_TRUE(testsupport::waitFor([&] { return server->connectionCount() == AutomationServer::MaxConnections; }));

    LineClient refused(server->port());
    EXPECT_TRUE(refused.waitClosed());
    EXPECT_TRUE(refused.received().isEmpty());
    for (const auto &client : held)
        EXPECT_TRUE(client->isOpen());

    // A slot given back is a slot for the next client.
    held.front()->close();
    ASSERT_TRUE(testsupport::waitFor([&] { return server->connectionCount() < AutomationServer::MaxConnections; }));
    EXPECT_TRUE(callTool(directory(), QStringLiteral("echo")).value(QLatin1String("ok")).toBool());
}
