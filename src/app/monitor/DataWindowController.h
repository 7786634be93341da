#pragma once

#include <QPointer>
#include <QWidget>

namespace pointlane {

class DataWindowControllerDelegate;
class SegmentedControl;
class StackedView;

// The monitor window: a two-segment page control ("Players", "History") over a StackedView
// with the players page and the history page. The window is built by loadWindow() (or when it
// is first shown); closing it tells the delegate, which lets the controller go afterwards.
//
// Main thread only.
class DataWindowController final : public QWidget {
    Q_OBJECT

  public:
    static constexpr const char* kTitle = "Pointlane v.1.0 Base";

    explicit DataWindowController(QWidget* parent = nullptr);

    // Builds the window's content once, then windowDidLoad().
    void loadWindow();
    bool isWindowLoaded() const { return loaded_; }

    // Action of the page control: segment 0 shows the players, 1 the history. Another
    // segment, or a sender that is not the page control's kind, changes nothing.
    void viewSelectionDidChange(QObject* sender);

    // Non-owning: the application, which outlives the window.
    DataWindowControllerDelegate* delegate = nullptr;
    // Set by loadWindow().
    QPointer<StackedView> stackedView;
    QPointer<SegmentedControl> pageControl;

  protected:
    void windowDidLoad();
    void windowWillClose();

    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

  private:
    bool loaded_ = false;
};

}  // namespace pointlane
