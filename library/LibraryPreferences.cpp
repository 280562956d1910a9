#include "library/LibraryPreferences.h"

#include "engine/Storage.h"

#include <array>

namespace {

template <typename E>
struct CaseText
{
    E value;
    const char *raw;
    const char *title;
    const char *symbol;
};

constexpr std::array<CaseText<TorrentFilter>, 7> FilterCases{{
    {TorrentFilter::all, "all", "Медиатека", "tray.full"},
    {TorrentFilter::downloading, "downloading", "Загружаются", "arrow.down.circle"},
    {TorrentFilter::seeding, "seeding", "Раздаются", "arrow.up.circle"},
    {TorrentFilter::completed, "completed", "Завершённые", "checkmark.circle"},
    {TorrentFilter::paused, "paused", "На паузе", "pause.circle"},
    {TorrentFilter::active, "active", "Активные", "bolt.horizontal.circle"},
    {TorrentFilter::errors, "errors", "С ошибками", "exclamationmark.triangle"},
}};

constexpr std::array<CaseText<DetailTab>, 4> TabCases{{
    {DetailTab::files, "files", "Файлы", ""},
    {DetailTab::info, "info", "Общее", ""},
    {DetailTab::peers, "peers", "Пиры", ""},
    {DetailTab::trackers, "trackers", "Трекеры", ""},
}};

constexpr std::array<CaseText<LibrarySort>, 4> SortCases{{
    {LibrarySort::newest, "newest", "Сначала новые", ""},
    {LibrarySort::name, "name", "По названию", ""},
    {LibrarySort::progress, "progress", "По прогрессу", ""},
    {LibrarySort::size, "size", "По размеру", ""},
}};

constexpr std::array<CaseText<LibraryLayout>, 3> LayoutCases{{
    {LibraryLayout::grid, "grid", "Плитка", "square.grid.2x2"},
    {LibraryLayout::list, "list", "Список", "list.bullet"},
    {LibraryLayout::table, "table", "Таблица", "tablecells"},
}};

constexpr std::array<CaseText<SettingsPage>, 4> PageCases{{
    {SettingsPage::downloads, "downloads", "Загрузки", "arrow.down.circle"},
    {SettingsPage::speed, "speed", "Скорость", "speedometer"},
    {SettingsPage::network, "network", "Сеть", "network"},
    {SettingsPage::player, "player", "Воспроизведение", "play.rectangle"},
}};

template <typename E, std::size_t N>
const CaseText<E> &caseOf(const std::array<CaseText<E>, N> &cases, E value)
{
    for (const auto &c : cases) {
        if (c.value == value)
            return c;
    }
    return cases.front();
}

template <typename E, std::size_t N>
std::optional<E> parse(const std::array<CaseText<E>, N> &cases, const QString &raw)
{
    for (const auto &c : cases) {
        if (raw == QLatin1String(c.raw))
            return c.value;
    }
    return std::nullopt;
}

template <typename E, std::size_t N>
QList<E> valuesOf(const std::array<CaseText<E>, N> &cases)
{
    QList<E> values;
    for (const auto &c : cases)
        values << c.value;
    return values;
}

// One key of library.json: absent keeps the field's default, present must be a known raw string.
template <typename E, std::size_t N>
bool readCase(const QJsonObject &json, const char *key, const std::array<CaseText<E>, N> &cases, E &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isUndefined())
        return true;
    if (!value.isString())
        return false;
    const auto parsed = parse(cases, value.toString());
    if (!parsed)
        return false;
    field = *parsed;
    return true;
}

} // namespace

QString rawValue(TorrentFilter value) { return QLatin1String(caseOf(FilterCases, value).raw); }
QString rawValue(DetailTab value) { return QLatin1String(caseOf(TabCases, value).raw); }
QString rawValue(LibrarySort value) { return QLatin1String(caseOf(SortCases, value).raw); }
QString rawValue(LibraryLayout value) { return QLatin1String(caseOf(LayoutCases, value).raw); }
QString rawValue(SettingsPage value) { return QLatin1String(caseOf(PageCases, value).raw); }

QString title(TorrentFilter value) { return QString::fromUtf8(caseOf(FilterCases, value).title); }
QString title(DetailTab value) { return QString::fromUtf8(caseOf(TabCases, value).title); }
QString title(LibrarySort value) { return QString::fromUtf8(caseOf(SortCases, value).title); }
QString title(LibraryLayout value) { return QString::fromUtf8(caseOf(LayoutCases, value).title); }
QString title(SettingsPage value) { return QString::fromUtf8(caseOf(PageCases, value).title); }

QString symbol(TorrentFilter value) { return QLatin1String(caseOf(FilterCases, value).symbol); }
QString symbol(LibraryLayout value) { return QLatin1String(caseOf(LayoutCases, value).symbol); }
QString symbol(SettingsPage value) { return QLatin1String(caseOf(PageCases, value).symbol); }

QString shortcut(LibraryLayout value)
{
    return QStringLiteral("Ctrl+%1").arg(static_cast<int>(value) + 1);
}

template <>
std::optional<TorrentFilter> fromRaw<TorrentFilter>(const QString &raw) { return parse(FilterCases, raw); }
template <>
std::optional<DetailTab> fromRaw<DetailTab>(const QString &raw) { return parse(TabCases, raw); }
template <>
std::optional<LibrarySort> fromRaw<LibrarySort>(const QString &raw) { return parse(SortCases, raw); }
template <>
std::optional<LibraryLayout> fromRaw<LibraryLayout>(const QString &raw) { return parse(LayoutCases, raw); }
template <>
std::optional<SettingsPage> fromRaw<SettingsPage>(const QString &raw) { return parse(PageCases, raw); }

template <>
QList<TorrentFilter> allCases<TorrentFilter>() { return valuesOf(FilterCases); }
template <>
QList<DetailTab> allCases<DetailTab>() { return valuesOf(TabCases); }
template <>
QList<LibrarySort> allCases<LibrarySort>() { return valuesOf(SortCases); }
template <>
QList<LibraryLayout> allCases<LibraryLayout>() { return valuesOf(LayoutCases); }
template <>
QList<SettingsPage> allCases<SettingsPage>() { return valuesOf(PageCases); }

std::optional<LibraryPreferences> LibraryPreferences::fromJson(const QJsonObject &json)
{
    LibraryPreferences result;
    if (!readCase(json, "layout", LayoutCases, result.layout) || !readCase(json, "sort", SortCases, result.sort))
        return std::nullopt;
    const QJsonValue collapsed = json.value(QLatin1String("transferDetailsCollapsed"));
    if (!collapsed.isUndefined()) {
        if (!collapsed.isBool())
            return std::nullopt;
        result.transferDetailsCollapsed = collapsed.toBool();
    }
    return result;
}

QJsonObject LibraryPreferences::toJson() const
{
    return QJsonObject{
        {QStringLiteral("layout"), rawValue(layout)},
        {QStringLiteral("sort"), rawValue(sort)},
        {QStringLiteral("transferDetailsCollapsed"), transferDetailsCollapsed},
    };
}

LibraryPreferences LibraryPreferences::load(const QString &filePath)
{
    const auto json = Storage::load(filePath);
    if (!json)
        return {};
    return fromJson(*json).value_or(LibraryPreferences{});
}

std::optional<Storage::SaveError> LibraryPreferences::save(const QString &filePath) const
{
    return Storage::save(toJson(), filePath);
}
