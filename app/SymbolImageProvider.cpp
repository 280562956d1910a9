#include "app/SymbolImageProvider.h"

#include "app/SymbolTable.h"

#include <QIcon>
#include <QPixmap>
#include <QStandardPaths>

namespace {

// Symbols stand beside text; this is their size when the view asks for none.
constexpr int DefaultSide = 16;
// Debian's default GNOME theme; it holds a symbolic icon for every entry of the table.
constexpr const char *FallbackTheme = "Adwaita";

} // namespace

SymbolImageProvider::SymbolImageProvider()
    : QQuickImageProvider(QQuickImageProvider::Pixmap)
{
}

void SymbolImageProvider::setUpThemes()
{
    // Desktop platforms list the system's icon folders themselves; others (offscreen, a bare X
    // server without a platform theme) know only the resource folder.
    QStringList paths = QIcon::themeSearchPaths();
    const QStringList system = QStandardPaths::locateAll(QStandardPaths::GenericDataLocation, QStringLiteral("icons"),
                                                         QStandardPaths::LocateDirectory);
    for (const QString &path : system) {
        if (!paths.contains(path))
            paths << path;
    }
    QIcon::setThemeSearchPaths(paths);
    QIcon::setFallbackThemeName(QString::fromLatin1(FallbackTheme));
    // Without a desktop session (a bare X server, a script) Qt knows no theme at all.
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == QLatin1String("hicolor"))
        QIcon::setThemeName(QString::fromLatin1(FallbackTheme));
}

QPixmap SymbolImageProvider::requestPixmap(const QString &id, QSize *size, const QSize &requestedSize)
{
    // "name" or "name?anything": views may add a query to force a reload.
    const QString symbol = id.section(QLatin1Char('?'), 0, 0);
    const int width = requestedSize.width() > 0 ? requestedSize.width() : DefaultSide;
    const int height = requestedSize.height() > 0 ? requestedSize.height() : width;
    const auto icon = SymbolTable::iconName(symbol);
    QPixmap pixmap;
    if (icon) {
        const QIcon themed = QIcon::fromTheme(*icon);
        if (!themed.isNull())
            pixmap = themed.pixmap(QSize(width, height));
    }
    if (pixmap.isNull())
        qWarning("symbol %s has no icon", qPrintable(symbol));
    if (size)
        *size = pixmap.size();
    return pixmap;
}
