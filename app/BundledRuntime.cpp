#include "app/BundledRuntime.h"

#include <QDir>
#include <QFileInfo>

#include <cstdlib>
#include <unistd.h>

namespace BundledRuntime {

namespace {

QString executableDirectory()
{
    // Read before any application object exists, so QCoreApplication can't answer yet.
    char buffer[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
        return QString();
    buffer[n] = '\0';
    return QFileInfo(QString::fromLocal8Bit(buffer)).absolutePath();
}

void setIfUnset(const char *name, const QString &value)
{
    ::setenv(name, QFile::encodeName(value).constData(), 0);
}

} // namespace

QString resourceDirectory()
{
    const QString bin = executableDirectory();
    if (bin.isEmpty())
        return QString();
    return QDir::cleanPath(bin + QStringLiteral("/../share/velix"));
}

void configure()
{
    configure(resourceDirectory());
}

void configure(const QString &resourceDir)
{
    if (resourceDir.isEmpty())
        return;
    const QDir dir(resourceDir);
    // A development run without the bundled certificates keeps the machine's defaults for all
    // four, the font ones included.
    if (!QFileInfo::exists(dir.filePath(QStringLiteral("cacert.pem"))))
        return;
    setIfUnset("SSL_CERT_FILE", dir.filePath(QStringLiteral("cacert.pem")));
    setIfUnset("OPENSSL_CONF", QStringLiteral("/dev/null"));
    setIfUnset("FONTCONFIG_PATH", dir.filePath(QStringLiteral("fontconfig")));
    setIfUnset("FONTCONFIG_FILE", dir.filePath(QStringLiteral("fontconfig/fonts.conf")));
}

} // namespace BundledRuntime
