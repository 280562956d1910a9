#pragma once

#include "library/LibraryScreen.h"
#include "library/MainUIState.h"
#include "library/TorrentListModel.h"

#include <QObject>
#include <QPointer>
#include <QSortFilterProxyModel>
#include <QQmlEngine>
#include <QStringList>
#include <QVariantList>

#include <QCoroTask>

class PlayerModel;
class TorrentEngine;

// What the main window binds to beyond MainUIState: the texts, counts and menus derived from
// the published torrents, the window's own small state (the table's sort, the removal being
// confirmed, the limits target, the add menu), and every action of the library screens as a
// call. The view decides nothing; it shows these and calls these. Main thread only.
class MainViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

    Q_PROPERTY(MainUIState *state READ state CONSTANT)
    Q_PROPERTY(TorrentListModel *torrents READ torrents CONSTANT)
    Q_PROPERTY(TorrentTableModel *table READ table CONSTANT)
    // The featured torrent's row alone, so the featured block reads the same roles as a card.
    Q_PROPERTY(QSortFilterProxyModel *featuredModel READ featuredModel CONSTANT)
    Q_PROPERTY(int revision READ revision NOTIFY changed)

    Q_PROPERTY(QString contentMode READ contentMode NOTIFY changed)
    Q_PROPERTY(bool showsInspector READ showsInspector NOTIFY changed)
    Q_PROPERTY(bool offersPresented READ offersPresented WRITE setOffersPresented NOTIFY changed)
    Q_PROPERTY(QString emptyState READ emptyState NOTIFY changed)
    Q_PROPERTY(QString emptyTitle READ emptyTitle NOTIFY changed)

    Q_PROPERTY(QString headerTitle READ headerTitle NOTIFY changed)
    Q_PROPERTY(QString countText READ countText NOTIFY changed)
    Q_PROPERTY(QString downloadedText READ downloadedText NOTIFY changed)
    Q_PROPERTY(bool hasSelection READ hasSelection NOTIFY changed)
    Q_PROPERTY(QString selectionText READ selectionText NOTIFY changed)
    Q_PROPERTY(QString resumeSelectedTitle READ resumeSelectedTitle NOTIFY changed)
    Q_PROPERTY(QString selectionHelp READ selectionHelp NOTIFY changed)
    Q_PROPERTY(bool sortMenuVisible READ sortMenuVisible NOTIFY changed)
    Q_PROPERTY(QString sortHelp READ sortHelp NOTIFY changed)
    Q_PROPERTY(bool detailsEnabled READ detailsEnabled NOTIFY changed)
    Q_PROPERTY(QString detailsHelp READ detailsHelp NOTIFY changed)
    Q_PROPERTY(QString primary READ primary NOTIFY changed)

    Q_PROPERTY(QString featuredId READ featuredId NOTIFY changed)
    Q_PROPERTY(int featuredRow READ featuredRow NOTIFY changed)
    Q_PROPERTY(QString featuredLabel READ featuredLabel NOTIFY changed)

    Q_PROPERTY(QStringList filterValues READ filterValues CONSTANT)
    Q_PROPERTY(QStringList sortValues READ sortValues CONSTANT)
    Q_PROPERTY(QStringList layoutValues READ layoutValues CONSTANT)
    Q_PROPERTY(QStringList columnTitles READ columnTitles CONSTANT)
    Q_PROPERTY(int sortColumn READ sortColumn NOTIFY changed)
    Q_PROPERTY(bool sortAscending READ sortAscending NOTIFY changed)

    Q_PROPERTY(QString downloadingText READ downloadingText NOTIFY changed)
    Q_PROPERTY(QString downloadRateText READ downloadRateText NOTIFY changed)
    Q_PROPERTY(QString uploadRateText READ uploadRateText NOTIFY changed)
    Q_PROPERTY(QString peersText READ peersText NOTIFY changed)
    Q_PROPERTY(QString remainingText READ remainingText NOTIFY changed)
    Q_PROPERTY(bool altSpeedEnabled READ altSpeedEnabled NOTIFY changed)
    Q_PROPERTY(bool transferCollapsed READ transferCollapsed NOTIFY changed)
    Q_PROPERTY(QString transferToggleHelp READ transferToggleHelp NOTIFY changed)
    Q_PROPERTY(QString shieldSymbol READ shieldSymbol NOTIFY changed)
    Q_PROPERTY(QString dhtText READ dhtText NOTIFY changed)
    Q_PROPERTY(QString bannedText READ bannedText NOTIFY changed)
    Q_PROPERTY(QString portText READ portText NOTIFY changed)
    Q_PROPERTY(QString listenSummary READ listenSummary NOTIFY changed)
    Q_PROPERTY(QString listenErrors READ listenErrors NOTIFY changed)
    Q_PROPERTY(QString toast READ toast NOTIFY changed)

    Q_PROPERTY(QStringList pendingRemoval READ pendingRemoval NOTIFY changed)
    Q_PROPERTY(bool showRemoval READ showRemoval NOTIFY changed)
    Q_PROPERTY(QString removalTitle READ removalTitle NOTIFY changed)
    Q_PROPERTY(QString limitsTarget READ limitsTarget WRITE setLimitsTarget NOTIFY changed)
    Q_PROPERTY(QString selectionAnchor READ selectionAnchor NOTIFY changed)
    Q_PROPERTY(bool showAddMenu READ showAddMenu WRITE setShowAddMenu NOTIFY changed)

public:
    MainViewModel(TorrentEngine *engine, PlayerModel *player, MainUIState *state, QObject *parent = nullptr);

    // The process-wide model over the process-wide engine, player and state, made at first use
    // unless one was installed before.
    static MainViewModel *shared();
    // Makes `model` the one QML gets; for a program or test that made its own engine.
    static void install(MainViewModel *model);
    static MainViewModel *create(QQmlEngine *, QJSEngine *);

    MainUIState *state() const { return m_state; }
    TorrentEngine *engine() const;
    TorrentListModel *torrents() const { return m_torrents; }
    TorrentTableModel *table() const { return m_table; }
    QSortFilterProxyModel *featuredModel() const { return m_featuredModel; }
    int revision() const { return m_revision; }

    QString contentMode() const { return contentModeName(m_derived.mode); }
    bool showsInspector() const { return m_derived.inspector; }
    bool offersPresented() const { return m_offersPresented; }
    void setOffersPresented(bool value);
    QString emptyState() const;
    QString emptyTitle() const;

    QString headerTitle() const { return m_derived.header.title; }
    QString countText() const { return m_derived.header.countText; }
    QString downloadedText() const { return m_derived.header.downloadedText; }
    bool hasSelection() const { return !m_derived.header.selectionText.isEmpty(); }
    QString selectionText() const { return m_derived.header.selectionText; }
    QString resumeSelectedTitle() const { return m_derived.header.resumeTitle; }
    QString selectionHelp() const { return m_derived.header.selectionHelp; }
    bool sortMenuVisible() const;
    QString sortHelp() const;
    bool detailsEnabled() const { return !m_derived.primary.isEmpty(); }
    QString detailsHelp() const;
    QString primary() const { return m_derived.primary; }

    QString featuredId() const { return m_derived.featured; }
    int featuredRow() const;
    QString featuredLabel() const { return m_derived.featuredLabel; }

    QStringList filterValues() const;
    QStringList sortValues() const;
    QStringList layoutValues() const;
    QStringList columnTitles() const { return TorrentTableModel::columnTitles(); }
    int sortColumn() const;
    bool sortAscending() const;

    QString downloadingText() const;
    QString downloadRateText() const;
    QString uploadRateText() const;
    QString peersText() const;
    QString remainingText() const;
    bool altSpeedEnabled() const;
    bool transferCollapsed() const;
    QString transferToggleHelp() const;
    QString shieldSymbol() const;
    QString dhtText() const;
    QString bannedText() const;
    QString portText() const;
    QString listenSummary() const;
    QString listenErrors() const;
    QString toast() const;

    QStringList pendingRemoval() const { return m_pendingRemoval; }
    bool showRemoval() const { return m_showRemoval; }
    QString removalTitle() const;
    QString limitsTarget() const { return m_limitsTarget; }
    void setLimitsTarget(const QString &id);
    QString selectionAnchor() const { return m_state->selectionAnchor().value_or(QString()); }
    bool showAddMenu() const { return m_showAddMenu; }
    void setShowAddMenu(bool value);

    // Texts of the constant lists, by raw value.
    Q_INVOKABLE QString filterTitle(const QString &raw) const;
    Q_INVOKABLE QString filterSymbol(const QString &raw) const;
    Q_INVOKABLE int filterCount(const QString &raw) const;
    // Bold in the sidebar: the current filter while the library itself shows.
    Q_INVOKABLE bool filterCurrent(const QString &raw) const;
    Q_INVOKABLE QString sortTitle(const QString &raw) const;
    Q_INVOKABLE QString layoutTitle(const QString &raw) const;
    Q_INVOKABLE QString layoutSymbol(const QString &raw) const;
    Q_INVOKABLE QString layoutShortcut(const QString &raw) const;

    // Sidebar and header.
    Q_INVOKABLE void chooseFilter(const QString &raw);
    Q_INVOKABLE void chooseLayout(const QString &raw);
    Q_INVOKABLE void chooseSort(const QString &raw);
    Q_INVOKABLE void sortByColumn(int column);
    Q_INVOKABLE void openSettings();
    Q_INVOKABLE void toggleAltSpeed();
    Q_INVOKABLE void toggleDetails();
    Q_INVOKABLE void showAll();
    // Escape: the search first, then a contents or settings screen.
    Q_INVOKABLE void escape();
    Q_INVOKABLE void resumeSelected();
    Q_INVOKABLE void pauseSelected();
    Q_INVOKABLE void removeSelected();

    // Cards, rows and lines.
    Q_INVOKABLE void selectItem(const QString &id, int modifiers);
    // A click in the table selects and never opens; a double click inspects.
    Q_INVOKABLE void tableClick(const QString &id, int modifiers);
    // The arrow keys: select the line reached, extending from the anchor with Shift.
    Q_INVOKABLE void keySelect(const QString &id, bool extend);
    Q_INVOKABLE void selectAll();
    Q_INVOKABLE void play(const QString &id);
    Q_INVOKABLE void togglePause(const QString &id);
    Q_INVOKABLE void inspect(const QString &id);
    Q_INVOKABLE void details(const QString &id);
    // Delete on the selection, or on `id` when nothing is selected.
    Q_INVOKABLE void askRemoval(const QString &id);

    // The context menu over `id`: a list of {text, command, submenu, checkable, checked}.
    Q_INVOKABLE QVariantList contextMenu(const QString &id) const;
    Q_INVOKABLE void runCommand(const QString &id, const QString &command);

    Q_INVOKABLE void confirmRemoval(bool deleteFiles);
    Q_INVOKABLE void cancelRemoval();
    // Moves the torrent's files to `folder` (a local URL or path); the result shows in its state.
    Q_INVOKABLE void move(const QString &id, const QString &folder);

    // The add menu: a .torrent to add opens the add sheet, the magnet entry its sheet.
    Q_INVOKABLE void openTorrentFile(const QString &fileUrl);
    Q_INVOKABLE void openMagnet();

    // Rebuilds what derives from the torrents; the engine's polls and the state's changes call
    // it, tests may too.
    void refresh();

    // The last refresh's cost on the main thread, in microseconds.
    qint64 lastRefreshMicroseconds() const { return m_lastRefreshMicroseconds; }

signals:
    void changed();
    // A window the frame should show ("player").
    void windowRequested(const QString &name);
    // The folder chooser for a move of this torrent.
    void moveRequested(const QString &id);

private:
    struct Derived
    {
        ContentMode mode = ContentMode::library;
        bool inspector = false;
        EmptyState empty = EmptyState::emptyLibrary;
        LibraryHeader header;
        QString primary;
        QString featured;
        QString featuredLabel;
        TransferSums sums;
        SessionInfo session;
        QString toast;
        bool altSpeed = false;
        LibraryPreferences preferences;
        QList<TableSortColumn> tableSort;
        QMap<QString, int> counts;
        TorrentFilter filter = TorrentFilter::all;
        bool operator==(const Derived &) const = default;
    };

    void rederive();
    void selectionChanged();
    void focusRequested();
    QList<TorrentStatus> statusesOf(const QSet<QString> &ids) const;
    QCoro::Task<void> playDefault(QString id);

    QPointer<TorrentEngine> m_engine;
    QPointer<PlayerModel> m_player;
    QPointer<MainUIState> m_state;
    TorrentListModel *m_torrents = nullptr;
    TorrentTableModel *m_table = nullptr;
    QSortFilterProxyModel *m_featuredModel = nullptr;
    QList<TorrentStatus> m_visible;
    Derived m_derived;
    int m_revision = 0;
    bool m_offersPresented = false;
    QStringList m_pendingRemoval;
    bool m_showRemoval = false;
    QString m_limitsTarget;
    bool m_showAddMenu = false;
    qint64 m_lastRefreshMicroseconds = 0;
};
