#include "AutomationHarness.h"

#include <QJsonArray>

#include <array>
#include <climits>
#include <tuple>
#include <vector>

using namespace automationtest;

namespace {

QJsonObject object(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

std::string message(const std::optional<AutomationError> &error)
{
    return error ? error->message.toStdString() : "ok";
}

QByteArray text(qsizetype length)
{
    return '"' + QByteArray(length, 'a') + '"';
}

QByteArray integers(int count)
{
    QByteArray list("[0");
    for (int i = 1; i < count; ++i)
        list += ',' + QByteArray::number(i);
    return list + ']';
}

} // namespace

TEST(AutomationCatalogTest, ValidatorNamesWhereTheFaultIsAndNeverWhy)
{
    const QByteArray files = R"({"type":"object","properties":{"files":{"type":"array","items":{"type":"integer"}}}})";
    const std::vector<std::tuple<QByteArray, QByteArray, const char *>> rows{
        // Objects: unknown keys fail whatever additionalProperties says; required keys must be there.
        {R"({"type":"object","properties":{"a":{"type":"string"}}})", "{}", "ok"},
        {R"({"type":"object","properties":{},"additionalProperties":true})", R"({"b":"x"})", "Invalid arguments"},
        {R"({"type":"object","properties":{"a":{"type":"string"}},"required":["a"]})", "{}", "Invalid arguments"},
        {R"({"type":"object","properties":{"a":{"type":"object","properties":{"b":{"type":"integer"}}}}})",
            R"({"a":{"b":"1"}})", "Invalid arguments.a.b"},
        {files, R"({"files":[1,"2"]})", "Invalid arguments.files[]"},
        {R"({"type":"object"})", "{}", "Invalid arguments"},
        // Numbers: JSON numbers only, finite, whole for integers, within the bounds.
        {R"({"type":"integer"})", "true", "Invalid arguments"},
        {R"({"type":"integer"})", "1.5", "Invalid arguments"},
        {R"({"type":"integer"})", "2.0", "ok"},
        {R"({"type":"integer"})", "1e19", "Invalid arguments"},
        {R"({"type":"integer","minimum":0,"maximum":2097151})", "2097151", "ok"},
        {R"({"type":"integer","minimum":0,"maximum":2097151})", "2097152", "Invalid arguments"},
        {R"({"type":"integer","minimum":0,"maximum":2097151})", "-1", "Invalid arguments"},
        {R"({"type":"number","maximum":"4"})", "1", "Invalid arguments"},
        {R"({"type":"integer","enum":[1,2]})", "2.0", "ok"},
        {R"({"type":"boolean"})", "1", "Invalid arguments"},
        // Texts: 8192 characters unless told, and never a control character.
        {R"({"type":"string"})", text(8192), "ok"},
        {R"({"type":"string"})", text(8193), "Invalid arguments"},
        {R"({"type":"string","maxLength":9000})", text(8193), "ok"},
        {R"({"type":"string","maxLength":1})", "\"\xF0\x9D\x84\x9E\"", "ok"},
        {R"({"type":"string","maxLength":100})", R"("a\nb")", "Invalid arguments"},
        {R"({"type":"string"})", R"("\u007f")", "Invalid arguments"},
        {R"({"type":"string"})", R"("next\u0085line")", "Invalid arguments"},
        {R"({"type":"string","enum":["auto","always"]})", "\"never\"", "Invalid arguments"},
        // Arrays: 10000 items unless told, each checked, unique when asked.
        {R"({"type":"array","items":{"type":"integer"}})", integers(10000), "ok"},
        {R"({"type":"array","items":{"type":"integer"}})", integers(10001), "Invalid arguments"},
        {R"({"type":"array","items":{"type":"integer"},"uniqueItems":true})", "[1,2,1]", "Invalid arguments"},
        {R"({"type":"array","items":{"type":"string","enum":["a"]},"enum":["b"]})", R"(["a"])", "ok"},
        {R"({"type":"array"})", "[]", "Invalid arguments"},
        // A schema this validator doesn't know fails every value.
        {R"({"type":"null"})", "null", "Invalid arguments"},
        {R"({"type":["integer"]})", "1", "Invalid arguments"},
    };
    for (const auto &[schema, json, expected] : rows) {
        SCOPED_TRACE(schema.toStdString() + " <- " + json.left(60).toStdString());
        const QJsonValue value = object("{\"v\":" + json + "}").value(QLatin1String("v"));
        EXPECT_EQ(message(AutomationCatalog::validate(value, object(schema), QStringLiteral("arguments"))), expected);
    }
}

TEST(AutomationCatalogTest, ToolIsTheFirstEntryOfItsNameInAnArrayOfObjects)
{
    EXPECT_TRUE(AutomationCatalog::parseTools(R"([{"name":"a"}, 3])").isEmpty());
    EXPECT_TRUE(AutomationCatalog::parseTools(R"({"name":"a"})").isEmpty());
    const QJsonArray tools = AutomationCatalog::parseTools(R"([
        {"name": "open", "inputSchema": {"type": "object", "properties": {"a": {"type": "integer"}}}},
        {"name": "open", "inputSchema": {"type": "object", "properties": {"b": {"type": "integer"}}}},
        {"name": "broken", "inputSchema": "object"},
        {"name": "broken", "inputSchema": {"type": "object", "properties": {}}}
    ])");
    EXPECT_EQ(message(AutomationCatalog::validate(tools, QStringLiteral("open"), object(R"({"b":1})"))),
              "Invalid arguments");
    // An entry without a schema ends the search: a later one of the same name doesn't stand in.
    EXPECT_EQ(message(AutomationCatalog::validate(tools, QStringLiteral("broken"), {})), "Unknown tool: broken");

    testsupport::TempDir dir;
    AutomationCatalog::useToolsFile(dir.qpath() + QStringLiteral("/missing.json"));
    EXPECT_EQ(message(AutomationCatalog::validate(QStringLiteral("get_state"), {})), "Unknown tool: get_state");
    useShippedTools();
    EXPECT_EQ(message(AutomationCatalog::validate(QStringLiteral("get_state"), {})), "ok");
}

TEST(AutomationCatalogTest, ShippedCatalogStatesEveryToolAndItsLimits)
{
    useShippedTools();
    QStringList names;
    for (const QJsonValue &entry : AutomationCatalog::tools()) {
        names << entry[QLatin1String("name")].toString();
        SCOPED_TRACE(names.last().toStdString());
        EXPECT_FALSE(entry[QLatin1String("description")].toString().isEmpty());
        const QJsonObject schema = entry[QLatin1String("inputSchema")].toObject();
        // Agents are told what the validator enforces anyway.
        EXPECT_EQ(schema.value(QLatin1String("additionalProperties")), QJsonValue(false));
        const QJsonObject properties = schema.value(QLatin1String("properties")).toObject();
        for (const QJsonValue &required : schema.value(QLatin1String("required")).toArray())
            EXPECT_TRUE(properties.contains(required.toString()));
        for (auto it = properties.begin(); it != properties.end(); ++it) {
            EXPECT_FALSE(it.value()[QLatin1String("description")].toString().isEmpty()) << it.key().toStdString();
            // A rate in KiB/s goes on in bytes as a 32-bit number.
            if (it.key().endsWith(QLatin1String("_kib"))) {
                EXPECT_LE(it.value()[QLatin1String("maximum")].toDouble() * 1024, double(INT32_MAX));
            }
        }
    }
    EXPECT_EQ(names, (QStringList{"get_state", "get_torrent_details", "preview_torrent", "add_torrent", "torrent_action",
                                  "set_file_priority", "set_torrent_limits", "remove_torrent", "get_settings",
                                  "update_settings", "play_file", "control_player"}));

    const QByteArray id(40, 'a');
    const std::array<std::tuple<const char *, QByteArray, const char *>, 9> rows{{
        {"add_torrent", R"({"source":"/t/a.torrent","files":[0,0]})", "Invalid arguments.files"},
        {"torrent_action", R"({"id":")" + id + R"(","action":"delete"})", "Invalid arguments.action"},
        // The levels the files report gives, and no other.
        {"set_file_priority", R"({"id":")" + id + R"(","files":[1],"priority":4})", "ok"},
        {"set_file_priority", R"({"id":")" + id + R"(","files":[1],"priority":7.0})", "ok"},
        {"set_file_priority", R"({"id":")" + id + R"(","files":[1],"priority":3})", "Invalid arguments.priority"},
        {"set_file_priority", R"({"id":")" + id + R"(","files":[1],"priority":"4"})", "Invalid arguments.priority"},
        {"set_torrent_limits", R"({"id":")" + id + R"(","upload_kib":2097152})", "Invalid arguments.upload_kib"},
        {"update_settings", R"({"subtitle_mode":"sometimes"})", "Invalid arguments.subtitle_mode"},
        {"control_player", R"({"action":"speed","value":4})", "ok"},
    }};
    for (const auto &[tool, arguments, expected] : rows) {
        SCOPED_TRACE(arguments.toStdString());
        EXPECT_EQ(message(AutomationCatalog::validate(QString::fromLatin1(tool), object(arguments))), expected);
    }
}
