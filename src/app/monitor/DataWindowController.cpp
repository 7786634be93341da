#include "monitor/DataWindowController.h"

#include <QCloseEvent>
#include <QHBoxLayout>
#include <QVBoxLayout>

#include "monitor/DataWindowControllerDelegate.h"
#include "monitor/SegmentedControl.h"
#include "monitor/StackedView.h"

namespace pointlane {

DataWindowController::DataWindowController(QWidget* parent) : QWidget(parent, Qt::Window) {
    resize(900, 560);
    setMinimumSize(480, 300);
}

void DataWindowController::loadWindow() {
    if (loaded_) {
        return;
    }
    loaded_ = true;

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 8, 0, 0);
    layout->setSpacing(8);

    pageControl =
        new SegmentedControl({QStringLiteral("Players"), QStringLiteral("History")}, this);
    connect(pageControl, &SegmentedControl::activated, this,
            [this] { viewSelectionDidChange(pageControl); });
    auto* bar = new QHBoxLayout();
    bar->addStretch(1);
    bar->addWidget(pageControl);
    bar->addStretch(1);
    layout->addLayout(bar);

    stackedView = new StackedView(this);
    layout->addWidget(stackedView, 1);

    windowDidLoad();
}

void DataWindowController::windowDidLoad() {
    setWindowTitle(QString::fromLatin1(kTitle));
}

void DataWindowController::viewSelectionDidChange(QObject* sender) {
    auto* control = qobject_cast<SegmentedControl*>(sender);
    if (control == nullptr || !stackedView) {
        return;
    }
    switch (control->selectedSegment()) {
        case static_cast<int>(StackedViewIndex::players):
            stackedView->changeView(StackedViewIndex::players);
            break;
        case static_cast<int>(StackedViewIndex::history):
            stackedView->changeView(StackedViewIndex::history);
            break;
        default:
            break;
    }
}

void DataWindowController::showEvent(QShowEvent* event) {
    // Shown without the application's help: build it now, title included.
    loadWindow();
    QWidget::showEvent(event);
}

void DataWindowController::closeEvent(QCloseEvent* event) {
    QWidget::closeEvent(event);
    if (event->isAccepted()) {
        windowWillClose();
    }
}

void DataWindowController::windowWillClose() {
    if (delegate != nullptr) {
        delegate->windowClose();
    }
}

}  // namespace pointlane
