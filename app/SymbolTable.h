#pragma once

#include <QList>
#include <QString>

#include <optional>

// The interface names its pictures by symbol names ("play.fill", "exclamationmark.triangle"):
// short, stable and independent of any desktop. Each maps to one icon name of the freedesktop
// naming scheme, which the desktop's icon theme (or the bundled fallback theme) draws.
namespace SymbolTable {

struct Entry
{
    const char *symbol;
    const char *icon;
};

// Every symbol a screen may ask for, in one table.
const QList<Entry> &entries();
// The icon name for a symbol; none for a name the table doesn't know.
std::optional<QString> iconName(const QString &symbol);

} // namespace SymbolTable
