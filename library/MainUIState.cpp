#include "library/MainUIState.h"

#include "engine/Storage.h"
#include "engine/TorrentEngine.h"

#include <QDir>
#include <QTimer>

#include <algorithm>

namespace {

MainUIState *g_shared = nullptr;

// Assigns and notifies only on a real change, so a screen bound to the field doesn't redraw for
// an assignment of the same value.
template <typename T, typename Signal>
void assign(MainUIState *state, T &field, const T &value, Signal signal)
{
    if (field == value)
        return;
    field = value;
    emit(state->*signal)();
}

} // namespace

MainUIState *MainUIState::shared()
{
    if (!g_shared)
        g_shared = new MainUIState(Storage::home(), TorrentEngine::shared());
    return g_shared;
}

MainUIState::MainUIState(const QString &home, TorrentEngine *engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_preferencesPath(QDir(home).filePath(QStringLiteral("library.json")))
    , m_preferences(loadPreferences())
{
    m_retrySave = new QTimer(this);
    m_retrySave->setSingleShot(true);
    m_retrySave->setInterval(5000);
    connect(m_retrySave, &QTimer::timeout, this, &MainUIState::savePreferences);
}

LibraryPreferences MainUIState::loadPreferences() const
{
    const Storage::ReadFile file = Storage::read(m_preferencesPath);
    const std::optional<LibraryPreferences> decoded = file.object ? LibraryPreferences::fromJson(*file.object) : std::nullopt;
    // A layout this build doesn't know, or a file it can't read, is kept for the user rather
    // than overwritten by the defaults at the first change.
    if (file.unreadable || (file.object && !decoded)) {
        Storage::setAside(m_preferencesPath);
        if (m_engine)
            m_engine->notify(Storage::setAsideNotice(m_preferencesPath));
    }
    return decoded.value_or(LibraryPreferences{});
}

void MainUIState::savePreferences()
{
    const auto failure = m_preferences.save(m_preferencesPath);
    if (m_engine)
        m_engine->reportSave(m_preferencesPath, failure);
    // Tried again later, so the choice reaches the disk once it has room even with no further
    // change; a change meanwhile saves at once anyway.
    if (failure)
        m_retrySave->start();
    else
        m_retrySave->stop();
}

void MainUIState::setFilter(TorrentFilter value) { assign(this, m_filter, value, &MainUIState::filterChanged); }
void MainUIState::setSelection(const QSet<QString> &value) { assign(this, m_selection, value, &MainUIState::selectionChanged); }
void MainUIState::setTab(DetailTab value) { assign(this, m_tab, value, &MainUIState::tabChanged); }
void MainUIState::setSearch(const QString &value) { assign(this, m_search, value, &MainUIState::searchChanged); }
void MainUIState::setAddURL(const QUrl &value) { assign(this, m_addURL, value, &MainUIState::addURLChanged); }
void MainUIState::setShowMagnet(bool value) { assign(this, m_showMagnet, value, &MainUIState::showMagnetChanged); }
void MainUIState::setMagnetText(const QString &value) { assign(this, m_magnetText, value, &MainUIState::magnetTextChanged); }
void MainUIState::setShowDetails(bool value) { assign(this, m_showDetails, value, &MainUIState::showDetailsChanged); }
void MainUIState::setShowSettings(bool value) { assign(this, m_showSettings, value, &MainUIState::showSettingsChanged); }
void MainUIState::setSettingsPage(SettingsPage value) { assign(this, m_settingsPage, value, &MainUIState::settingsPageChanged); }
void MainUIState::setOpenedTorrentID(const QString &value)
{
    assign(this, m_openedTorrentID, value, &MainUIState::openedTorrentIDChanged);
}
void MainUIState::setContentsAllFiles(bool value)
{
    assign(this, m_contentsAllFiles, value, &MainUIState::contentsAllFilesChanged);
}
void MainUIState::setContentsCompact(bool value)
{
    assign(this, m_contentsCompact, value, &MainUIState::contentsCompactChanged);
}
void MainUIState::setContentsQuery(const QString &value)
{
    assign(this, m_contentsQuery, value, &MainUIState::contentsQueryChanged);
}

void MainUIState::setTableSort(const QList<TableSortColumn> &columns)
{
    assign(this, m_tableSort, columns, &MainUIState::tableSortChanged);
}

void MainUIState::setPreferences(const LibraryPreferences &value)
{
    const bool changed = value != m_preferences;
    m_preferences = value;
    savePreferences();
    if (changed)
        emit preferencesChanged();
}

void MainUIState::toggleTransferDetails()
{
    LibraryPreferences next = m_preferences;
    next.transferDetailsCollapsed = !next.transferDetailsCollapsed;
    setPreferences(next);
}

void MainUIState::setFilterRaw(const QString &raw)
{
    if (const auto value = fromRaw<TorrentFilter>(raw))
        setFilter(*value);
}

QStringList MainUIState::selectionList() const
{
    QStringList ids(m_selection.begin(), m_selection.end());
    ids.sort();
    return ids;
}

void MainUIState::setSelectionList(const QStringList &ids)
{
    setSelection(QSet<QString>(ids.begin(), ids.end()));
}

void MainUIState::setTabRaw(const QString &raw)
{
    if (const auto value = fromRaw<DetailTab>(raw))
        setTab(*value);
}

void MainUIState::setSettingsPageRaw(const QString &raw)
{
    if (const auto value = fromRaw<SettingsPage>(raw))
        setSettingsPage(*value);
}

void MainUIState::setLayoutRaw(const QString &raw)
{
    if (const auto value = fromRaw<LibraryLayout>(raw)) {
        LibraryPreferences next = m_preferences;
        next.layout = *value;
        setPreferences(next);
    }
}

void MainUIState::setSortRaw(const QString &raw)
{
    if (const auto value = fromRaw<LibrarySort>(raw)) {
        LibraryPreferences next = m_preferences;
        next.sort = *value;
        setPreferences(next);
    }
}

QList<TorrentStatus> MainUIState::torrents() const
{
    return m_engine ? m_engine->torrents() : QList<TorrentStatus>{};
}

QList<TorrentStatus> MainUIState::visible() const
{
    return visibleTorrents(torrents(), LibraryQuery{m_filter, m_search, m_preferences.layout, m_preferences.sort,
                                                    m_tableSort});
}

QStringList MainUIState::visibleIds() const
{
    QStringList ids;
    for (const TorrentStatus &t : visible())
        ids << t.id;
    return ids;
}

QString MainUIState::primary() const
{
    return primarySelection(m_selection, visible()).value_or(QString());
}

int MainUIState::filterCount(const QString &filterRaw) const
{
    const auto value = fromRaw<TorrentFilter>(filterRaw);
    return value ? ::filterCount(torrents(), *value) : 0;
}

void MainUIState::select(const QString &id)
{
    setShowSettings(false);
    setOpenedTorrentID(QString());
    setFilter(TorrentFilter::all);
    setSelection({id});
}

void MainUIState::selectItem(const QString &id, Qt::KeyboardModifiers modifiers)
{
    const ClickOutcome outcome = clickSelection(m_selection, m_selectionAnchor, id, modifiers, visibleIds());
    setSelection(outcome.selection);
    if (outcome.opens) {
        setOpenedTorrentID(id);
        setShowDetails(false);
    }
    m_selectionAnchor = id;
}

void MainUIState::inspect(const QString &id)
{
    setSelection({id});
    setOpenedTorrentID(id);
    setShowDetails(false);
}

QSet<QString> MainUIState::contextSelection(const QString &id) const
{
    if (m_selection.contains(id))
        return m_selection;
    return {id};
}

void MainUIState::reconcileSelection()
{
    const QStringList shown = visibleIds();
    QSet<QString> kept;
    for (const QString &id : m_selection) {
        if (shown.contains(id))
            kept.insert(id);
    }
    setSelection(kept);
    if (kept.isEmpty())
        setShowDetails(false);
    if (!m_openedTorrentID.isEmpty()) {
        const QList<TorrentStatus> all = torrents();
        const bool known = std::any_of(all.begin(), all.end(),
                                       [this](const TorrentStatus &t) { return t.id == m_openedTorrentID; });
        if (!known)
            setOpenedTorrentID(QString());
    }
}
