#include <QGuiApplication>

#include <gtest/gtest.h>

#include <clocale>

int main(int argc, char **argv)
{
    // Tests run headless; a GUI application object on the offscreen platform serves both the
    // models that need one and those that only need an event loop.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    // Qt resets the locale in its constructor; libmpv needs LC_NUMERIC "C".
    std::setlocale(LC_NUMERIC, "C");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
