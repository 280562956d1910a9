#include "app/AppActions.h"

#include "app/WindowOpener.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QStandardPaths>

namespace {

AppActions *g_instance = nullptr;

} // namespace

AppActions::AppActions(TorrentEngine *engine, MainUIState *ui, WindowOpener *windows, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_ui(ui)
    , m_windows(windows)
{
    g_instance = this;
}

AppActions::~AppActions()
{
    if (g_instance == this)
        g_instance = nullptr;
}

AppActions *AppActions::create(QQmlEngine *, QJSEngine *)
{
    QJSEngine::setObjectOwnership(g_instance, QJSEngine::CppOwnership);
    return g_instance;
}

AppActions *AppActions::instance()
{
    return g_instance;
}

QUrl AppActions::torrentPanelFolder() const
{
    const QString downloads = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    return QUrl::fromLocalFile(downloads.isEmpty() ? QStandardPaths::writableLocation(QStandardPaths::HomeLocation)
                                                   : downloads);
}

QStringList AppActions::torrentPanelFilters() const
{
    return {QStringLiteral("Торренты (*.torrent)")};
}

void AppActions::openTorrentPanel()
{
    // The chooser is part of the main window; a program that shows no windows shows no chooser.
    if (m_windows && m_windows->background())
        return;
    if (m_windows)
        m_windows->open(QStringLiteral("main"));
    emit torrentPanelRequested();
}

void AppActions::chooseTorrents(const QList<QUrl> &files)
{
    QList<QUrl> chosen;
    for (const QUrl &file : files) {
        if (file.isValid() && !file.isEmpty())
            chosen << file;
    }
    if (m_engine && !chosen.isEmpty())
        m_engine->appendPendingOpen(chosen);
}

QString AppActions::magnetTextFrom(const QString &clipboard)
{
    return clipboard.startsWith(QLatin1String("magnet:")) ? clipboard : QString();
}

void AppActions::openMagnet()
{
    const QClipboard *clipboard = QGuiApplication::clipboard();
    const QString text = clipboard ? clipboard->text() : QString();
    if (m_ui) {
        m_ui->setMagnetText(magnetTextFrom(text));
        m_ui->setShowMagnet(true);
    }
    if (m_windows)
        m_windows->open(QStringLiteral("main"));
}
