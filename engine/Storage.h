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

// Why a save did not reach the disk: the errno of the step that failed and its text.
struct SaveError
{
    int code = 0;
    QString message;
    bool operator==(const SaveError &) const = default;
};

// Writes an object or array as indented JSON with sorted keys. Parent directories are created.
// The file is replaced whole or not at all (a temporary file beside it, flushed to disk, then
// renamed over it): on any failure, including a value that is neither an object nor an array,
// the old file stays, because a lost save only costs the latest change while a half-written
// file would cost all of it. The answer says what went wrong, or none when the file is saved.
std::optional<SaveError> save(const QJsonValue &value, const QString &filePath);
std::optional<SaveError> save(const QJsonObject &object, const QString &filePath);

// The object in a file; none when the file is missing, empty, not JSON or not an object.
std::optional<QJsonObject> load(const QString &filePath);

// A file as read at start. `unreadable` is set when there is something on disk that holds no
// JSON object (bad JSON, another kind of value, bytes that can't be read): the caller sets it
// aside before a default takes its place.
struct ReadFile
{
    std::optional<QJsonObject> object;
    bool unreadable = false;
};
ReadFile read(const QString &filePath);

// Renames a file that could not be used to "<name>.unreadable-<UTC time>" beside it, so that a
// save of the defaults can never overwrite what the user had. Returns the new path, or an empty
// text when the rename failed.
QString setAside(const QString &filePath);

// The toast for a file that was set aside: "Не удалось прочитать settings.json: сохранена копия".
QString setAsideNotice(const QString &filePath);
// The toast for a failed save: "Не удалось сохранить settings.json: нет места на диске".
QString saveFailureNotice(const QString &filePath, const SaveError &error);

} // namespace Storage
