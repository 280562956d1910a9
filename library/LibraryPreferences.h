#pragma once

#include "engine/Storage.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

// The modes of the main window. Each case has a raw string, which is how library.json and the
// control routes spell it, so reordering a case never changes what a saved file means.

enum class TorrentFilter { all, downloading, seeding, completed, paused, active, errors };
enum class DetailTab { files, info, peers, trackers };
enum class LibrarySort { newest, name, progress, size };
enum class LibraryLayout { grid, list, table };
enum class SettingsPage { downloads, speed, network, player };

QString rawValue(TorrentFilter value);
QString rawValue(DetailTab value);
QString rawValue(LibrarySort value);
QString rawValue(LibraryLayout value);
QString rawValue(SettingsPage value);

// The Russian text a sidebar row, tab, menu item or settings page shows.
QString title(TorrentFilter value);
QString title(DetailTab value);
QString title(LibrarySort value);
QString title(LibraryLayout value);
QString title(SettingsPage value);

// Symbol names ("tray.full"); the view maps them to icon-theme names.
QString symbol(TorrentFilter value);
QString symbol(LibraryLayout value);
QString symbol(SettingsPage value);

// "Ctrl+1" .. "Ctrl+3".
QString shortcut(LibraryLayout value);

// None for a string that names no case; the comparison is exact.
template <typename E>
std::optional<E> fromRaw(const QString &raw);
template <>
std::optional<TorrentFilter> fromRaw<TorrentFilter>(const QString &raw);
template <>
std::optional<DetailTab> fromRaw<DetailTab>(const QString &raw);
template <>
std::optional<LibrarySort> fromRaw<LibrarySort>(const QString &raw);
template <>
std::optional<LibraryLayout> fromRaw<LibraryLayout>(const QString &raw);
template <>
std::optional<SettingsPage> fromRaw<SettingsPage>(const QString &raw);

// Every case in declaration order, which is also the order the sidebar and menus show.
template <typename E>
QList<E> allCases();
template <>
QList<TorrentFilter> allCases<TorrentFilter>();
template <>
QList<DetailTab> allCases<DetailTab>();
template <>
QList<LibrarySort> allCases<LibrarySort>();
template <>
QList<LibraryLayout> allCases<LibraryLayout>();
template <>
QList<SettingsPage> allCases<SettingsPage>();

// What the library remembers between launches; library.json holds it.
struct LibraryPreferences
{
    LibraryLayout layout = LibraryLayout::grid;
    LibrarySort sort = LibrarySort::newest;
    bool transferDetailsCollapsed = false;

    bool operator==(const LibraryPreferences &) const = default;

    // Each key may be missing and then keeps its default. A key that is there but holds a value
    // of the wrong type or an unknown raw string fails the whole decode: a file from a newer
    // version with a layout this one doesn't know is not half-applied.
    static std::optional<LibraryPreferences> fromJson(const QJsonObject &json);
    QJsonObject toJson() const;

    // The file's contents, or the defaults when it is missing or doesn't decode.
    static LibraryPreferences load(const QString &filePath);
    // Atomic; a failure keeps the old file and says why.
    std::optional<Storage::SaveError> save(const QString &filePath) const;
};
