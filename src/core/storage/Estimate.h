#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pointlane {

struct RowData;
struct SQLField;

// The final estimate a team agreed on for a deal; table "Estimate", keyed by the deal: one per
// deal, and recording another replaces it.
// Threading: a record is used by one thread at a time; the queries run on the caller's thread.
class Estimate final {
  public:
    using Clock = std::chrono::system_clock;

    // Deal id above 0, trimmed value non-empty; date = now. nullptr otherwise.
    static std::shared_ptr<Estimate> make(std::optional<std::int64_t> dealId,
                                          const std::optional<std::string>& value);
    static std::shared_ptr<Estimate> fromRow(const RowData& row);

    // Stores it, replacing the deal's earlier estimate; true on success.
    bool save();
    // Makes the estimate and saves it on the database queue (the final estimate the table
    // records reaches the database this way).
    static void record(std::int64_t dealId, const std::string& value);

    // The deal's estimate; nullptr when it has none.
    static std::shared_ptr<Estimate> estimateFor(std::int64_t deal);

    std::int64_t dealId = 0;
    std::string value;
    Clock::time_point date;

  private:
    std::vector<SQLField> fieldsArray() const;
};

}  // namespace pointlane
