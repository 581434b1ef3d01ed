#include "VkPanelHostWindow.h"

#include <QAction>
#include <QDateTime>
#include <QMenuBar>
#include <QMetaObject>
#include <QPlainTextEdit>
#include <QSplitter>

VkPanelHostWindow::VkPanelHostWindow()
    : split_(new QSplitter(Qt::Vertical)), log_(new QPlainTextEdit) {
    setWindowTitle(tr("VkSecurity panel host"));
    log_->setReadOnly(true);
    log_->setPlaceholderText(tr("What the panel reports to its host appears here."));
    log_->setMinimumHeight(120);
    split_->addWidget(log_);
    setCentralWidget(split_);

    QMenu* host = menuBar()->addMenu(tr("&Host"));
    host->addAction(tr("Start &Quick Scan"), this, [this] { call("startQuickScan"); });
    host->addAction(tr("Start &Full Scan"), this, [this] { call("startFullScan"); });
    host->addSeparator();
    host->addAction(tr("File Monitor &On"), this, [this] {
        appendLog("host: setFileMonStat 1");
        QMetaObject::invokeMethod(panel_, "setFileMonStat", Q_ARG(bool, true));
    });
    host->addAction(tr("File Monitor O&ff"), this, [this] {
        appendLog("host: setFileMonStat 0");
        QMetaObject::invokeMethod(panel_, "setFileMonStat", Q_ARG(bool, false));
    });
    host->addSeparator();
    host->addAction(tr("&Quit"), this, &QWidget::close);

    QMenu* notify = menuBar()->addMenu(tr("&Notifications"));
    for (const char* name : {"StartScanNotify", "ReadlyStartScanNotify", "StopScanNotify",
                             "StartCleanNotify", "AllScanEnd"}) {
        QString notification = QString::fromLatin1(name);
        notify->addAction(notification, this, [this, notification] { post(notification); });
    }
}

void VkPanelHostWindow::setPanel(QWidget* panel) {
    panel_ = panel;
    split_->insertWidget(0, panel);
    split_->setStretchFactor(0, 1);
    split_->setCollapsible(0, false);
}

void VkPanelHostWindow::appendLog(const QString& line) {
    log_->appendPlainText(QDateTime::currentDateTime().toString("HH:mm:ss ") + line);
}

void VkPanelHostWindow::call(const char* entryPoint) {
    appendLog(QString("host: %1").arg(entryPoint));
    if (panel_)
        QMetaObject::invokeMethod(panel_, entryPoint);
}

void VkPanelHostWindow::post(const QString& notification) {
    appendLog("host: post " + notification);
    QMetaObject::invokeMethod(panel_, "postHostNotification", Q_ARG(QString, notification));
}
