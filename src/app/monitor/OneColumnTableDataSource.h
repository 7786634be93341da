#pragma once

#include <any>

namespace pointlane {

// Where a OneColumnTableView gets its rows. Called on the main thread; implementations
// guard their rows against writers on other threads.
class OneColumnTableDataSource {
  public:
    // How many rows there are.
    virtual int numberOfRows() = 0;
    // The record shown in row, or an empty value when row lies outside the data.
    virtual std::any objectValue(int row) = 0;

  protected:
    ~OneColumnTableDataSource() = default;
};

}  // namespace pointlane
