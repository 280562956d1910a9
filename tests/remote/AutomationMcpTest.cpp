// velix-mcp as an agent's host sees it: a child process spoken to over standard input and
// output, first line by line, then through the official MCP TypeScript client against an engine
// and automation server running in this process.

#include "AutomationHarness.h"

#include "remote/AutomationAPI.h"
#include "remote/AutomationServer.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>
#include <QStandardPaths>

using namespace automationtest;

namespace {

// Starts a program with VELIX_HOME set and collects what it writes on standard output.
class Child
{
public:
    Child(const QString &home, const QString &program, const QStringList &arguments)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("VELIX_HOME"), home);
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QObject::connect(&m_process, &QProcess::readyReadStandardOutput,
                         [this] { m_output += m_process.readAllStandardOutput(); });
        m_process.start(program, arguments);
    }
    ~Child()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(10000))
            m_process.kill();
    }
    // Sends lines and gives back the next line written in reply.
    QJsonObject ask(const QByteArray &lines)
    {
        m_process.write(lines + '\n');
        if (!testsupport::waitFor([this] { return m_output.contains('\n'); }))
            return {};
        const QByteArray reply = m_output.left(m_output.indexOf('\n'));
        m_output.remove(0, reply.size() + 1);
        return QJsonDocument::fromJson(reply).object();
    }
    // Waits for the end, running the event loop: a server of this process may be its peer.
    QByteArray output()
    {
        testsupport::waitFor([this] { return m_process.state() == QProcess::NotRunning; }, std::chrono::minutes(3));
        return m_output + m_process.readAllStandardOutput();
    }

private:
    QProcess m_process;
    QByteArray m_output;
};

QByteArray request(const QJsonValue &id, const char *method, const QJsonObject &params = {})
{
    const QJsonObject message{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}};
    return QJsonDocument(message).toJson(QJsonDocument::Compact);
}

QJsonValue field(const QJsonObject &reply, const char *part, const char *key)
{
    return reply.value(QLatin1String(part))[QLatin1String(key)];
}

} // namespace

TEST(AutomationMcpTest, BridgeSpeaksJsonRpcLineByLine)
{
    testsupport::TempDir home;
    Child mcp(home.qpath(), stagedPath(QStringLiteral("bin/velix-mcp")), {});
    const QJsonObject garbage = mcp.ask("{not json");
    EXPECT_EQ(field(garbage, "error", "code").toInt(), -32700);
    EXPECT_TRUE(garbage.value(QLatin1String("id")).isNull());

    const QJsonObject asked = mcp.ask(request(1, "initialize", {{"protocolVersion", "2025-06-18"}}));
    EXPECT_EQ(field(asked, "result", "protocolVersion").toString(), QStringLiteral("2025-06-18"));
    EXPECT_TRUE(field(asked, "result", "capabilities")[QLatin1String("tools")].isObject());
    // A version it doesn't speak is answered with the newest it does; the client decides.
    EXPECT_EQ(field(mcp.ask(request(2, "initialize", {{"protocolVersion", "1999-01-01"}})), "result", "protocolVersion"),
              QJsonValue("2025-11-25"));
    // Neither a blank line nor a notification gets an answer: the next line is the ping's.
    const QJsonObject pong = mcp.ask("\n{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n" + request("p", "ping"));
    EXPECT_EQ(pong.value(QLatin1String("id")), QJsonValue("p"));
    EXPECT_EQ(field(mcp.ask(request(3, "resources/list")), "error", "code").toInt(), -32601);

    // Without a running Velix a tool fails in words the agent can pass on.
    const QJsonObject absent = mcp.ask(request(5, "tools/call", {{"name", "get_settings"}}));
    EXPECT_TRUE(field(absent, "result", "isError").toBool());
    EXPECT_TRUE(field(absent, "result", "content")[0][QLatin1String("text")].toString().startsWith("Velix is not running"));
}

TEST(AutomationMcpTest, OfficialClientDrivesVelixThroughTheBridge)
{
    const QString client = QCoreApplication::applicationDirPath() + QStringLiteral("/mcp-client");
    const QString node = QStandardPaths::findExecutable(QStringLiteral("node"));
    ASSERT_FALSE(node.isEmpty()) << "node is not on PATH";
    ASSERT_TRUE(QFileInfo::exists(client + QStringLiteral("/node_modules/@modelcontextprotocol/sdk")))
        << "the MCP client is not installed; run: npm ci --prefix " << client.toStdString();

    useShippedTools();
    testsupport::TempDir dir;
    const QString home = dir.qpath() + QStringLiteral("/home");
    testsupport::writePatternFile(dir.file("content/Clip/Clip.mkv"), 64 * 1024);
    const auto clip = testsupport::makeTorrent(dir.file("content"), "Clip", dir.file("torrents"));
    const QString id = QString::fromStdString(clip.id);
    auto engine = makeEngine(home);
    AutomationAPI api(engine.get(), nullptr, nullptr);
    AutomationServer server(home + QStringLiteral("/automation"), [&api](QString name, QJsonObject arguments) {
        return api.call(std::move(name), std::move(arguments));
    });
    server.start();
    ASSERT_TRUE(server.isListening());

    const QJsonArray calls{
        QJsonObject{{"name", "get_settings"}},
        QJsonObject{{"name", "add_torrent"},
                    {"arguments", QJsonObject{{"source", QString::fromStdString(clip.torrentPath)},
                                              {"save_path", QString::fromStdString(dir.file("content"))}}}},
        QJsonObject{{"name", "update_settings"}, {"arguments", QJsonObject{{"listen_port", 1}}}},
        QJsonObject{{"name", "launch"}},
        QJsonObject{{"name", "remove_torrent"}, {"arguments", QJsonObject{{"id", id}}}},
    };
    Child agent(home, node, {client + QStringLiteral("/client.mjs"), stagedPath(QStringLiteral("bin/velix-mcp")),
                             QString::fromUtf8(QJsonDocument(calls).toJson(QJsonDocument::Compact))});
    const QJsonObject report = QJsonDocument::fromJson(agent.output()).object();
    ASSERT_TRUE(report.contains(QLatin1String("results"))) << QJsonDocument(report).toJson().toStdString();
    ASSERT_FALSE(report.contains(QLatin1String("failure"))) << report.value(QLatin1String("failure")).toString().toStdString();
    EXPECT_EQ(field(report, "serverVersion", "name"), QJsonValue("velix"));
    EXPECT_EQ(report.value(QLatin1String("tools")).toArray().size(), 12);

    const QJsonArray results = report.value(QLatin1String("results")).toArray();
    ASSERT_EQ(results.size(), calls.size());
    auto structured = [&results](int i) { return results[i][QLatin1String("structured")].toObject(); };
    EXPECT_EQ(structured(0).value(QLatin1String("subtitle_mode")), QJsonValue("auto"));
    EXPECT_EQ(structured(1), (QJsonObject{{"id", id}, {"duplicate", false}}));
    EXPECT_TRUE(results[2][QLatin1String("isError")].toBool());
    EXPECT_EQ(results[2][QLatin1String("text")], QJsonValue("Invalid arguments"));
    EXPECT_TRUE(results[3][QLatin1String("protocolError")].toString().contains(QLatin1String("Unknown tool: launch")));
    EXPECT_EQ(structured(4), (QJsonObject{{"accepted", true}}));
    EXPECT_TRUE(engine->torrents().isEmpty());
}
