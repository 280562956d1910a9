#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

// Small text cuts that release and file names need beyond QString's own, where the set of
// separators is part of the rule ("Show.S01E05.Rus.Dub" splits at dots, "[Group]" trims its
// brackets).
namespace NameText {

// `text` without any of `characters` at either end.
QString trimmed(const QString &text, QStringView characters);

// `text` split at every one of `separators`, without empty pieces.
QStringList split(const QString &text, QStringView separators);

} // namespace NameText
