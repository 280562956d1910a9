#pragma once

#include <QQuickImageProvider>

// Serves "image://symbol/<symbol name>" to QML: the symbol's icon from the desktop's icon
// theme, or from the fallback theme that ships with the program's dependencies. A name the
// symbol table doesn't know, or an icon no theme has, gives a null image and a warning.
class SymbolImageProvider : public QQuickImageProvider
{
public:
    SymbolImageProvider();

    QPixmap requestPixmap(const QString &id, QSize *size, const QSize &requestedSize) override;

    // Makes sure QIcon::fromTheme finds the fallback theme when the desktop names none or
    // lacks an icon. Called once before the first window.
    static void setUpThemes();
};
