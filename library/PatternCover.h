#pragma once

#include <QImage>
#include <QQuickImageProvider>
#include <QString>

// A cover drawn from a torrent's identity alone, shown until a real cover exists, so a title
// always looks the same from launch to launch and from card to row. Any thread.
namespace PatternCover {

// FNV-1a 64 over the UTF-8 bytes of the identity.
quint64 seed(const QString &identity);
// Which of the colour ramps the identity draws with.
int index(const QString &identity);
int rampCount();
// The image of one ramp, drawn on first use and kept: identities that share an index share the
// very image.
QImage artwork(int index);

} // namespace PatternCover

// Serves "image://pattern/<identity>"; the identity is the torrent id, or id and file index.
class PatternCoverProvider : public QQuickImageProvider
{
public:
    PatternCoverProvider();
    QImage requestImage(const QString &id, QSize *size, const QSize &requestedSize) override;
};
