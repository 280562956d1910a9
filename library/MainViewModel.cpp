#include "library/MainViewModel.h"

#include "engine/TorrentEngine.h"
#include "library/LibraryRules.h"
#include "library/PatternCover.h"
#include "library/TorrentDisplay.h"
#include "media/Format.h"
#include "media/MediaMatcher.h"
#include "playback/PlayerModel.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJSEngine>
#include <QRegularExpression>
#include <QUrl>

#include <algorithm>

namespace {

MainViewModel *g_shared = nullptr;

template <typename E>
QStringList rawValues()
{
    QStringList values;
    for (const E value : allCases<E>())
        values << rawValue(value);
    return values;
}

// The table's columns in their order and the key each sorts by.
constexpr TableSortKey ColumnKeys[] = {TableSortKey::name,  TableSortKey::size,         TableSortKey::progress,
                                       TableSortKey::added, TableSortKey::downloadRate, TableSortKey::added};

Qt::KeyboardModifiers modifiersOf(int bits)
{
    return Qt::KeyboardModifiers(QFlag(bits));
}

} // namespace

MainViewModel::MainViewModel(TorrentEngine *engine, PlayerModel *player, MainUIState *state, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_player(player)
    , m_state(state)
    , m_torrents(new TorrentListModel(this))
    , m_table(new TorrentTableModel(m_torrents, this))
    , m_featuredModel(new QSortFilterProxyModel(this))
{
    m_featuredModel->setSourceModel(m_torrents);
    m_featuredModel->setFilterRole(TorrentListModel::IdRole);
    m_featuredModel->setFilterRegularExpression(QStringLiteral("^$"));
    if (m_engine) {
        connect(m_engine, &TorrentEngine::torrentsChanged, this, &MainViewModel::refresh);
        connect(m_engine, &TorrentEngine::sessionInfoChanged, this, &MainViewModel::rederive);
        connect(m_engine, &TorrentEngine::settingsUpdated, this, &MainViewModel::rederive);
        connect(m_engine, &TorrentEngine::toastChanged, this, &MainViewModel::rederive);
        connect(m_engine, &TorrentEngine::focusRequestChanged, this, &MainViewModel::focusRequested);
    }
    connect(m_state, &MainUIState::filterChanged, this, &MainViewModel::refresh);
    connect(m_state, &MainUIState::searchChanged, this, &MainViewModel::refresh);
    connect(m_state, &MainUIState::preferencesChanged, this, &MainViewModel::refresh);
    connect(m_state, &MainUIState::tableSortChanged, this, &MainViewModel::refresh);
    connect(m_state, &MainUIState::selectionChanged, this, &MainViewModel::selectionChanged);
    connect(m_state, &MainUIState::showDetailsChanged, this, &MainViewModel::rederive);
    connect(m_state, &MainUIState::showSettingsChanged, this, &MainViewModel::rederive);
    connect(m_state, &MainUIState::openedTorrentIDChanged, this, [this] {
        // A torrent's contents screen replaces the offers page.
        if (!m_state->openedTorrentID().isEmpty())
            setOffersPresented(false);
        rederive();
    });
    refresh();
    focusRequested();
}

MainViewModel *MainViewModel::shared()
{
    if (!g_shared)
        g_shared = new MainViewModel(TorrentEngine::shared(), PlayerModel::shared(), MainUIState::shared());
    return g_shared;
}

void MainViewModel::install(MainViewModel *model)
{
    g_shared = model;
}

MainViewModel *MainViewModel::create(QQmlEngine *qml, QJSEngine *)
{
    MainViewModel *model = shared();
    // Covers are drawn for whichever engine shows the library; the first use of the model in
    // an engine is before any of its images is asked for.
    if (qml && !qml->imageProvider(QStringLiteral("pattern")))
        qml->addImageProvider(QStringLiteral("pattern"), new PatternCoverProvider);
    // The program owns it; the QML engine must not delete it with itself.
    QJSEngine::setObjectOwnership(model, QJSEngine::CppOwnership);
    return model;
}

TorrentEngine *MainViewModel::engine() const
{
    return m_engine;
}

void MainViewModel::refresh()
{
    QElapsedTimer took;
    took.start();
    m_visible = m_state->visible();
    m_torrents->setTorrents(m_visible);
    // Reconciling may change the selection, which updates the rows' selected role.
    m_state->reconcileSelection();
    m_torrents->setSelection(m_state->selection());
    rederive();
    m_lastRefreshMicroseconds = took.nsecsElapsed() / 1000;
}

void MainViewModel::selectionChanged()
{
    m_torrents->setSelection(m_state->selection());
    rederive();
}

void MainViewModel::rederive()
{
    const QList<TorrentStatus> all = m_engine ? m_engine->torrents() : QList<TorrentStatus>{};
    Derived next;
    next.mode = ::contentMode(m_offersPresented, m_state->showSettings(), m_state->openedTorrentID(), all);
    next.primary = primarySelection(m_state->selection(), m_visible).value_or(QString());
    next.inspector = ::showsInspector(next.mode, m_state->showDetails(), next.primary);
    next.empty = ::emptyState(static_cast<int>(all.size()), static_cast<int>(m_visible.size()));
    next.header = libraryHeader(m_state->filter(), m_visible, statusesOf(m_state->selection()));
    const auto featured = featuredTorrent(m_visible, m_state->selection(), m_state->preferences().layout,
                                          m_state->search(), m_state->showDetails());
    if (featured) {
        next.featured = *featured;
        const auto found = std::find_if(m_visible.begin(), m_visible.end(),
                                        [&featured](const TorrentStatus &t) { return t.id == *featured; });
        next.featuredLabel = ::featuredLabel(*found);
    }
    next.sums = transferSums(all);
    if (m_engine) {
        next.session = m_engine->sessionInfo();
        next.toast = m_engine->toast();
        next.altSpeed = m_engine->settings().altSpeedEnabled;
    }
    next.preferences = m_state->preferences();
    next.tableSort = m_state->tableSort();
    for (const TorrentFilter filter : allCases<TorrentFilter>())
        next.counts.insert(rawValue(filter), ::filterCount(all, filter));
    next.filter = m_state->filter();
    if (next == m_derived)
        return;
    if (next.featured != m_derived.featured) {
        m_featuredModel->setFilterRegularExpression(
            QStringLiteral("^") + QRegularExpression::escape(next.featured) + QStringLiteral("$"));
    }
    m_derived = next;
    ++m_revision;
    emit changed();
}

void MainViewModel::focusRequested()
{
    if (!m_engine || m_engine->focusRequest().isEmpty())
        return;
    const QString id = m_engine->focusRequest();
    m_state->select(id);
    m_state->setTab(DetailTab::files);
    m_state->setShowDetails(true);
    m_engine->setFocusRequest(QString());
}

QList<TorrentStatus> MainViewModel::statusesOf(const QSet<QString> &ids) const
{
    QList<TorrentStatus> statuses;
    if (!m_engine || ids.isEmpty())
        return statuses;
    for (const TorrentStatus &t : m_engine->torrents()) {
        if (ids.contains(t.id))
            statuses << t;
    }
    return statuses;
}

void MainViewModel::setOffersPresented(bool value)
{
    if (value == m_offersPresented)
        return;
    m_offersPresented = value;
    rederive();
}

QString MainViewModel::emptyState() const
{
    switch (m_derived.empty) {
    case EmptyState::none:
        return QStringLiteral("none");
    case EmptyState::noMatches:
        return QStringLiteral("noMatches");
    case EmptyState::emptyLibrary:
        break;
    }
    return QStringLiteral("emptyLibrary");
}

QString MainViewModel::emptyTitle() const
{
    switch (m_derived.empty) {
    case EmptyState::noMatches:
        return QStringLiteral("Ничего не найдено");
    case EmptyState::emptyLibrary:
        return QStringLiteral("Медиатека пуста");
    case EmptyState::none:
        break;
    }
    return QString();
}

bool MainViewModel::sortMenuVisible() const
{
    return m_derived.preferences.layout != LibraryLayout::table;
}

QString MainViewModel::sortHelp() const
{
    return QStringLiteral("Сортировка: ") + title(m_derived.preferences.sort);
}

QString MainViewModel::detailsHelp() const
{
    return m_state->showDetails() ? QStringLiteral("Скрыть сведения") : QStringLiteral("Показать файлы и сведения");
}

int MainViewModel::featuredRow() const
{
    return m_derived.featured.isEmpty() ? -1 : m_torrents->rowOf(m_derived.featured);
}

QStringList MainViewModel::filterValues() const { return rawValues<TorrentFilter>(); }
QStringList MainViewModel::sortValues() const { return rawValues<LibrarySort>(); }
QStringList MainViewModel::layoutValues() const { return rawValues<LibraryLayout>(); }

int MainViewModel::sortColumn() const
{
    if (m_derived.tableSort.isEmpty())
        return -1;
    const TableSortKey key = m_derived.tableSort.constFirst().key;
    for (int column = 0; column < static_cast<int>(std::size(ColumnKeys)); ++column) {
        if (ColumnKeys[column] == key)
            return column;
    }
    return -1;
}

bool MainViewModel::sortAscending() const
{
    return !m_derived.tableSort.isEmpty() && m_derived.tableSort.constFirst().ascending;
}

QString MainViewModel::downloadingText() const
{
    return QStringLiteral("Загрузка: %1").arg(m_derived.sums.downloading);
}

QString MainViewModel::downloadRateText() const
{
    return Format::bytes(m_derived.sums.downloadRate) + QStringLiteral("/с");
}

QString MainViewModel::uploadRateText() const
{
    return Format::bytes(m_derived.sums.uploadRate) + QStringLiteral("/с");
}

QString MainViewModel::peersText() const
{
    return QString::number(m_derived.sums.peers);
}

QString MainViewModel::remainingText() const
{
    return QStringLiteral("Осталось: ") + Format::duration(m_derived.sums.secondsLeft);
}

bool MainViewModel::altSpeedEnabled() const { return m_derived.altSpeed; }
bool MainViewModel::transferCollapsed() const { return m_derived.preferences.transferDetailsCollapsed; }

QString MainViewModel::transferToggleHelp() const
{
    return transferCollapsed() ? QStringLiteral("Развернуть сведения о загрузках")
                               : QStringLiteral("Свернуть сведения о загрузках");
}

QString MainViewModel::shieldSymbol() const
{
    return m_derived.session.incoming ? QStringLiteral("checkmark.shield") : QStringLiteral("shield");
}

QString MainViewModel::dhtText() const
{
    return QStringLiteral("DHT %1").arg(m_derived.session.dhtNodes);
}

QString MainViewModel::bannedText() const
{
    return m_derived.session.banned > 0 ? QStringLiteral("Заблокировано: %1").arg(m_derived.session.banned) : QString();
}

QString MainViewModel::portText() const { return ::portText(m_derived.session.listening); }
QString MainViewModel::listenSummary() const { return ::listenSummary(m_derived.session.listening).join(QStringLiteral(", ")); }
QString MainViewModel::listenErrors() const { return m_derived.session.listenErrors.join(QStringLiteral("; ")); }
QString MainViewModel::toast() const { return m_derived.toast; }

QString MainViewModel::removalTitle() const
{
    return ::removalTitle(m_pendingRemoval, m_engine ? m_engine->torrents() : QList<TorrentStatus>{});
}

void MainViewModel::setLimitsTarget(const QString &id)
{
    if (id == m_limitsTarget)
        return;
    m_limitsTarget = id;
    ++m_revision;
    emit changed();
}

void MainViewModel::setShowAddMenu(bool value)
{
    if (value == m_showAddMenu)
        return;
    m_showAddMenu = value;
    ++m_revision;
    emit changed();
}

QString MainViewModel::filterTitle(const QString &raw) const
{
    const auto value = fromRaw<TorrentFilter>(raw);
    return value ? title(*value) : QString();
}

QString MainViewModel::filterSymbol(const QString &raw) const
{
    const auto value = fromRaw<TorrentFilter>(raw);
    return value ? symbol(*value) : QString();
}

int MainViewModel::filterCount(const QString &raw) const
{
    return m_derived.counts.value(raw);
}

bool MainViewModel::filterCurrent(const QString &raw) const
{
    return rawValue(m_derived.filter) == raw && !m_state->showSettings() && m_derived.mode != ContentMode::contents;
}

QString MainViewModel::sortTitle(const QString &raw) const
{
    const auto value = fromRaw<LibrarySort>(raw);
    return value ? title(*value) : QString();
}

QString MainViewModel::layoutTitle(const QString &raw) const
{
    const auto value = fromRaw<LibraryLayout>(raw);
    return value ? title(*value) : QString();
}

QString MainViewModel::layoutSymbol(const QString &raw) const
{
    const auto value = fromRaw<LibraryLayout>(raw);
    return value ? symbol(*value) : QString();
}

QString MainViewModel::layoutShortcut(const QString &raw) const
{
    const auto value = fromRaw<LibraryLayout>(raw);
    return value ? shortcut(*value) : QString();
}

void MainViewModel::chooseFilter(const QString &raw)
{
    const auto value = fromRaw<TorrentFilter>(raw);
    if (!value)
        return;
    m_state->setFilter(*value);
    m_state->setShowSettings(false);
    m_state->setOpenedTorrentID(QString());
    setOffersPresented(false);
}

void MainViewModel::chooseLayout(const QString &raw)
{
    if (const auto value = fromRaw<LibraryLayout>(raw)) {
        LibraryPreferences next = m_state->preferences();
        next.layout = *value;
        m_state->setPreferences(next);
    }
}

void MainViewModel::chooseSort(const QString &raw)
{
    if (const auto value = fromRaw<LibrarySort>(raw)) {
        LibraryPreferences next = m_state->preferences();
        next.sort = *value;
        m_state->setPreferences(next);
    }
}

void MainViewModel::sortByColumn(int column)
{
    if (column < 0 || column >= static_cast<int>(std::size(ColumnKeys)))
        return;
    const TableSortKey key = ColumnKeys[column];
    QList<TableSortColumn> order = m_state->tableSort();
    // The clicked column leads; clicking the leading column again turns its direction.
    bool ascending = key == TableSortKey::name;
    if (!order.isEmpty() && order.constFirst().key == key)
        ascending = !order.constFirst().ascending;
    order.erase(std::remove_if(order.begin(), order.end(), [key](const TableSortColumn &c) { return c.key == key; }),
                order.end());
    order.prepend(TableSortColumn{key, ascending});
    m_state->setTableSort(order);
}

void MainViewModel::openSettings()
{
    m_state->setShowSettings(true);
    setOffersPresented(false);
}

void MainViewModel::toggleAltSpeed()
{
    if (!m_engine)
        return;
    AppSettings settings = m_engine->settings();
    settings.altSpeedEnabled = !settings.altSpeedEnabled;
    m_engine->setSettings(settings);
}

void MainViewModel::toggleDetails()
{
    if (m_state->showDetails())
        m_state->setShowDetails(false);
    else if (detailsEnabled())
        m_state->setShowDetails(true);
}

void MainViewModel::showAll()
{
    m_state->setSearch(QString());
    m_state->setFilter(TorrentFilter::all);
}

void MainViewModel::escape()
{
    if (!m_state->search().isEmpty())
        m_state->setSearch(QString());
    else if (!m_state->openedTorrentID().isEmpty())
        m_state->setOpenedTorrentID(QString());
    else if (m_state->showSettings())
        m_state->setShowSettings(false);
}

void MainViewModel::resumeSelected()
{
    if (m_engine)
        m_engine->resume(QStringList(m_state->selection().begin(), m_state->selection().end()));
}

void MainViewModel::pauseSelected()
{
    if (m_engine)
        m_engine->pause(QStringList(m_state->selection().begin(), m_state->selection().end()));
}

void MainViewModel::removeSelected()
{
    if (m_state->selection().isEmpty())
        return;
    QStringList ids(m_state->selection().begin(), m_state->selection().end());
    ids.sort();
    m_pendingRemoval = ids;
    m_showRemoval = true;
    ++m_revision;
    emit changed();
}

void MainViewModel::selectItem(const QString &id, int modifiers)
{
    m_state->selectItem(id, modifiersOf(modifiers));
}

void MainViewModel::tableClick(const QString &id, int modifiers)
{
    const ClickOutcome outcome = clickSelection(m_state->selection(), m_state->selectionAnchor(), id,
                                                modifiersOf(modifiers), m_state->visibleIds());
    m_state->setSelection(outcome.selection);
    m_state->setSelectionAnchor(id);
}

void MainViewModel::keySelect(const QString &id, bool extend)
{
    if (extend) {
        tableClick(id, Qt::ShiftModifier);
        return;
    }
    m_state->setSelection({id});
    m_state->setSelectionAnchor(id);
}

void MainViewModel::selectAll()
{
    const QStringList ids = m_state->visibleIds();
    m_state->setSelection(QSet<QString>(ids.begin(), ids.end()));
}

void MainViewModel::play(const QString &id)
{
    playDefault(id);
}

QCoro::Task<void> MainViewModel::playDefault(QString id)
{
    if (!m_engine)
        co_return;
    QPointer<MainViewModel> self(this);
    auto listing = m_engine->files(id);
    const QList<TorrentFile> files = co_await std::move(listing);
    if (!self || !m_engine)
        co_return;
    const QList<TorrentFile> videos = MediaMatcher::videos(files);
    const auto meta = m_engine->meta().value(id);
    const auto target = playTarget(videos, meta.lastPlayedFile);
    if (!target) {
        m_engine->reveal(id, -1);
        co_return;
    }
    emit windowRequested(QStringLiteral("player"));
    if (PlayerModel *player = m_player) {
        auto opening = player->open(id, *target);
        co_await std::move(opening);
    }
}

void MainViewModel::togglePause(const QString &id)
{
    if (!m_engine)
        return;
    const auto t = m_engine->torrent(id);
    // A torrent whose files went missing reads "Перезапустить" whatever its pause flag says,
    // and the button does what it reads.
    if (t && t->state == QLatin1String("missing"))
        m_engine->resume({id});
    else
        m_engine->togglePause(id);
}

void MainViewModel::inspect(const QString &id)
{
    m_state->inspect(id);
}

void MainViewModel::details(const QString &id)
{
    m_state->inspect(id);
    m_state->setShowDetails(true);
}

void MainViewModel::askRemoval(const QString &id)
{
    QSet<QString> ids = m_state->selection();
    if (ids.isEmpty() && !id.isEmpty())
        ids = {id};
    if (ids.isEmpty())
        return;
    QStringList list(ids.begin(), ids.end());
    list.sort();
    m_pendingRemoval = list;
    m_showRemoval = true;
    ++m_revision;
    emit changed();
}

QVariantList MainViewModel::contextMenu(const QString &id) const
{
    QVariantList items;
    for (const MenuItem &item : contextMenuItems(statusesOf(m_state->contextSelection(id)))) {
        items << QVariantMap{
            {QStringLiteral("text"), item.text},
            {QStringLiteral("command"), item.command},
            {QStringLiteral("submenu"), item.submenu},
            {QStringLiteral("checkable"), item.checkable},
            {QStringLiteral("checked"), item.checked},
        };
    }
    return items;
}

void MainViewModel::runCommand(const QString &id, const QString &command)
{
    const QSet<QString> set = m_state->contextSelection(id);
    QStringList ids(set.begin(), set.end());
    ids.sort();
    if (command == QLatin1String("open")) {
        inspect(id);
    } else if (command == QLatin1String("details")) {
        details(id);
    } else if (command == QLatin1String("resume")) {
        if (m_engine)
            m_engine->resume(ids);
    } else if (command == QLatin1String("pause")) {
        if (m_engine)
            m_engine->pause(ids);
    } else if (command == QLatin1String("limits")) {
        setLimitsTarget(id);
    } else if (command == QLatin1String("move")) {
        emit moveRequested(id);
    } else if (command == QLatin1String("reveal")) {
        if (m_engine)
            m_engine->reveal(id, -1);
    } else if (command == QLatin1String("remove")) {
        m_pendingRemoval = ids;
        m_showRemoval = true;
        ++m_revision;
        emit changed();
    } else if (m_engine) {
        // The rest are the engine's own action words.
        m_engine->action(command, ids);
    }
}

void MainViewModel::confirmRemoval(bool deleteFiles)
{
    const QStringList ids = m_pendingRemoval;
    m_pendingRemoval.clear();
    m_showRemoval = false;
    ++m_revision;
    emit changed();
    if (m_engine && !ids.isEmpty())
        m_engine->remove(ids, deleteFiles);
}

void MainViewModel::cancelRemoval()
{
    m_pendingRemoval.clear();
    m_showRemoval = false;
    ++m_revision;
    emit changed();
}

void MainViewModel::move(const QString &id, const QString &folder)
{
    if (!m_engine || id.isEmpty() || folder.isEmpty())
        return;
    const QUrl url(folder);
    const QString path = url.isLocalFile() ? url.toLocalFile() : folder;
    // Runs on the engine's queue and ends in a status round of its own.
    m_engine->moveStorage(id, QDir::cleanPath(path));
}

void MainViewModel::openTorrentFile(const QString &fileUrl)
{
    setShowAddMenu(false);
    const QUrl url(fileUrl);
    if (url.isValid() && !url.isEmpty())
        m_state->setAddURL(url.isLocalFile() ? url : QUrl::fromLocalFile(fileUrl));
}

void MainViewModel::openMagnet()
{
    setShowAddMenu(false);
    m_state->setShowMagnet(true);
}
