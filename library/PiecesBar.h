#pragma once

#include "engine/TorrentReports.h"

#include <QColor>
#include <QQuickPaintedItem>
#include <QtQml/qqmlregistration.h>

// One fixed colour per piece state, shared by the bars and their legend.
QColor pieceStateColor(PieceState state);

// A torrent's progress bar. With the torrent's piece map it draws the pieces (of one file when
// `firstPiece`..`lastPiece` is set) in as many columns as it is wide; until a map for this very
// torrent is in, it fills the share `progress`. The map is asked from the engine, whose cache
// answers repeated asks within a second and a half, each time `reloadKey` changes.
class PiecesBar : public QQuickPaintedItem
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QString torrentId READ torrentId WRITE setTorrentId NOTIFY torrentIdChanged)
    Q_PROPERTY(double progress READ progress WRITE setProgress NOTIFY progressChanged)
    Q_PROPERTY(int firstPiece MEMBER m_firstPiece NOTIFY rangeChanged)
    Q_PROPERTY(int lastPiece MEMBER m_lastPiece NOTIFY rangeChanged)
    Q_PROPERTY(QVariant reloadKey READ reloadKey WRITE setReloadKey NOTIFY reloadKeyChanged)
    Q_PROPERTY(QString mapID READ mapID NOTIFY mapChanged)
    Q_PROPERTY(QString summary READ summary NOTIFY mapChanged)

public:
    explicit PiecesBar(QQuickItem *parent = nullptr);

    QString torrentId() const { return m_torrentId; }
    void setTorrentId(const QString &id);
    double progress() const { return m_progress; }
    void setProgress(double value);
    QVariant reloadKey() const { return m_reloadKey; }
    void setReloadKey(const QVariant &key);
    QString mapID() const { return m_mapID; }
    QString summary() const;

    void paint(QPainter *painter) override;

signals:
    void torrentIdChanged();
    void progressChanged();
    void rangeChanged();
    void reloadKeyChanged();
    void mapChanged();

private:
    void reload();

    QString m_torrentId;
    double m_progress = 0;
    int m_firstPiece = -1;
    int m_lastPiece = -1;
    QVariant m_reloadKey;
    QString m_mapID;
    PieceMap m_map;
    int m_generation = 0;
};
