#include "library/PatternCover.h"

#include <QColor>
#include <QHash>
#include <QLinearGradient>
#include <QMutex>
#include <QPainter>
#include <QPen>
#include <QUrl>

#include <array>

namespace {

struct Ramp
{
    QRgb from;
    QRgb to;
};

// Dark enough at the bottom for a white title to read over any of them.
constexpr std::array<Ramp, 12> Ramps{{
    {0xff3a6ea5, 0xff101c3a},
    {0xffb4505a, 0xff2a0f22},
    {0xff4f9a7a, 0xff0e2a24},
    {0xffc08a3e, 0xff3a1e0c},
    {0xff7a5fb8, 0xff1c1238},
    {0xff2f8fa8, 0xff0b2430},
    {0xffa8586f, 0xff260c1e},
    {0xff6b8f3a, 0xff17260b},
    {0xff5a6a8a, 0xff141a28},
    {0xffc4644a, 0xff301008},
    {0xff3d7f5f, 0xff0c2016},
    {0xff8a4fa0, 0xff200c2c},
}};

constexpr int Width = 480;
constexpr int Height = 270;

QImage draw(int index)
{
    const Ramp ramp = Ramps.at(static_cast<std::size_t>(index) % Ramps.size());
    QImage image(Width, Height, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::black);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient gradient(0, 0, Width * 0.35, Height);
    gradient.setColorAt(0, QColor::fromRgb(ramp.from));
    gradient.setColorAt(1, QColor::fromRgb(ramp.to));
    painter.fillRect(image.rect(), gradient);

    // Rounds of soft white strokes whose count, reach and angle come from the index, so ramps
    // that share colours still differ in their lines.
    const int rounds = 3 + index % 3;
    const int strokes = 6 + index % 5;
    for (int round = 0; round < rounds; ++round) {
        for (int k = 0; k < strokes; ++k) {
            const int n = round * strokes + k;
            const int grey = 200 + (n * 7 + index * 13) % 56;
            const double alpha = 0.12 + 0.16 * ((n * 5 + index) % 8) / 7.0;
            QPen pen(QColor(grey, grey, grey, static_cast<int>(alpha * 255)));
            pen.setCapStyle(Qt::RoundCap);
            pen.setWidthF(2.0 + (n % 3 == 0 ? 10.0 : 0.0) + (n % 4 == 0 ? 4.0 : 0.0) + (n % 8 == 0 ? 8.0 : 0.0));
            painter.setPen(pen);
            const double x = (((n + 1) * (index + 3) * 37) % Width);
            const double y = (((n + 2) * (index + 5) * 23) % Height);
            const double reach = 40.0 + ((n * 11 + index * 17) % 160);
            if (n % 3 == 0)
                painter.drawLine(QPointF(x - reach, y), QPointF(x + reach, y - reach * 0.3));
            else if (n % 4 == 0)
                painter.drawArc(QRectF(x - reach, y - reach, 2 * reach, 2 * reach), (n * 40) * 16, (90 + index * 10) * 16);
            else if (n % 8 == 1)
                painter.drawPoint(QPointF(x, y));
            else
                painter.drawLine(QPointF(x, y), QPointF(x + reach * 0.6, y + reach * 0.6));
        }
    }
    painter.end();
    return image;
}

} // namespace

namespace PatternCover {

quint64 seed(const QString &identity)
{
    quint64 hash = 0xcbf29ce484222325ULL;
    for (const char byte : identity.toUtf8()) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

int rampCount()
{
    return static_cast<int>(Ramps.size());
}

int index(const QString &identity)
{
    return static_cast<int>(seed(identity) % Ramps.size());
}

QImage artwork(int index)
{
    // Image requests come on the engine's loader threads too.
    static QMutex mutex;
    static QHash<int, QImage> drawn;
    const QMutexLocker lock(&mutex);
    auto found = drawn.constFind(index);
    if (found != drawn.constEnd())
        return *found;
    return *drawn.insert(index, draw(index));
}

} // namespace PatternCover

PatternCoverProvider::PatternCoverProvider()
    : QQuickImageProvider(QQuickImageProvider::Image)
{
}

QImage PatternCoverProvider::requestImage(const QString &id, QSize *size, const QSize &requestedSize)
{
    QImage image = PatternCover::artwork(PatternCover::index(QUrl::fromPercentEncoding(id.toUtf8())));
    if (size)
        *size = image.size();
    if (requestedSize.isValid() && !requestedSize.isEmpty())
        image = image.scaled(requestedSize, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    return image;
}
