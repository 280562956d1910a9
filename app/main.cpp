#include "app/AppDelegate.h"
#include "app/AppFrame.h"
#include "app/BundledRuntime.h"
#include "app/SingleInstance.h"
#include "app/WindowOpener.h"
#include "core/Heartbeat.h"
#include "engine/Storage.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "playback/PlayerModel.h"
#include "remote/ControlServer.h"

#include <QApplication>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QSocketNotifier>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    // Only async-signal-safe work here: the event loop picks the byte up and quits.
    [[maybe_unused]] const ssize_t n = ::write(g_signalPipe[1], &byte, 1);
}

void watchStopSignals(QObject *context)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) != 0)
        return;
    auto *notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [] {
        char byte = 0;
        [[maybe_unused]] const ssize_t n = ::read(g_signalPipe[0], &byte, 1);
        QCoreApplication::quit();
    });
    struct sigaction action{};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

} // namespace

int main(int argc, char **argv)
{
    // Streamed pieces arrive as buffers of up to 16 MiB that live for seconds. By default the
    // allocator raises its mmap threshold after the first such buffer is freed, and from then
    // on serves them from the heap, where the freed megabytes stay with the process: a few
    // seeks into downloaded data left hundreds of MiB resident. A fixed threshold (which also
    // turns the raising off) hands every large buffer back to the system when it is freed.
    mallopt(M_MMAP_THRESHOLD, 512 * 1024);
    // The libraries must find the program's own data files before anything loads them.
    BundledRuntime::configure();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && !hasDisplay())
        qputenv("QT_QPA_PLATFORM", "offscreen");

    // Widgets only for the tray icon's menu; every window is Qt Quick.
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Velix"));
    QCoreApplication::setOrganizationName(QStringLiteral("Velix"));
    QGuiApplication::setDesktopFileName(QStringLiteral("org.velix.Velix"));
    // The video item draws with libmpv's OpenGL renderer, so every window's scene graph runs on
    // OpenGL; it must be chosen before the first window. The offscreen platform has no OpenGL
    // and draws with the software renderer, which still takes window snapshots.
    QQuickWindow::setGraphicsApi(QGuiApplication::platformName() == QLatin1String("offscreen")
                                     ? QSGRendererInterface::Software
                                     : QSGRendererInterface::OpenGL);
    // Closing the last window leaves the process downloading and seeding.
    QGuiApplication::setQuitOnLastWindowClosed(false);
    // Qt resets the locale in its constructor, but libmpv needs LC_NUMERIC "C".
    std::setlocale(LC_NUMERIC, "C");

    const QString home = Storage::home();
    SingleInstance instance(home);
    const QList<QUrl> urls = urlsFromArguments(app.arguments().mid(1));
    if (instance.forwardToRunning(urls))
        return 0;

    // For the benchmarks that watch the main thread's stalls.
    if (Heartbeat::requested())
        new Heartbeat(&app);

    AppDelegate delegate;
    QObject::connect(&instance, &SingleInstance::openRequested, &delegate, &AppDelegate::openUrls);
    delegate.openUrls(urls);
    watchStopSignals(&app);

    delegate.applicationWillFinishLaunching();
    delegate.applicationDidFinishLaunching();

    AppFrame::Options options;
    options.background = delegate.background();
    options.quit = [] { QCoreApplication::quit(); };
    AppFrame frame(delegate.engine(), PlayerModel::shared(), MainUIState::shared(), options);
    frame.start();
    delegate.stopSteps().hideWindows = [&frame] { frame.hideWindows(); };
    if (ControlServer *control = delegate.controlServer())
        control->setWindows(frame.windows());
    frame.showMainOn(&instance);

    if (delegate.background()) {
        std::printf("Velix runs in the background (process %d, data in %s).\n"
                    "Stop it with Ctrl+C or: kill %d\n",
                    static_cast<int>(::getpid()), qPrintable(home), static_cast<int>(::getpid()));
        std::fflush(stdout);
    }

    QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);
    const int code = app.exec();
    delegate.applicationWillTerminate();
    return code;
}
