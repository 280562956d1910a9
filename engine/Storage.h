#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

// The data directory and safe reading and writing of the JSON records kept in it.
namespace Storage {

// The data directory: VELIX_HOME when set and not empty, else "Velix" in the user's data
// directory ($XDG_DATA_HOME, usually ~/.local/share). Worked out at the first call and kept, so
// that a change of the environment later in the run can't split the files between two places.
QString home();
// What home() would answer now, without the cache.
QString resolveHome();
// home() joined with a relative path ("settings.json", "state").
QString path(const QString &relative);

// Writes an object or array as indented JSON with sorted keys. Parent directories are created.
// The file is replaced whole or not at all: on any failure, including a value that is neither an
// object nor an array, the old file stays and nothing is reported, because a lost save only
// costs the latest change while a half-written file would cost all of it.
void save(const QJsonValue &value, const QString &filePath);
void save(const QJsonObject &object, const QString &filePath);

// The object in a file; none when the file is missing, empty, not JSON or not an object.
std::optional<QJsonObject> load(const QString &filePath);

} // namespace Storage
