// The panel tests need a QApplication for their whole run; without a display they draw
// offscreen (CTest sets QT_QPA_PLATFORM, a direct run gets the same default here).
#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    // One style everywhere, so pictures and sizes do not depend on the desktop.
    QApplication::setStyle("Fusion");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
