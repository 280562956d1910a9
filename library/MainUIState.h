#pragma once

#include "engine/TorrentStatus.h"
#include "library/LibraryPreferences.h"
#include "library/LibraryRules.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

class QTimer;
class TorrentEngine;

// The one state of the main window: which filter, selection, sheet, page and screen show. The
// library screens, the control routes and the automation tools all read and change it here, so
// nothing of the window's mode lives anywhere else. Main thread only.
//
// Only the preferences outlive a launch (library.json under the data directory); everything
// else starts at its default.
class MainUIState : public QObject
{
    Q_OBJECT
    QML_ANONYMOUS
    Q_PROPERTY(QString filter READ filterRaw WRITE setFilterRaw NOTIFY filterChanged)
    Q_PROPERTY(QStringList selection READ selectionList WRITE setSelectionList NOTIFY selectionChanged)
    Q_PROPERTY(QString tab READ tabRaw WRITE setTabRaw NOTIFY tabChanged)
    Q_PROPERTY(QString search READ search WRITE setSearch NOTIFY searchChanged)
    Q_PROPERTY(QUrl addURL READ addURL WRITE setAddURL NOTIFY addURLChanged)
    Q_PROPERTY(bool showMagnet READ showMagnet WRITE setShowMagnet NOTIFY showMagnetChanged)
    Q_PROPERTY(QString magnetText READ magnetText WRITE setMagnetText NOTIFY magnetTextChanged)
    Q_PROPERTY(bool showDetails READ showDetails WRITE setShowDetails NOTIFY showDetailsChanged)
    Q_PROPERTY(bool showSettings READ showSettings WRITE setShowSettings NOTIFY showSettingsChanged)
    Q_PROPERTY(QString settingsPage READ settingsPageRaw WRITE setSettingsPageRaw NOTIFY settingsPageChanged)
    Q_PROPERTY(QString openedTorrentID READ openedTorrentID WRITE setOpenedTorrentID NOTIFY openedTorrentIDChanged)
    Q_PROPERTY(bool contentsAllFiles READ contentsAllFiles WRITE setContentsAllFiles NOTIFY contentsAllFilesChanged)
    Q_PROPERTY(bool contentsCompact READ contentsCompact WRITE setContentsCompact NOTIFY contentsCompactChanged)
    Q_PROPERTY(QString contentsQuery READ contentsQuery WRITE setContentsQuery NOTIFY contentsQueryChanged)
    Q_PROPERTY(QString layout READ layoutRaw WRITE setLayoutRaw NOTIFY preferencesChanged)
    Q_PROPERTY(QString sort READ sortRaw WRITE setSortRaw NOTIFY preferencesChanged)
    Q_PROPERTY(bool transferDetailsCollapsed READ transferDetailsCollapsed NOTIFY preferencesChanged)

public:
    // The process-wide state over the process-wide engine, made at first use.
    static MainUIState *shared();

    // A state whose preferences live in `home`/library.json and whose lists come from `engine`
    // (none: an empty library).
    MainUIState(const QString &home, TorrentEngine *engine, QObject *parent = nullptr);

    TorrentFilter filter() const { return m_filter; }
    void setFilter(TorrentFilter value);
    const QSet<QString> &selection() const { return m_selection; }
    void setSelection(const QSet<QString> &value);
    DetailTab tab() const { return m_tab; }
    void setTab(DetailTab value);
    QString search() const { return m_search; }
    void setSearch(const QString &value);
    // Empty when no add sheet is open.
    QUrl addURL() const { return m_addURL; }
    void setAddURL(const QUrl &value);
    bool showMagnet() const { return m_showMagnet; }
    void setShowMagnet(bool value);
    QString magnetText() const { return m_magnetText; }
    void setMagnetText(const QString &value);
    bool showDetails() const { return m_showDetails; }
    void setShowDetails(bool value);
    bool showSettings() const { return m_showSettings; }
    void setShowSettings(bool value);
    SettingsPage settingsPage() const { return m_settingsPage; }
    void setSettingsPage(SettingsPage value);
    // Empty when the library shows rather than one torrent's contents.
    QString openedTorrentID() const { return m_openedTorrentID; }
    void setOpenedTorrentID(const QString &value);
    bool contentsAllFiles() const { return m_contentsAllFiles; }
    void setContentsAllFiles(bool value);
    bool contentsCompact() const { return m_contentsCompact; }
    void setContentsCompact(bool value);
    QString contentsQuery() const { return m_contentsQuery; }
    void setContentsQuery(const QString &value);

    const LibraryPreferences &preferences() const { return m_preferences; }
    // Saves library.json in the same step: a layout picked just before a crash is kept.
    void setPreferences(const LibraryPreferences &value);
    Q_INVOKABLE void toggleTransferDetails();

    // The table's column sort, which the table owns and hands over; it orders `visible` only in
    // the table layout.
    const QList<TableSortColumn> &tableSort() const { return m_tableSort; }
    void setTableSort(const QList<TableSortColumn> &columns);

    // The filtered, searched and sorted torrents, and their ids.
    QList<TorrentStatus> visible() const;
    Q_INVOKABLE QStringList visibleIds() const;
    // The torrent the inspector shows; empty for none.
    Q_INVOKABLE QString primary() const;
    Q_INVOKABLE int filterCount(const QString &filterRaw) const;

    // Shows the library with only this torrent selected; opens neither its contents nor the
    // inspector. For a torrent just added and for focus requests.
    Q_INVOKABLE void select(const QString &id);
    // A click with the keyboard modifiers of its event; see clickSelection.
    Q_INVOKABLE void selectItem(const QString &id, Qt::KeyboardModifiers modifiers = Qt::NoModifier);
    // Opens the torrent's contents screen with it alone selected.
    Q_INVOKABLE void inspect(const QString &id);
    // What a context menu on `id` acts on: the selection when id is in it, else id alone. The
    // selection itself stays as it is.
    QSet<QString> contextSelection(const QString &id) const;
    // Drops selected ids that are no longer visible, and the opened torrent when the engine no
    // longer has it. The main screen calls it when the filter, search, list or sort changes.
    Q_INVOKABLE void reconcileSelection();

    // Where the next Shift-click measures from. Clicks move it; the table's clicks and the arrow
    // keys, which select without opening, set it here.
    std::optional<QString> selectionAnchor() const { return m_selectionAnchor; }
    void setSelectionAnchor(const QString &id) { m_selectionAnchor = id; }

    QString preferencesPath() const { return m_preferencesPath; }

signals:
    void filterChanged();
    void selectionChanged();
    void tabChanged();
    void searchChanged();
    void addURLChanged();
    void showMagnetChanged();
    void magnetTextChanged();
    void showDetailsChanged();
    void showSettingsChanged();
    void settingsPageChanged();
    void openedTorrentIDChanged();
    void contentsAllFilesChanged();
    void contentsCompactChanged();
    void contentsQueryChanged();
    void preferencesChanged();
    void tableSortChanged();

private:
    QString filterRaw() const { return rawValue(m_filter); }
    void setFilterRaw(const QString &raw);
    QStringList selectionList() const;
    void setSelectionList(const QStringList &ids);
    QString tabRaw() const { return rawValue(m_tab); }
    void setTabRaw(const QString &raw);
    QString settingsPageRaw() const { return rawValue(m_settingsPage); }
    void setSettingsPageRaw(const QString &raw);
    QString layoutRaw() const { return rawValue(m_preferences.layout); }
    void setLayoutRaw(const QString &raw);
    QString sortRaw() const { return rawValue(m_preferences.sort); }
    void setSortRaw(const QString &raw);
    bool transferDetailsCollapsed() const { return m_preferences.transferDetailsCollapsed; }
    QList<TorrentStatus> torrents() const;

    LibraryPreferences loadPreferences() const;
    void savePreferences();

    QPointer<TorrentEngine> m_engine;
    QString m_preferencesPath;
    // Saves the preferences again after a failed save.
    QTimer *m_retrySave = nullptr;

    TorrentFilter m_filter = TorrentFilter::all;
    QSet<QString> m_selection;
    DetailTab m_tab = DetailTab::files;
    QString m_search;
    QUrl m_addURL;
    bool m_showMagnet = false;
    QString m_magnetText;
    bool m_showDetails = false;
    bool m_showSettings = false;
    SettingsPage m_settingsPage = SettingsPage::downloads;
    QString m_openedTorrentID;
    bool m_contentsAllFiles = false;
    bool m_contentsCompact = false;
    QString m_contentsQuery;
    LibraryPreferences m_preferences;

    QList<TableSortColumn> m_tableSort = defaultTableSort();
    // Where the next Shift-click measures from; not persisted.
    std::optional<QString> m_selectionAnchor;
};
