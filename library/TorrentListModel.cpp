#include "library/TorrentListModel.h"

#include "library/LibraryRules.h"
#include "library/LibraryScreen.h"
#include "library/TorrentDisplay.h"
#include "media/Format.h"
#include "media/MediaPresentation.h"

#include <QDateTime>

namespace {

// A move of most rows is a new order, which the views redraw faster from a reset than from
// hundreds of single moves.
constexpr double ResetShare = 0.25;

QString joinedLine(const QStringList &parts)
{
    QStringList present;
    for (const QString &part : parts) {
        if (!part.isEmpty())
            present << part;
    }
    return present.join(QStringLiteral(" · "));
}

// Only a download in progress has a time left worth a line on the card.
QString timeLeftLine(const TorrentStatus &t)
{
    return passesFilter(t, TorrentFilter::downloading) && !t.isChecking() ? QStringLiteral("Осталось: ") + timeLeftText(t)
                                                                          : QString();
}

QString rateText(const TorrentStatus &t)
{
    if (t.downloadRate < 1 && t.uploadRate < 1)
        return QStringLiteral("—");
    return QStringLiteral("↓ ") + Format::bytes(t.downloadRate) + QStringLiteral("/с  ↑ ") + Format::bytes(t.uploadRate)
        + QStringLiteral("/с");
}

} // namespace

TorrentListModel::TorrentListModel(QObject *parent)
    : QAbstractListModel(parent)
{
}

int TorrentListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant TorrentListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() < 0 || index.row() >= m_rows.size())
        return {};
    const TorrentStatus &t = m_rows.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case IdRole:
        return t.id;
    case NameRole:
        return t.name;
    case TitleRole:
        return MediaPresentation(t.name).title;
    case SubtitleRole:
        return MediaPresentation(t.name).subtitle();
    case KindLineRole:
        return kindLine(MediaPresentation(t.name).kind);
    case KindSymbolRole:
        return kindSymbol(MediaPresentation(t.name).kind);
    case IsVideoRole:
        return MediaPresentation(t.name).kind == MediaKind::video;
    case StatusTextRole:
        return statusText(t);
    case StatusSymbolRole:
        return statusSymbol(t);
    case ProgressRole:
        return displayProgress(t);
    case ProgressTextRole:
        return Format::percent(displayProgress(t));
    case SizeTextRole:
        return Format::bytes(t.total);
    case RateTextRole:
        return rateText(t);
    case TimeLeftTextRole:
        return timeLeftText(t);
    case TimeLeftLineRole:
        return timeLeftLine(t);
    case CardLineRole: {
        const MediaPresentation presentation(t.name);
        return joinedLine({presentation.subtitle(), kindLine(presentation.kind), timeLeftLine(t)});
    }
    case RowLineRole: {
        const MediaPresentation presentation(t.name);
        return joinedLine({presentation.subtitle(), kindLine(presentation.kind), Format::bytes(t.total), timeLeftLine(t)});
    }
    case AddedTextRole:
        return t.added > 0 ? QLocale().toString(QDateTime::fromSecsSinceEpoch(t.added), QLocale::ShortFormat)
                           : QStringLiteral("—");
    case PausedRole:
        return t.paused;
    case CheckingRole:
        return t.isChecking();
    case CheckedTextRole:
        return t.isChecking() ? QStringLiteral("Проверено") : QStringLiteral("Загружено");
    case CheckingSpeedTextRole:
        return t.checkingSpeedText();
    case PauseResumesRole:
        return pauseButtonResumes(t);
    case PauseHelpRole:
        return pauseButtonHelp(t);
    case SelectedRole:
        return m_selection.contains(t.id);
    case HasMetadataRole:
        return t.hasMetadata;
    default:
        return {};
    }
}

QHash<int, QByteArray> TorrentListModel::roleNames() const
{
    return {
        {IdRole, "torrentId"},
        {NameRole, "name"},
        {TitleRole, "title"},
        {SubtitleRole, "subtitle"},
        {KindLineRole, "kindLine"},
        {KindSymbolRole, "kindSymbol"},
        {IsVideoRole, "isVideo"},
        {StatusTextRole, "statusText"},
        {StatusSymbolRole, "statusSymbol"},
        {ProgressRole, "progress"},
        {ProgressTextRole, "progressText"},
        {SizeTextRole, "sizeText"},
        {RateTextRole, "rateText"},
        {TimeLeftTextRole, "timeLeftText"},
        {TimeLeftLineRole, "timeLeftLine"},
        {AddedTextRole, "addedText"},
        {PausedRole, "paused"},
        {CheckingRole, "checking"},
        {CheckedTextRole, "checkedText"},
        {CheckingSpeedTextRole, "checkingSpeedText"},
        {PauseResumesRole, "pauseResumes"},
        {PauseHelpRole, "pauseHelp"},
        {SelectedRole, "selected"},
        {HasMetadataRole, "hasMetadata"},
        {CardLineRole, "cardLine"},
        {RowLineRole, "rowLine"},
    };
}

QString TorrentListModel::idAt(int row) const
{
    return row >= 0 && row < m_rows.size() ? m_rows.at(row).id : QString();
}

int TorrentListModel::rowOf(const QString &id) const
{
    for (int row = 0; row < m_rows.size(); ++row) {
        if (m_rows.at(row).id == id)
            return row;
    }
    return -1;
}

void TorrentListModel::setTorrents(const QList<TorrentStatus> &next)
{
    const int before = count();
    QSet<QString> nextIds;
    nextIds.reserve(next.size());
    for (const TorrentStatus &t : next)
        nextIds.insert(t.id);

    // Rows that went, from the bottom so the rows above keep their numbers.
    for (int row = count() - 1; row >= 0; --row) {
        if (nextIds.contains(m_rows.at(row).id))
            continue;
        int first = row;
        while (first > 0 && !nextIds.contains(m_rows.at(first - 1).id))
            --first;
        beginRemoveRows(QModelIndex(), first, row);
        m_rows.remove(first, row - first + 1);
        endRemoveRows();
        row = first;
    }

    // What stays must keep its order for row-wise updates; a new order of most rows resets.
    QHash<QString, int> nextPosition;
    nextPosition.reserve(next.size());
    for (int i = 0; i < next.size(); ++i)
        nextPosition.insert(next.at(i).id, i);
    int outOfOrder = 0;
    int last = -1;
    for (const TorrentStatus &t : m_rows) {
        const int position = nextPosition.value(t.id);
        if (position < last)
            ++outOfOrder;
        else
            last = position;
    }
    if (outOfOrder > 0 && outOfOrder > ResetShare * static_cast<double>(m_rows.size())) {
        beginResetModel();
        m_rows = next;
        endResetModel();
        if (count() != before)
            emit countChanged();
        return;
    }

    for (int i = 0; i < next.size(); ++i) {
        const TorrentStatus &wanted = next.at(i);
        if (i < m_rows.size() && m_rows.at(i).id == wanted.id) {
            if (!(m_rows.at(i) == wanted)) {
                m_rows[i] = wanted;
                emit dataChanged(index(i), index(i));
            }
            continue;
        }
        int from = -1;
        for (int j = i + 1; j < m_rows.size(); ++j) {
            if (m_rows.at(j).id == wanted.id) {
                from = j;
                break;
            }
        }
        if (from >= 0) {
            beginMoveRows(QModelIndex(), from, from, QModelIndex(), i);
            m_rows.move(from, i);
            endMoveRows();
            if (!(m_rows.at(i) == wanted)) {
                m_rows[i] = wanted;
                emit dataChanged(index(i), index(i));
            }
            continue;
        }
        beginInsertRows(QModelIndex(), i, i);
        m_rows.insert(i, wanted);
        endInsertRows();
    }
    if (count() != before)
        emit countChanged();
}

void TorrentListModel::setSelection(const QSet<QString> &selection)
{
    if (selection == m_selection)
        return;
    const QSet<QString> changed = (selection - m_selection) | (m_selection - selection);
    m_selection = selection;
    for (int row = 0; row < m_rows.size(); ++row) {
        if (changed.contains(m_rows.at(row).id))
            emit dataChanged(index(row), index(row), {SelectedRole});
    }
}

TorrentTableModel::TorrentTableModel(TorrentListModel *rows, QObject *parent)
    : QAbstractTableModel(parent)
    , m_rows(rows)
{
    connect(rows, &QAbstractItemModel::rowsAboutToBeInserted, this,
            [this](const QModelIndex &, int first, int last) { beginInsertRows(QModelIndex(), first, last); });
    connect(rows, &QAbstractItemModel::rowsInserted, this, [this] { endInsertRows(); });
    connect(rows, &QAbstractItemModel::rowsAboutToBeRemoved, this,
            [this](const QModelIndex &, int first, int last) { beginRemoveRows(QModelIndex(), first, last); });
    connect(rows, &QAbstractItemModel::rowsRemoved, this, [this] { endRemoveRows(); });
    connect(rows, &QAbstractItemModel::rowsAboutToBeMoved, this,
            [this](const QModelIndex &, int first, int last, const QModelIndex &, int to) {
                beginMoveRows(QModelIndex(), first, last, QModelIndex(), to);
            });
    connect(rows, &QAbstractItemModel::rowsMoved, this, [this] { endMoveRows(); });
    connect(rows, &QAbstractItemModel::modelAboutToBeReset, this, [this] { beginResetModel(); });
    connect(rows, &QAbstractItemModel::modelReset, this, [this] { endResetModel(); });
    connect(rows, &QAbstractItemModel::dataChanged, this,
            [this](const QModelIndex &from, const QModelIndex &to, const QList<int> &roles) {
                emit dataChanged(index(from.row(), 0), index(to.row(), columnCount() - 1), roles);
            });
}

int TorrentTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() || !m_rows ? 0 : m_rows->rowCount();
}

int TorrentTableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(columnTitles().size());
}

QStringList TorrentTableModel::columnTitles()
{
    return {QStringLiteral("Название"), QStringLiteral("Размер"),   QStringLiteral("Прогресс"),
            QStringLiteral("Добавлен"), QStringLiteral("Скорость"), QStringLiteral("Осталось")};
}

QVariant TorrentTableModel::data(const QModelIndex &index, int role) const
{
    if (!m_rows || !index.isValid())
        return {};
    const QModelIndex row = m_rows->index(index.row());
    if (role != Qt::DisplayRole)
        return m_rows->data(row, role);
    static const int columnRoles[] = {TorrentListModel::NameRole,      TorrentListModel::SizeTextRole,
                                      TorrentListModel::ProgressTextRole, TorrentListModel::AddedTextRole,
                                      TorrentListModel::RateTextRole,  TorrentListModel::TimeLeftTextRole};
    if (index.column() < 0 || index.column() >= static_cast<int>(std::size(columnRoles)))
        return {};
    return m_rows->data(row, columnRoles[index.column()]);
}

QVariant TorrentTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 && section < columnTitles().size())
        return columnTitles().at(section);
    return {};
}

QHash<int, QByteArray> TorrentTableModel::roleNames() const
{
    QHash<int, QByteArray> names = m_rows ? m_rows->roleNames() : QHash<int, QByteArray>{};
    names.insert(Qt::DisplayRole, "display");
    return names;
}
