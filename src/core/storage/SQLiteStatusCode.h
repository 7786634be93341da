#pragma once

#include <cstdint>
#include <optional>

namespace pointlane {

// The library's primary result codes, plus three of our own (1000 and up).
enum class SQLiteStatusCode : std::int32_t {
    ok = 0,
    error = 1,
    internalLogicError = 2,
    accessPermissionDenied = 3,
    abort = 4,
    busy = 5,
    locked = 6,
    noMemory = 7,
    readOnly = 8,
    interrupt = 9,
    ioError = 10,
    corrupt = 11,
    notFound = 12,
    full = 13,
    cantOpen = 14,
    protocol = 15,
    empty = 16,
    schema = 17,
    tooBig = 18,
    constraint = 19,
    mismatch = 20,
    misuse = 21,
    noLFS = 22,
    authDeniedUTH = 23,
    format = 24,
    range = 25,
    notADatabase = 26,
    row = 100,
    done = 101,
    notReadyToWork = 1000,
    invalidValue = 1001,
    invalidFileFormat = 1002,
};

// Nothing for a value outside the table (27, 28, every extended code, ...).
std::optional<SQLiteStatusCode> sqliteStatusCodeFrom(std::int32_t value);

inline std::int32_t toInt(SQLiteStatusCode code) {
    return static_cast<std::int32_t>(code);
}

}  // namespace pointlane
