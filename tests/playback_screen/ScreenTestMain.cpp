#include <QGuiApplication>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

#include <gtest/gtest.h>

#include <clocale>

Q_IMPORT_QML_PLUGIN(Velix_PlaybackPlugin)

// These tests draw: they run on a real display (Xvfb with Mesa's software OpenGL), with the
// scene graph on OpenGL as the program sets it.
int main(int argc, char **argv)
{
    QQuickWindow::setGraphicsApi(QSGRendererInterface::OpenGL);
    QGuiApplication app(argc, argv);
    std::setlocale(LC_NUMERIC, "C");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
