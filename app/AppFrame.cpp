#include "app/AppFrame.h"

#include "app/AppActions.h"
#include "app/AppCommands.h"
#include "app/MprisService.h"
#include "app/QmlModules.h"
#include "app/SingleInstance.h"
#include "app/SymbolImageProvider.h"
#include "app/TrayIcon.h"
#include "app/WindowOpener.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "library/MainViewModel.h"
#include "playback/PlayerModel.h"

#include <QFile>
#include <QGuiApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>
#include <QQmlApplicationEngine>
#include <QQmlComponent>
#include <QQuickWindow>

const QUrl AppFrame::MainWindowUrl(QStringLiteral("qrc:/qt/qml/Velix/App/MainWindow.qml"));
const QUrl AppFrame::MainViewUrl(QStringLiteral("qrc:/qt/qml/Velix/Library/MainView.qml"));
const QUrl AppFrame::PlayerWindowUrl(QStringLiteral("qrc:/qt/qml/Velix/Playback/PlayerWindow.qml"));

namespace {

bool resourceExists(const QUrl &url)
{
    return QFile::exists(QLatin1Char(':') + url.path());
}

} // namespace

AppFrame::AppFrame(TorrentEngine *engine, PlayerModel *player, MainUIState *ui, Options options, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_player(player)
    , m_ui(ui)
    , m_options(std::move(options))
{
    m_windows = new WindowOpener(ui, m_options.background, this);
    m_actions = new AppActions(engine, ui, m_windows, this);
    m_commands = new AppCommands(engine, ui, m_windows, m_actions, m_options.quit, this);
}

AppFrame::~AppFrame()
{
    delete m_tray;
    m_tray = nullptr;
    // Windows go before the objects their bindings read, and take their application-wide
    // shortcuts with them.
    qDeleteAll(m_ownedWindows);
    m_ownedWindows.clear();
    m_qml.reset();
    if (m_library)
        MainViewModel::install(nullptr);
}

QQuickWindow *AppFrame::window(const QString &id) const
{
    return m_windows->window(id);
}

QQuickWindow *AppFrame::createWindow(const QUrl &url, const QString &id)
{
    QQmlComponent component(m_qml.get(), url);
    QObject *object = component.create();
    auto *window = qobject_cast<QQuickWindow *>(object);
    if (!window) {
        m_warnings << component.errorString();
        qWarning("window %s could not be made: %s", qPrintable(id), qPrintable(component.errorString()));
        delete object;
        return nullptr;
    }
    QQmlEngine::setObjectOwnership(window, QQmlEngine::CppOwnership);
    window->setParent(nullptr);
    m_ownedWindows << window;
    // Without a handler a scene graph that cannot start (no OpenGL) ends the process; a window
    // that cannot draw is not worth that.
    connect(window, &QQuickWindow::sceneGraphError, this,
            [id](QQuickWindow::SceneGraphError, const QString &message) {
                qWarning("window %s cannot draw: %s", qPrintable(id), qPrintable(message));
            });
    m_windows->registerWindow(id, window);
    return window;
}

bool AppFrame::start()
{
    if (m_qml)
        return m_windows->window(QStringLiteral("main")) != nullptr;
    QmlModules::registerTypes();
    // Qt's own texts (the file chooser's buttons, standard menus) in the interface's language.
    auto *translator = new QTranslator(this);
    if (translator->load(QLocale(QLocale::Russian, QLocale::Russia), QStringLiteral("qt"), QStringLiteral("_"),
                         QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(translator);
    // Closing the last window leaves the program downloading and seeding; only Quit ends it.
    QGuiApplication::setQuitOnLastWindowClosed(false);
    SymbolImageProvider::setUpThemes();
    m_qml = std::make_unique<QQmlApplicationEngine>();
    // Qt 6.4 does not yet look for modules here by itself.
    m_qml->addImportPath(QStringLiteral("qrc:/qt/qml"));
    m_qml->addImageProvider(QStringLiteral("symbol"), new SymbolImageProvider);

    if (m_engine && m_player && m_ui) {
        // The library's screens read the frame's own engine, player and state, and ask the
        // frame for the windows they open (the player on a play).
        m_library = new MainViewModel(m_engine, m_player, m_ui, this);
        MainViewModel::install(m_library);
        connect(m_library, &MainViewModel::windowRequested, m_windows,
                [this](const QString &name) { m_windows->open(name); });
    }
    if (resourceExists(MainViewUrl))
        m_windows->setMainContent(MainViewUrl);
    QQuickWindow *main = createWindow(MainWindowUrl, QStringLiteral("main"));
    if (!main)
        return false;
    if (resourceExists(PlayerWindowUrl)) {
        createWindow(PlayerWindowUrl, QStringLiteral("player"));
    } else {
        m_warnings << QStringLiteral("no player window in this build");
        qWarning("This build has no player window: playback has no picture.");
    }

    if (m_options.background)
        return true;
    m_windows->open(QStringLiteral("main"));
    if (m_options.tray) {
        m_tray = new TrayIcon([this] { m_windows->open(QStringLiteral("main")); }, m_options.quit);
        m_tray->start();
    }
    if (m_options.mpris && m_player) {
        MprisService::Hooks hooks;
        hooks.torrentTitle = [engine = m_engine](const QString &id) {
            const auto status = engine ? engine->torrent(id) : std::nullopt;
            return status ? status->name : QString();
        };
        hooks.raise = [this] { m_windows->open(QStringLiteral("player")); };
        hooks.quit = m_options.quit;
        m_mpris = new MprisService(m_player, std::move(hooks), this);
        if (m_engine)
            connect(m_engine, &TorrentEngine::torrentsChanged, m_mpris, &MprisService::refresh);
        if (!m_mpris->start()) {
            delete m_mpris;
            m_mpris = nullptr;
        }
    }
    return true;
}

void AppFrame::hideWindows()
{
    for (const QString &id : m_windows->ids()) {
        if (QQuickWindow *w = m_windows->window(id))
            w->hide();
    }
}

void AppFrame::showMainOn(SingleInstance *instance)
{
    connect(instance, &SingleInstance::showRequested, m_windows, [this] { m_windows->open(QStringLiteral("main")); });
}
