#include "data_api/analysis_data.h"

namespace DataAPI {

namespace {
// Stored texts by status value; the spelling is that of the files in circulation.
const char* const kStatusTexts[] = {
    "Workflow status unknown",
    "Workflow Successful",
    "No data found",
    "Required data fields not found",
    "Exception thrown",
    "Basecall could not be performed",
    "Basecall failed quality filters",
    "Mapping could not be performed",
    "Could not classfy the barcode",
};
constexpr int kStatusCount = sizeof(kStatusTexts) / sizeof(kStatusTexts[0]);
}  // namespace

std::string ReturnStatusText(ReturnStatus status) {
    const auto value = static_cast<std::int32_t>(status);
    if (value < 0 || value >= kStatusCount) return "Unknown error";
    return kStatusTexts[value];
}

ReturnStatus ParseReturnStatus(const std::string& text) {
    for (int value = 0; value < kStatusCount; ++value)
        if (text == kStatusTexts[value]) return static_cast<ReturnStatus>(value);
    return ReturnStatus::Unknown;
}

std::string DataSet::ReadString() {
    if (format.type == DataType::String) CheckReadSize(name, 1, format.item_size);
    std::string text;
    DataView view = DataView::OfString(text);
    ReadData(view);
    return text;
}

DataTable DataSet::ReadTable() {
    CheckReadSize(name, format.count, format.item_size);
    DataTable table = DataTable::FromFormat(format);
    DataView view = table.View();
    ReadData(view);
    return table;
}

}  // namespace DataAPI
