// Window tests draw: they run on an X server of their own (Xvfb with Mesa's software OpenGL),
// started here before the application object, so they never touch the user's screen and run
// the same on a machine without one.

#include <QApplication>
#include <QProcess>
#include <QQuickWindow>
#include <QSGRendererInterface>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>

namespace {

QProcess *startDisplay()
{
    auto *server = new QProcess;
    server->setProcessChannelMode(QProcess::SeparateChannels);
    // -displayfd picks a free display number and writes it to our end of stdout.
    server->start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                                           QStringLiteral("0"), QStringLiteral("1920x1080x24"), QStringLiteral("-nolisten"),
                                           QStringLiteral("tcp")});
    if (!server->waitForStarted(10000))
        return nullptr;
    while (!server->canReadLine() && server->waitForReadyRead(20000)) {
    }
    const QByteArray number = server->readLine().trimmed();
    if (number.isEmpty())
        return nullptr;
    qputenv("DISPLAY", ":" + number);
    return server;
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Listing the tests needs no display.
    if (::testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    QProcess *display = startDisplay();
    if (!display) {
        std::fprintf(stderr, "window tests: no X server could start\n");
        return 1;
    }
    qputenv("QT_QPA_PLATFORM", "xcb");
    // No desktop session here: the program's own theme choices apply.
    qunsetenv("XDG_CURRENT_DESKTOP");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::OpenGL);
    int code = 0;
    {
        QApplication app(argc, argv);
        std::setlocale(LC_NUMERIC, "C");
        code = RUN_ALL_TESTS();
    }
    display->terminate();
    display->waitForFinished(5000);
    delete display;
    return code;
}
