// The 1D results of a read that become its labels: a "Move" array with the text of the "Fastq" data
// set, or an "Events" table whose "model_state" field names each block's k-mer. The table is laid
// out from a field list the way a compound data set read from a file is, so that the layout, the
// field types and the string widths are all the input's choice.
//
// Input: byte 0 picks the kind (bit 1: events) and the strand (bit 0: second strand).
//   Moves:  a 16-bit count n, n move bytes, then the Fastq text.
//   Events: a field count (1 to 6), per field a name byte, a type byte and a string-width byte,
//           then the table's bytes, row after row; the rows are as many as the bytes fill.

#include "async_caller/file_data_handler_md.h"
#include "data_api/data_table.h"
#include "fuzz_support.h"

namespace {

// The fields of a real Events table, and one name no table has.
const char* const kNames[] = {"model_state", "mean", "stdv", "start", "length", "move", "other"};
const DataAPI::DataType kTypes[] = {DataAPI::DataType::FixedString, DataAPI::DataType::Float,
                                    DataAPI::DataType::Double,      DataAPI::DataType::Int32,
                                    DataAPI::DataType::Int64,       DataAPI::DataType::UInt64,
                                    DataAPI::DataType::Int8,        DataAPI::DataType::UInt8};
// Rows beyond this add nothing a shorter table does not show, only time.
constexpr std::uint64_t kMaxRows = 1 << 14;

void fromMoves(fuzz::ByteReader& in, bool secondStrand) {
    const std::string bytes = in.TakeBytes(in.Take<std::uint16_t>());
    const std::vector<std::uint8_t> moves(bytes.begin(), bytes.end());
    std::vector<std::int32_t> labels;
    if (AsyncCaller::LabelsFromMoves(moves, in.Rest(), secondStrand, labels)) {
        fuzz::CheckLabels(labels, moves.size());
    }
}

void fromEvents(fuzz::ByteReader& in, bool secondStrand) {
    DataAPI::DataFormat format;
    format.type = DataAPI::DataType::Table;
    const int fields = 1 + in.Take<std::uint8_t>() % 6;
    for (int i = 0; i < fields; ++i) {
        DataAPI::TableField field;
        field.name = kNames[in.Take<std::uint8_t>() % (sizeof(kNames) / sizeof(kNames[0]))];
        field.type = kTypes[in.Take<std::uint8_t>() % (sizeof(kTypes) / sizeof(kTypes[0]))];
        const std::uint8_t width = in.Take<std::uint8_t>();
        field.size = field.type == DataAPI::DataType::FixedString ? 1 + width % 16 : 0;
        format.fields.push_back(field);
    }
    // The record size is known only once the fields are laid out: lay them out once with no rows.
    const std::uint64_t record = DataAPI::DataTable::FromFormat(format).RecordSize();
    const std::string bytes = in.Rest();
    format.count = record == 0 ? 0 : std::min<std::uint64_t>(bytes.size() / record, kMaxRows);
    DataAPI::DataTable table = DataAPI::DataTable::FromFormat(format);
    if (!table.buffer.empty()) {
        std::memcpy(table.buffer.data(), bytes.data(), std::min<std::size_t>(bytes.size(), table.buffer.size()));
    }
    std::vector<std::int32_t> labels;
    AsyncCaller::LabelsFromEvents(table, secondStrand, labels);
    fuzz::CheckLabels(labels, table.Rows());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::ByteReader in(data, size);
    const std::uint8_t kind = in.Take<std::uint8_t>();
    fuzz::Try([&] { (kind & 2) ? fromEvents(in, kind & 1) : fromMoves(in, kind & 1); });
    return 0;
}
