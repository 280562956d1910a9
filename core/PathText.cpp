#include "core/PathText.h"

namespace PathText {

namespace {

QString withoutTrailingSlashes(const QString &path)
{
    qsizetype end = path.size();
    while (end > 1 && path.at(end - 1) == u'/')
        --end;
    return path.left(end);
}

// Index of the dot that starts the extension of the last component, or -1.
qsizetype extensionDot(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(u'/');
    const qsizetype dot = path.lastIndexOf(u'.');
    if (dot <= slash + 1 || dot == path.size() - 1)
        return -1;
    return dot;
}

} // namespace

QString lastPathComponent(const QString &path)
{
    const QString trimmed = withoutTrailingSlashes(path);
    if (trimmed == QLatin1String("/"))
        return trimmed;
    const qsizetype slash = trimmed.lastIndexOf(u'/');
    return slash < 0 ? trimmed : trimmed.mid(slash + 1);
}

QString pathExtension(const QString &path)
{
    const QString trimmed = withoutTrailingSlashes(path);
    const qsizetype dot = extensionDot(trimmed);
    return dot < 0 ? QString() : trimmed.mid(dot + 1);
}

QString stringByDeletingPathExtension(const QString &path)
{
    const QString trimmed = withoutTrailingSlashes(path);
    const qsizetype dot = extensionDot(trimmed);
    return dot < 0 ? trimmed : trimmed.left(dot);
}

QString stringByDeletingLastPathComponent(const QString &path)
{
    const QString trimmed = withoutTrailingSlashes(path);
    const qsizetype slash = trimmed.lastIndexOf(u'/');
    if (slash < 0)
        return QString();
    if (slash == 0)
        return QStringLiteral("/");
    return trimmed.left(slash);
}

} // namespace PathText
