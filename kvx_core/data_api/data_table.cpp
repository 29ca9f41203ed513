#include "data_api/data_table.h"

#include <algorithm>

namespace DataAPI {

namespace {
std::uint64_t roundUp(std::uint64_t value, std::uint64_t to) {
    return to == 0 ? value : (value + to - 1) / to * to;
}
}  // namespace

void LayoutField(std::vector<TableField>& fields, std::uint64_t& record_size, const std::string& name,
                 DataType type, std::uint64_t size, bool validate) {
    const auto raw = static_cast<std::int32_t>(type);
    if (validate) {
        if (raw < 0 || type == DataType::String || raw >= static_cast<std::int32_t>(DataType::Table))
            throw std::runtime_error("Invalid data type for data table field.");
        if (size == 0) {
            if (type == DataType::FixedString) throw std::runtime_error("Must specify a size for string fields.");
            size = NaturalSize(type);
        } else if (type != DataType::FixedString && size != NaturalSize(type)) {
            throw std::runtime_error("Specified type size does not match actual type size.");
        }
    }
    const std::uint64_t align = type == DataType::FixedString ? 4 : std::max<std::uint64_t>(size, 1);
    TableField field;
    field.name = name;
    field.type = type;
    field.size = size;
    field.offset = roundUp(record_size, align);
    fields.push_back(field);
    // The spare byte behind a fixed-width string keeps a terminator even when the text fills it.
    record_size = field.offset + size + (type == DataType::FixedString ? 1 : 0);
}

std::uint64_t PaddedRecordSize(std::uint64_t record_size) { return roundUp(record_size, 8); }

DataTable DataTable::FromFormat(const DataFormat& format) {
    DataTable table;
    for (const TableField& f : format.fields) table.AddField(f.name, f.type, f.size);
    table.Resize(format.count);
    return table;
}

void DataTable::AddField(const std::string& name, DataType type, std::uint64_t size) {
    if (sized_) throw std::runtime_error("Cannot add a field to a data table after its rows are allocated.");
    LayoutField(fields, record_size, name, type, size, true);
    index[name] = fields.size() - 1;
}

void DataTable::Resize(std::uint64_t rows) {
    record_size = PaddedRecordSize(record_size);
    sized_ = true;
    rows_ = rows;
    buffer.assign(record_size * rows, 0);
}

const TableField& DataTable::Field(const std::string& name) const {
    auto it = index.find(name);
    if (it == index.end()) throw std::runtime_error("Data table has no field '" + name + "'.");
    return fields[it->second];
}

const TableField& DataTable::checkedField(const std::string& name, DataType type) const {
    const TableField& f = Field(name);
    if (f.type != type)
        throw std::runtime_error("Data table field '" + name + "' is of type " + DataTypeName(f.type) +
                                 ", not " + DataTypeName(type) + ".");
    return f;
}

const std::uint8_t* DataTable::at(std::uint64_t row, const TableField& f) const {
    if (row >= rows_) throw std::out_of_range("Data table row out of range.");
    return buffer.data() + row * record_size + f.offset;
}

std::uint8_t* DataTable::at(std::uint64_t row, const TableField& f) {
    if (row >= rows_) throw std::out_of_range("Data table row out of range.");
    return buffer.data() + row * record_size + f.offset;
}

DataView DataTable::View() {
    if (!sized_) Resize(0);
    DataView v;
    v.data = buffer.data();
    v.format.type = DataType::Table;
    v.format.item_size = record_size;
    v.format.count = rows_;
    v.format.fields = fields;
    return v;
}

std::string DataTable::GetString(std::uint64_t row, const std::string& field) const {
    const TableField& f = checkedField(field, DataType::FixedString);
    const char* p = reinterpret_cast<const char*>(at(row, f));
    return std::string(p, std::find(p, p + f.size, '\0'));
}

void DataTable::SetString(std::uint64_t row, const std::string& field, const std::string& text) {
    const TableField& f = checkedField(field, DataType::FixedString);
    std::uint8_t* p = at(row, f);
    std::memset(p, 0, f.size);
    std::memcpy(p, text.data(), std::min<std::uint64_t>(text.size(), f.size));
}

}  // namespace DataAPI
