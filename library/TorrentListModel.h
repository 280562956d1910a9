#pragma once

#include "engine/TorrentStatus.h"

#include <QAbstractListModel>
#include <QAbstractTableModel>
#include <QHash>
#include <QList>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QtQml/qqmlregistration.h>

// The torrents the library shows, in display order, one row each. A poll hands over the whole
// visible list; the model works out what changed and tells the views only that: a changed
// torrent is one row's dataChanged, a torrent that came or went is one insert or removal, so a
// grid of thousands keeps its place and its delegates. A reset is only for a new order of
// most rows (a new sort). Main thread only.
class TorrentListModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ANONYMOUS
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        NameRole,
        TitleRole,
        SubtitleRole,
        KindLineRole,
        KindSymbolRole,
        IsVideoRole,
        StatusTextRole,
        StatusSymbolRole,
        ProgressRole,
        ProgressTextRole,
        SizeTextRole,
        RateTextRole,
        TimeLeftTextRole,
        TimeLeftLineRole,
        AddedTextRole,
        PausedRole,
        CheckingRole,
        CheckedTextRole,
        CheckingSpeedTextRole,
        PauseResumesRole,
        PauseHelpRole,
        SelectedRole,
        HasMetadataRole,
        CardLineRole,
        RowLineRole,
    };
    Q_ENUM(Role)

    explicit TorrentListModel(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return static_cast<int>(m_rows.size()); }
    const QList<TorrentStatus> &torrents() const { return m_rows; }
    Q_INVOKABLE QString idAt(int row) const;
    Q_INVOKABLE int rowOf(const QString &id) const;

    // Takes the new visible list and emits the least that tells the views about it.
    void setTorrents(const QList<TorrentStatus> &torrents);
    // Emits the selected role's change for the rows whose membership changed.
    void setSelection(const QSet<QString> &selection);

signals:
    void countChanged();

private:
    QList<TorrentStatus> m_rows;
    QSet<QString> m_selection;
};

// The same rows as columns for the table: "Название", "Размер", "Прогресс", "Добавлен",
// "Скорость", "Осталось". Each cell carries the row's roles and `display`, the column's text;
// changes of the list come through as the list model made them.
class TorrentTableModel : public QAbstractTableModel
{
    Q_OBJECT
    QML_ANONYMOUS

public:
    explicit TorrentTableModel(TorrentListModel *rows, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    static QStringList columnTitles();

private:
    QPointer<TorrentListModel> m_rows;
};
