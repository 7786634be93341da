#pragma once

#include <QButtonGroup>
#include <QStringList>
#include <QWidget>

class QAbstractButton;

namespace pointlane {

// A row of exclusive, joined push segments; one is always selected. Main thread only.
class SegmentedControl final : public QWidget {
    Q_OBJECT

  public:
    explicit SegmentedControl(const QStringList& labels, QWidget* parent = nullptr);

    int segmentCount() const;
    // The selected segment, -1 when none.
    int selectedSegment() const;
    // Selects segment without emitting activated().
    void setSelectedSegment(int segment);
    QAbstractButton* segment(int index) const;

  signals:
    // The user chose a segment.
    void activated();

  private:
    QButtonGroup group_;
};

}  // namespace pointlane
