#pragma once

#include <any>
#include <memory>
#include <optional>
#include <vector>

#include "support/Mutex.h"

namespace pointlane {

// The rows a record list shows; absent when there is nothing to show.
template <class Record>
using RecordRows = std::optional<std::vector<std::shared_ptr<Record>>>;

// The number of rows, read under the list's mutex (0 when there are none).
template <class Record>
int countRows(Mutex& mutex, const RecordRows<Record>& rows) {
    int count = 0;
    mutex.sync([&] { count = rows ? static_cast<int>(rows->size()) : 0; });
    return count;
}

// The record at row, read under the list's mutex; nothing when the rows shrank after the view
// counted them.
template <class Record>
std::shared_ptr<Record> recordAt(Mutex& mutex, const RecordRows<Record>& rows, int row) {
    std::shared_ptr<Record> record;
    mutex.sync([&] {
        if (rows && row >= 0 && row < static_cast<int>(rows->size())) {
            record = (*rows)[static_cast<std::size_t>(row)];
        }
    });
    return record;
}

// The record at row as a cell's object value (empty when there is none).
template <class Record>
std::any objectAt(Mutex& mutex, const RecordRows<Record>& rows, int row) {
    if (auto record = recordAt(mutex, rows, row)) {
        return record;
    }
    return {};
}

}  // namespace pointlane
