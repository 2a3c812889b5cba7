// Test programs run their tests inside a Qt application so that timers,
// queued calls and processEvents behave as in a host. Programs that draw
// text (KORUX_TEST_GUI) get a GUI application on Qt's minimal platform with
// fonts, as korux runs one.
#ifdef KORUX_TEST_GUI
#include <QGuiApplication>
#else
#include <QCoreApplication>
#endif

#include <gtest/gtest.h>

#ifdef KORUX_TEST_GUI
namespace {

QtMessageHandler qtHandler = nullptr;

// Qt's complaint about a missing runtime directory says nothing to a test.
void filterMessages(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (!message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")) && qtHandler)
        qtHandler(type, context, message);
}

} // namespace
#endif

int main(int argc, char** argv)
{
#ifdef KORUX_TEST_GUI
    qputenv("QT_QPA_PLATFORM", "minimal:enable_fonts");
    qtHandler = qInstallMessageHandler(filterMessages);
    QGuiApplication app(argc, argv);
#else
    QCoreApplication app(argc, argv);
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
