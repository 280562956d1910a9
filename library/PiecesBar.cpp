#include "library/PiecesBar.h"

#include "engine/TorrentEngine.h"
#include "library/MainViewModel.h"

#include <QPainter>
#include <QPointer>

#include <algorithm>
#include <cmath>

QColor pieceStateColor(PieceState state)
{
    switch (state) {
    case PieceState::downloaded:
        return QColor(0x3d, 0x9a, 0x5b);
    case PieceState::receiving:
        return QColor(0xe0, 0xa0, 0x30);
    case PieceState::unavailable:
        return QColor(0xc0, 0x45, 0x3a);
    case PieceState::waiting:
        break;
    }
    return QColor(0x4a, 0x4f, 0x5a);
}

PiecesBar::PiecesBar(QQuickItem *parent)
    : QQuickPaintedItem(parent)
{
    connect(this, &QQuickItem::widthChanged, this, [this] { update(); });
    connect(this, &PiecesBar::rangeChanged, this, [this] { update(); });
}

void PiecesBar::setTorrentId(const QString &id)
{
    if (id == m_torrentId)
        return;
    m_torrentId = id;
    emit torrentIdChanged();
    reload();
    update();
}

void PiecesBar::setProgress(double value)
{
    if (value == m_progress)
        return;
    m_progress = value;
    emit progressChanged();
    update();
}

void PiecesBar::setReloadKey(const QVariant &key)
{
    if (key == m_reloadKey)
        return;
    m_reloadKey = key;
    emit reloadKeyChanged();
    reload();
}

QString PiecesBar::summary() const
{
    if (m_mapID != m_torrentId || m_map.count() == 0)
        return QString();
    return m_map.summary(m_firstPiece >= 0 ? std::optional(std::pair(m_firstPiece, m_lastPiece)) : std::nullopt);
}

void PiecesBar::reload()
{
    if (m_torrentId.isEmpty())
        return;
    TorrentEngine *engine = MainViewModel::shared()->engine();
    if (!engine)
        return;
    const int generation = ++m_generation;
    const QString id = m_torrentId;
    QPointer<PiecesBar> self(this);
    auto load = [](QPointer<PiecesBar> bar, TorrentEngine *source, QString torrent, int asked) -> QCoro::Task<void> {
        auto task = source->pieceMap(torrent);
        const PieceMap map = co_await std::move(task);
        // A bar that now shows another torrent, or asked again since, drops this answer.
        if (!bar || bar->m_generation != asked || map.count() == 0)
            co_return;
        bar->m_map = map;
        bar->m_mapID = torrent;
        emit bar->mapChanged();
        bar->update();
    };
    load(self, engine, id, generation);
}

void PiecesBar::paint(QPainter *painter)
{
    const QRectF area(0, 0, width(), height());
    if (area.isEmpty())
        return;
    painter->fillRect(area, pieceStateColor(PieceState::waiting));
    const int columnsWanted = std::max(1, static_cast<int>(std::floor(width())));
    if (m_mapID == m_torrentId && m_map.count() > 0) {
        const auto range = m_firstPiece >= 0 ? std::optional(std::pair(m_firstPiece, m_lastPiece)) : std::nullopt;
        const QList<PieceState> columns = m_map.columns(range, columnsWanted);
        const double step = width() / static_cast<double>(std::max<qsizetype>(1, columns.size()));
        for (qsizetype c = 0; c < columns.size(); ++c) {
            if (columns.at(c) == PieceState::waiting)
                continue;
            painter->fillRect(QRectF(static_cast<double>(c) * step, 0, step + 0.5, height()),
                              pieceStateColor(columns.at(c)));
        }
        return;
    }
    painter->fillRect(QRectF(0, 0, width() * std::clamp(m_progress, 0.0, 1.0), height()),
                      pieceStateColor(PieceState::downloaded));
}
