#pragma once
// Little-endian access to fields of a packed wire frame.
//
// Frames come from the network or from a byte buffer, so a field may sit at any address (the
// 64-bit `read_quad` of a read message is at offset 92). Fields are therefore never dereferenced
// as typed pointers: every access goes through a byte-wise load or store, which also keeps the
// wire order little-endian whatever the host. GCC turns these loops into single moves on x86-64.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace IpcTools {

namespace detail {
template <std::size_t N>
struct UnsignedOfSize;
template <>
struct UnsignedOfSize<1> { using type = std::uint8_t; };
template <>
struct UnsignedOfSize<2> { using type = std::uint16_t; };
template <>
struct UnsignedOfSize<4> { using type = std::uint32_t; };
template <>
struct UnsignedOfSize<8> { using type = std::uint64_t; };
}  // namespace detail

template <typename T>
T LoadLe(const unsigned char* p) {
    static_assert(std::is_trivially_copyable<T>::value, "wire fields are plain values");
    using U = typename detail::UnsignedOfSize<sizeof(T)>::type;
    U bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        bits = static_cast<U>(bits | (static_cast<U>(p[i]) << (8 * i)));
    }
    T value;
    std::memcpy(&value, &bits, sizeof(T));
    return value;
}

template <typename T>
void StoreLe(unsigned char* p, T value) {
    static_assert(std::is_trivially_copyable<T>::value, "wire fields are plain values");
    using U = typename detail::UnsignedOfSize<sizeof(T)>::type;
    U bits;
    std::memcpy(&bits, &value, sizeof(T));
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        p[i] = static_cast<unsigned char>(bits >> (8 * i));
    }
}

// A pointer to one little-endian field inside a frame. Copying it copies the pointer, not the value.
template <typename T>
class LeField {
public:
    LeField() = default;
    explicit LeField(unsigned char* where) : m_where(where) {}

    T Get() const { return LoadLe<T>(m_where); }
    void Set(T value) const { StoreLe<T>(m_where, value); }
    unsigned char* Ptr() const { return m_where; }

private:
    unsigned char* m_where = nullptr;
};

// A pointer to `size` consecutive little-endian values inside a frame.
template <typename T>
class LeArray {
public:
    LeArray() = default;
    LeArray(unsigned char* first, std::size_t size) : m_first(first), m_size(size) {}

    std::size_t Size() const { return m_size; }
    std::size_t Bytes() const { return m_size * sizeof(T); }
    unsigned char* Ptr() const { return m_first; }

    // Index checks are the caller's: the count was fixed when the view was made.
    T Get(std::size_t i) const { return LoadLe<T>(m_first + i * sizeof(T)); }
    void Set(std::size_t i, T value) const { StoreLe<T>(m_first + i * sizeof(T), value); }

    void CopyFrom(const T* values, std::size_t count) const {
        for (std::size_t i = 0; i < count && i < m_size; ++i) Set(i, values[i]);
    }
    void CopyTo(T* values) const {
        for (std::size_t i = 0; i < m_size; ++i) values[i] = Get(i);
    }

private:
    unsigned char* m_first = nullptr;
    std::size_t m_size = 0;
};

}  // namespace IpcTools
