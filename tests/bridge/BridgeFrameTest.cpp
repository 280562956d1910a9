#include "bridge/BridgeJson.h"
#include "bridge/BridgeText.h"
#include "bridge/tb_bridge.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>

using testsupport::TempDir;

namespace {

QJsonValue parseString(const std::string &raw)
{
    std::string doc = "[";
    tb::put(doc, raw);
    doc += "]";
    QJsonParseError error{};
    const QJsonDocument parsed = QJsonDocument::fromJson(QByteArray::fromStdString(doc), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << doc;
    return parsed.array().at(0);
}

QJsonObject takeObject(char *text)
{
    EXPECT_NE(text, nullptr);
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray(text ? text : ""));
    tb_free(text);
    return doc.object();
}

} // namespace

TEST(BridgeTextTest, LinesTrimAndDropEmptyOnes)
{
    EXPECT_TRUE(tb::lines(nullptr).empty());
    EXPECT_EQ(tb::lines("  a=1 \r\n\n\t b \n   \nc"), (std::vector<std::string>{"a=1", "b", "c"}));

    const auto opts = tb::options("a=1\nnoequals\nb = x=y \na=2\n=empty-key\nc=");
    EXPECT_EQ(opts.at("a"), "2");          // a later line wins
    EXPECT_EQ(opts.at("b "), " x=y");      // split at the first "=" only, inner blanks kept
    EXPECT_EQ(opts.at(""), "empty-key");
    EXPECT_EQ(opts.at("c"), "");
    EXPECT_EQ(opts.count("noequals"), 0u);
}

TEST(BridgeJsonTest, StringsStayValidJsonWhateverTheBytes)
{
    struct Row
    {
        std::string raw;
        QString decoded;
    };
    const std::array<Row, 10> rows{{
        {"plain", QStringLiteral("plain")},
        {"tab\there\nnl\rcr", QStringLiteral("tab\there\nnl\rcr")},
        {"q\"b\\", QStringLiteral("q\"b\\")},
        {std::string("\x01\x1f", 2), QString(QChar(1)) + QChar(0x1f)},
        {"Сериал", QStringLiteral("Сериал")},
        {"emoji \xF0\x9F\x8E\xAC", QStringLiteral("emoji ") + QString::fromUtf8("\xF0\x9F\x8E\xAC")},
        // A lone Latin-1 byte, a truncated sequence and a stray continuation byte each become one
        // replacement character.
        {"caf\xE9.mkv", QStringLiteral("caf\uFFFD.mkv")},
        {"\xD0", QStringLiteral("\uFFFD")},
        {"a\x80\x80z", QStringLiteral("a\uFFFD\uFFFDz")},
        // Overlong and surrogate encodings are not text either.
        {"\xC0\xAF\xED\xA0\x80", QStringLiteral("\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD")},
    }};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.raw);
        EXPECT_EQ(parseString(row.raw).toString(), row.decoded);
    }
}

TEST(BridgeJsonTest, ObjectsKeepKeyOrderAndNumberForms)
{
    std::string out;
    {
        tb::Obj o(out);
        o.s("name", "x");
        o.i("big", 9007199254740993LL);
        o.d("ratio", 0.5);
        o.d("nan", std::numeric_limits<double>::quiet_NaN());
        o.b("flag", true);
        o.raw("list", "[1,2]");
        tb::Arr a(o.key("names"));
        a.s("a");
        a.s("b");
    }
    EXPECT_EQ(out, R"({"name":"x","big":9007199254740993,"ratio":0.5,"nan":0,"flag":true,"list":[1,2],"names":["a","b"]})");
}

TEST(BridgeFileTest, WriteReplacesWholeOrLeavesTheOldFile)
{
    TempDir dir;
    const std::string path = dir.file("state.bin");
    EXPECT_TRUE(tb::read_file(path).empty());
    ASSERT_TRUE(tb::write_file(path, std::string("first")));
    EXPECT_EQ(testsupport::readWholeFile(path), "first");
    ASSERT_TRUE(tb::write_file(path, std::string("second")));
    EXPECT_EQ(testsupport::readWholeFile(path), "second");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));

    // A rename that fails (the target is a non-empty directory) keeps what was there and leaves
    // no temporary file behind.
    const std::string blocked = dir.file("blocked");
    std::filesystem::create_directories(blocked + "/inside");
    EXPECT_FALSE(tb::write_file(blocked, std::string("data")));
    EXPECT_TRUE(std::filesystem::is_directory(blocked + "/inside"));
    EXPECT_FALSE(std::filesystem::exists(blocked + ".tmp"));

    // A write cut off before its rename leaves a stray temporary that readers never see.
    std::ofstream(path + ".tmp") << "half";
    EXPECT_EQ(testsupport::readWholeFile(path), "second");
    ASSERT_TRUE(tb::write_file(path, std::string("third")));
    EXPECT_EQ(testsupport::readWholeFile(path), "third");

    std::ofstream(dir.file("empty"));
    EXPECT_TRUE(tb::read_file(dir.file("empty")).empty());
}

TEST(BridgeSessionTest, StartsOverACorruptStateFileAndLeavesAValidOne)
{
    TempDir dir;
    const std::string state = dir.file("state");
    std::filesystem::create_directories(state);
    std::ofstream(state + "/session.state") << "d4:junk";
    // Unknown keys are skipped and the known ones still apply; "yes" is no bool "true".
    const std::string text = testsupport::quietSettingsText(testsupport::freeTcpPort())
        + "\nno_such_setting=5\nconnections_limit=77\nenable_dht=yes\nhashing_threads=2";
    tb_session *session = tb_session_create(state.c_str(), text.c_str());
    ASSERT_NE(session, nullptr);
    EXPECT_TRUE(std::filesystem::is_directory(state + "/resume"));

    char *events = tb_poll_events(session);
    EXPECT_STREQ(events, "[]");
    tb_free(events);

    const QJsonObject diagnostics = takeObject(tb_diagnostics_json(session));
    const QJsonObject settings = diagnostics.value(QStringLiteral("settings")).toObject();
    EXPECT_EQ(settings.value(QStringLiteral("connections_limit")).toInt(), 77);
    EXPECT_EQ(settings.value(QStringLiteral("hashing_threads")).toInt(), 2);

    tb_session_destroy(session);
    const auto bytes = tb::read_file(state + "/session.state");
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes.front(), 'd');
    EXPECT_NE(std::string(bytes.begin(), bytes.end()), "d4:junk");
    tb_session_destroy(nullptr);
}

TEST(BridgeSessionTest, ListenResultsClearOnlyWhenTheListenAddressChanges)
{
    TempDir dir;
    const int port = testsupport::freeTcpPort();
    const std::string text = testsupport::quietSettingsText(port);
    tb_session *session = tb_session_create(dir.file("state").c_str(), text.c_str());
    ASSERT_NE(session, nullptr);
    auto listening = [&] {
        return takeObject(tb_status_json(session)).value(QStringLiteral("session")).toObject()
            .value(QStringLiteral("listening")).toArray();
    };
    ASSERT_TRUE(testsupport::waitFor([&] { return !listening().isEmpty(); }));
    const QJsonArray before = listening();

    tb_apply_settings(session, (text + "\nconnections_limit=50").c_str());
    EXPECT_EQ(listening(), before);

    const int other = testsupport::freeTcpPort();
    tb_apply_settings(session, testsupport::quietSettingsText(other).c_str());
    ASSERT_TRUE(testsupport::waitFor([&] {
        const QJsonArray now = listening();
        return !now.isEmpty() && now != before;
    }));
    for (const QJsonValue &entry : listening())
        EXPECT_TRUE(entry.toString().endsWith(QStringLiteral(":%1").arg(other))) << entry.toString().toStdString();
    tb_session_destroy(session);
}
