#pragma once
// A buffer of fixed-size records laid out from named fields: the in-memory form of a compound
// data set such as an "Events" table, for reading it row by row or for building one to write.
//
// Layout rule: a numeric field is aligned to its own size, a fixed-width string to 4 and followed
// by one spare byte that keeps a terminator; records are padded to a multiple of 8 once rows are
// allocated. The HDF5 layer lays out compound formats read from files by the same rule, so a
// table built from a data set's format always matches it.

#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "data_api/data_view.h"

namespace DataAPI {

// Appends one field to `fields` by the layout rule and advances `record_size`. With `validate`
// (the public path) the type and size are checked with the messages of AddField; without it any
// type is accepted and Unknown fields are aligned to their size (used for formats read from
// files, where the member kinds are whatever the file holds).
void LayoutField(std::vector<TableField>& fields, std::uint64_t& record_size, const std::string& name,
                 DataType type, std::uint64_t size, bool validate);

// `record_size` rounded up to a multiple of 8, the record stride of tables in memory.
std::uint64_t PaddedRecordSize(std::uint64_t record_size);

class DataTable {
public:
    DataTable() = default;

    // A table with the fields of a compound format (as from DataSet::Format()), sized for its rows.
    static DataTable FromFormat(const DataFormat& format);

    // Adds a field; `size` 0 takes the natural size and is required for FixedString. Fails with
    // "Invalid data type for data table field.", "Must specify a size for string fields." or
    // "Specified type size does not match actual type size.". A repeated name is reachable only
    // through its last field.
    void AddField(const std::string& name, DataType type, std::uint64_t size = 0);

    // Pads the record to a multiple of 8 and sizes the buffer for `rows` zeroed records. Fields
    // cannot be added afterwards.
    void Resize(std::uint64_t rows);
    std::uint64_t Rows() const { return rows_; }
    std::uint64_t RecordSize() const { return record_size; }
    const std::vector<TableField>& Fields() const { return fields; }
    bool HasField(const std::string& name) const { return index.count(name) != 0; }
    const TableField& Field(const std::string& name) const;

    // A Table view over the buffer, for reading into it or for creating a data set from it.
    DataView View();

    // Typed access; the field's type must be exactly T's DataType.
    template <typename T>
    T Get(std::uint64_t row, const std::string& field) const {
        const TableField& f = checkedField(field, DataTypeOf<T>::value);
        T out;
        std::memcpy(&out, at(row, f), sizeof(T));
        return out;
    }
    template <typename T>
    void Set(std::uint64_t row, const std::string& field, T value) {
        const TableField& f = checkedField(field, DataTypeOf<T>::value);
        std::memcpy(at(row, f), &value, sizeof(T));
    }
    // Text of a FixedString field up to its first zero byte.
    std::string GetString(std::uint64_t row, const std::string& field) const;
    // Stores at most the field's size; the remainder is zero-filled.
    void SetString(std::uint64_t row, const std::string& field, const std::string& text);
    // Address of a field in a row: row * record_size + offset.
    const std::uint8_t* at(std::uint64_t row, const TableField& f) const;
    std::uint8_t* at(std::uint64_t row, const TableField& f);

    std::vector<std::uint8_t> buffer;
    std::vector<TableField> fields;
    std::map<std::string, std::size_t> index;
    std::uint64_t record_size = 0;

private:
    const TableField& checkedField(const std::string& name, DataType type) const;
    std::uint64_t rows_ = 0;
    bool sized_ = false;
};

}  // namespace DataAPI
