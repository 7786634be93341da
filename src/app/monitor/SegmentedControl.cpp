#include "monitor/SegmentedControl.h"

#include <QHBoxLayout>
#include <QToolButton>

namespace pointlane {

SegmentedControl::SegmentedControl(const QStringList& labels, QWidget* parent)
    : QWidget(parent), group_(this) {
    group_.setExclusive(true);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    for (int i = 0; i < labels.size(); ++i) {
        auto* button = new QToolButton(this);
        button->setText(labels[i]);
        button->setCheckable(true);
        button->setAutoRaise(false);
        button->setMinimumWidth(90);
        button->setToolButtonStyle(Qt::ToolButtonTextOnly);
        group_.addButton(button, i);
        layout->addWidget(button);
    }
    if (!labels.isEmpty()) {
        group_.button(0)->setChecked(true);
    }
    connect(&group_, &QButtonGroup::idClicked, this, [this](int) { emit activated(); });
}

int SegmentedControl::segmentCount() const {
    return static_cast<int>(group_.buttons().size());
}

int SegmentedControl::selectedSegment() const {
    return group_.checkedId();
}

void SegmentedControl::setSelectedSegment(int segment) {
    if (QAbstractButton* button = group_.button(segment)) {
        button->setChecked(true);
    }
}

QAbstractButton* SegmentedControl::segment(int index) const {
    return group_.button(index);
}

}  // namespace pointlane
