#include "storage/Estimate.h"

#include "storage/RecordFields.h"
#include "storage/SQLite.h"
#include "support/DateHelpers.h"

namespace pointlane {

using namespace recordfields;

std::shared_ptr<Estimate> Estimate::make(std::optional<std::int64_t> dealId,
                                         const std::optional<std::string>& value) {
    auto text = nonEmptyTrimmed(value);
    if (!dealId || *dealId <= 0 || !text) {
        return nullptr;
    }
    auto estimate = std::make_shared<Estimate>();
    estimate->dealId = *dealId;
    estimate->value = std::move(*text);
    estimate->date = Clock::now();
    return estimate;
}

std::shared_ptr<Estimate> Estimate::fromRow(const RowData& row) {
    const auto dealId = positiveInteger(row, "dealId");
    auto value = nonEmptyText(row, "value");
    const SQLField* dateField = row.find("date");
    const auto dateText = dateField ? dateField->data.textValue() : std::nullopt;
    const auto date = dateText ? parseLocalDateTime(*dateText) : std::nullopt;
    if (!dealId || !value || !date) {
        return nullptr;
    }
    auto estimate = std::make_shared<Estimate>();
    estimate->dealId = *dealId;
    estimate->value = std::move(*value);
    estimate->date = *date;
    return estimate;
}

std::vector<SQLField> Estimate::fieldsArray() const {
    return {{"dealId", DataValue::integer(dealId)},
            {"value", DataValue::text(trimmed(value))},
            {"date", DataValue::text(formatLocalDateTime(date))}};
}

bool Estimate::save() {
    return sqlm().replace("Estimate", fieldsArray());
}

void Estimate::record(std::int64_t dealId, const std::string& value) {
    sqlm().async([dealId, value] {
        if (auto estimate = make(dealId, value)) {
            estimate->save();
        }
    });
}

std::shared_ptr<Estimate> Estimate::estimateFor(std::int64_t deal) {
    const auto rows = sqlm().select("SELECT * FROM Estimate WHERE dealId=:dealId",
                                    {SQLField{"dealId", DataValue::integer(deal)}});
    if (!rows || rows->empty()) {
        return nullptr;
    }
    return fromRow(rows->array.front());
}

}  // namespace pointlane
