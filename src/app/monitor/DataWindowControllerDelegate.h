#pragma once

namespace pointlane {

// Told when the monitor window closes (the application, which then lets the window go).
// Main thread only.
class DataWindowControllerDelegate {
  public:
    virtual void windowClose() = 0;

  protected:
    ~DataWindowControllerDelegate() = default;
};

}  // namespace pointlane
