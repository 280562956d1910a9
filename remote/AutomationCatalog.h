#pragma once

#include "remote/AutomationError.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

// The tools an agent may call and the checks their arguments pass before anything happens.
//
// The descriptions live in "tools.json" in the program's resource directory: one JSON array of
// objects, each with a `name` and an `inputSchema`, plus free text for the agent. The schemas
// use a small, strict subset of JSON Schema, enforced here and nowhere else:
//
// - every schema has a `type`: "object", "string", "boolean", "integer", "number" or "array";
// - an object lists its `properties`, and a key not listed there is refused whatever the
//   schema says about additional properties, so no argument reaches a tool unannounced;
// - texts are at most 8192 characters unless `maxLength` says otherwise, and never hold a
//   control character: an agent's text may end in a file name or a log line;
// - arrays have `items` and at most 10000 of them unless `maxItems` says otherwise;
// - `enum`, `required`, `minimum`, `maximum`, `minLength`, `minItems`, `uniqueItems` as usual.
//
// A failure names only where the fault is ("Invalid arguments.files[]"), not why: the schema in
// the agent's tool list tells the why. A schema that breaks these rules fails every value.
//
// Main thread; pure but for the one read of the file.
namespace AutomationCatalog {

// The tool descriptions, read at first use from toolsFile(). A missing or unreadable file, or
// one that isn't an array of objects, gives none, and then every tool is unknown.
const QJsonArray &tools();

// <directory of the executable>/../share/velix/tools.json, unless useToolsFile() said otherwise.
QString toolsFile();
// Reads the descriptions from another file from now on (tests, and builds that ship the file
// elsewhere); what was read before is dropped.
void useToolsFile(const QString &path);

// The descriptions in a file's text: the array when it is one of objects only, else empty.
QJsonArray parseTools(const QByteArray &json);

// Checks a call against tools(): "Unknown tool: <name>" when no entry has that name and an
// object schema, otherwise the first fault found in the arguments. None when the call is fine.
std::optional<AutomationError> validate(const QString &name, const QJsonObject &arguments);
// The same against a given list of descriptions.
std::optional<AutomationError> validate(const QJsonArray &tools, const QString &name, const QJsonObject &arguments);
// Checks one value against one schema; `path` names the value in the error ("arguments").
std::optional<AutomationError> validate(const QJsonValue &value, const QJsonObject &schema, const QString &path);

// True when the text holds a character of the Unicode control category (C0, DEL, C1).
bool hasControlCharacter(const QString &text);

// The limits that hold when a schema doesn't state its own.
inline constexpr qsizetype DefaultMaxLength = 8192;
inline constexpr qsizetype DefaultMaxItems = 10000;

} // namespace AutomationCatalog
