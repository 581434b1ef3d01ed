// vkpanelhost: a small host application for the security panel. It loads the panel's
// library at run time, shows the panel in a window and plays the host's part: its menus
// call the panel's entry points and post the host's notifications, and its log pane shows
// what the panel reports to the host and the notifications it posts.
#include <QApplication>
#include <QCommandLineParser>
#include <QLibrary>
#include <QMessageBox>
#include <QTimer>
#include <cstdio>

#include "VkPanelHostWindow.h"
#include "panel/VkSecurityEntry.h"
#include "platform/VkInstallLayout.h"

namespace {

void hostLog(const char* line, void* user) {
    static_cast<VkPanelHostWindow*>(user)->appendLog(QString::fromUtf8(line));
}

// The panel's own notifications, one line each, so the host's part can be watched.
void hostNotify(const char* name, const char* detail, void* user) {
    QString line = QString("panel: %1").arg(QString::fromUtf8(name));
    if (detail && *detail)
        line += " " + QString::fromUtf8(detail);
    static_cast<VkPanelHostWindow*>(user)->appendLog(line);
}

// The plug-in installed beside the host's own tree first, the build tree's only when the host
// runs from one (see VkInstallLayout).
QString findLibrary(const QString& given) {
    if (!given.isEmpty())
        return given;
    return QString::fromStdString(VkInstallLayout::current().panelLibrary());
}

}  // namespace

int main(int argc, char** argv) {
    QApplication::setApplicationName("vkpanelhost");
    QApplication::setApplicationVersion(VK_VERSION);
    QCommandLineParser parser;
    parser.setApplicationDescription("Shows the VkSecurity panel in a window of its own.");
    QCommandLineOption help = parser.addHelpOption();
    QCommandLineOption version = parser.addVersionOption();
    QCommandLineOption dataDir("data-dir", "Data folder (signature databases, logs, quarantine).",
                               "folder");
    QCommandLineOption root("root", "Root of the inspected system (default /).", "folder");
    QCommandLineOption library("library", "The panel library to load.", "file");
    QCommandLineOption keepDays("logs-keep-days", "Days of scan history to keep (default 30).",
                                "days", "30");
    QCommandLineOption screenshot(
        "screenshot", "Save a picture of the window to the file after a moment and quit.", "file");
    parser.addOptions({dataDir, root, library, keepDays, screenshot});

    // --help and --version answer before the window system is reached, so they work without a
    // display. Anything the pre-check does not understand (Qt's own -platform, a mistake) is
    // left to the full parse below.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    if (parser.parse(arguments) && (parser.isSet(help) || parser.isSet(version))) {
        // Without an application object Qt names no program in the usage line.
        QString text = parser.isSet(help)
                           ? parser.helpText().replace("<executable_name>", "vkpanelhost")
                           : QString("vkpanelhost %1\n").arg(VK_VERSION);
        std::fputs(qPrintable(text), stdout);
        return 0;
    }

    QApplication app(argc, argv);
    parser.process(app);

    QString path = findLibrary(parser.value(library));
    QLibrary panelLibrary(path);
    auto create =
        reinterpret_cast<VkSecurityCreatePanelFn>(panelLibrary.resolve(VK_SECURITY_CREATE_PANEL));
    if (!create) {
        QString message =
            QString("Cannot load the panel from %1: %2").arg(path, panelLibrary.errorString());
        std::fprintf(stderr, "vkpanelhost: %s\n", qPrintable(message));
        // A screenshot run has nobody to click a dialog away (it may be offscreen).
        if (!parser.isSet(screenshot))
            QMessageBox::critical(nullptr, "vkpanelhost", message);
        return 2;
    }

    QByteArray dataFolder = parser.value(dataDir).toUtf8();
    QByteArray systemRoot = parser.value(root).toUtf8();
    // The window exists before the panel so that the panel's first reports have a pane to
    // go to; the panel is put into it right after.
    auto* window = new VkPanelHostWindow;
    VkPanelHostOptions options{dataFolder.isEmpty() ? nullptr : dataFolder.constData(),
                               systemRoot.isEmpty() ? nullptr : systemRoot.constData(),
                               &hostLog,
                               window,
                               parser.value(keepDays).toInt(),
                               &hostNotify};
    QWidget* panel = create(nullptr, &options);
    window->setPanel(panel);
    window->show();
    if (parser.isSet(screenshot)) {
        QString file = parser.value(screenshot);
        QTimer::singleShot(1500, window, [window, file] {
            if (!window->grab().save(file)) {
                std::fprintf(stderr, "vkpanelhost: cannot write %s\n", qPrintable(file));
                QCoreApplication::exit(1);
                return;
            }
            QCoreApplication::quit();
        });
    }
    int status = app.exec();
    delete window;
    return status;
}
