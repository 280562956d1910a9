#include "BridgeHarness.h"

#include "bridge/BridgeJson.h"
#include "bridge/BridgeText.h"

#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>

using namespace bridgetest;
using namespace testsupport;

TEST(BridgeTextTest, LinesTrimAndDropEmptyOnes)
{
    EXPECT_TRUE(tb::lines(nullptr).empty());
    EXPECT_EQ(tb::lines("  a=1 \r\n\n\t b \n   \nc"), (std::vector<std::string>{"a=1", "b", "c"}));

    const auto opts = tb::options("a=1\nnoequals\n  b = x=y \na=2\r\n=empty-key\nc=");
    EXPECT_EQ(opts.at("a"), "2");          // a later line wins
    EXPECT_EQ(opts.at("b "), " x=y ");     // split at the first "=" only, the value's blanks kept
    EXPECT_EQ(opts.at(""), "empty-key");
    EXPECT_EQ(opts.at("c"), "");
    EXPECT_EQ(opts.count("noequals"), 0u);
}

TEST(BridgeJsonTest, StringsStayValidJsonWhateverTheBytes)
{
    const std::array<std::pair<std::string, QString>, 10> rows{{
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
    for (const auto &[raw, decoded] : rows) {
        SCOPED_TRACE(raw);
        std::string doc = "[";
        tb::put(doc, raw);
        EXPECT_EQ(parse(doc + "]").array().at(0).toString(), decoded);
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
    ASSERT_TRUE(tb::write_file(path, std::string("second")));
    EXPECT_EQ(readWholeFile(path), "second");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));

    // A rename that fails (the target is a non-empty directory) keeps what was there and leaves
    // no temporary file behind.
    const std::string blocked = dir.file("blocked");
    std::filesystem::create_directories(blocked + "/inside");
    EXPECT_FALSE(tb::write_file(blocked, std::string("data")));
    EXPECT_TRUE(std::filesystem::is_directory(blocked + "/inside"));
    EXPECT_FALSE(std::filesystem::exists(blocked + ".tmp"));

    // The stray temporary of a write cut off before its rename is no obstacle to the next one.
    std::ofstream(path + ".tmp") << "half";
    ASSERT_TRUE(tb::write_file(path, std::string("third")));
    EXPECT_EQ(readWholeFile(path), "third");

    std::ofstream(dir.file("empty"));
    EXPECT_TRUE(tb::read_file(dir.file("empty")).empty());
}

TEST(BridgeSessionTest, StartsOverACorruptStateFileAndLeavesAValidOne)
{
    TempDir dir;
    const std::string state = dir.file("state");
    std::filesystem::create_directories(state);
    std::ofstream(state + "/session.state") << "d4:junk";
    BridgeSession session(state, quietSettingsText(freeTcpPort()));
    ASSERT_NE(session.get(), nullptr);
    EXPECT_EQ(take(tb_poll_events(session.get())), "[]");

    session.close();
    const auto bytes = tb::read_file(state + "/session.state");
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes.front(), 'd');
    EXPECT_NE(std::string(bytes.begin(), bytes.end()), "d4:junk");
    tb_session_destroy(nullptr);
}

TEST(BridgeSessionTest, ListenResultsClearOnlyWhenTheListenAddressChanges)
{
    TempDir dir;
    const int port = freeTcpPort();
    const std::string text = quietSettingsText(port);
    BridgeSession session(dir.file("state"), text);
    const auto listening = [&] { return statusJson(session.get())["session"].toObject()["listening"].toArray(); };
    ASSERT_TRUE(waitFor([&] { return listening().contains(QStringLiteral("TCP 127.0.0.1:%1").arg(port)); }));
    const QJsonArray before = listening();

    tb_apply_settings(session.get(), (text + "\nconnections_limit=50").c_str());
    EXPECT_EQ(listening(), before);

    const int other = freeTcpPort();
    tb_apply_settings(session.get(), quietSettingsText(other).c_str());
    ASSERT_TRUE(waitFor([&] {
        const QJsonArray now = listening();
        return !now.isEmpty() && now != before;
    }));
    for (const QJsonValue &entry : listening())
        EXPECT_TRUE(entry.toString().endsWith(QStringLiteral(":%1").arg(other))) << entry.toString().toStdString();
}
