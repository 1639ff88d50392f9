// Byte order: the one place that knows how to load, store and reverse
// multi-byte numbers. Hot loops take the order as a template parameter; the
// runtime choice is made once, at the top of a conversion.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace tamo {

// EI_DATA values.
enum class ByteOrder : uint8_t { Little = 1, Big = 2 };

inline constexpr ByteOrder kHostOrder = std::endian::native == std::endian::little ? ByteOrder::Little : ByteOrder::Big;
static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big,
              "mixed-endian hosts are not supported");

inline constexpr uint16_t bswap16(uint16_t v) { return static_cast<uint16_t>((v >> 8) | (v << 8)); }
inline constexpr uint32_t bswap32(uint32_t v) { return __builtin_bswap32(v); }
inline constexpr uint64_t bswap64(uint64_t v) { return __builtin_bswap64(v); }

template <class T>
inline T loadRaw(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class T>
inline void storeRaw(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

// Value of a field stored in order O.
template <ByteOrder O>
inline uint16_t load16(const void* p) {
    uint16_t v = loadRaw<uint16_t>(p);
    return O == kHostOrder ? v : bswap16(v);
}
template <ByteOrder O>
inline uint32_t load32(const void* p) {
    uint32_t v = loadRaw<uint32_t>(p);
    return O == kHostOrder ? v : bswap32(v);
}
template <ByteOrder O>
inline void store16(void* p, uint16_t v) {
    storeRaw(p, O == kHostOrder ? v : bswap16(v));
}
template <ByteOrder O>
inline void store32(void* p, uint32_t v) {
    storeRaw(p, O == kHostOrder ? v : bswap32(v));
}

inline uint16_t load16(const void* p, ByteOrder o) {
    return o == ByteOrder::Big ? load16<ByteOrder::Big>(p) : load16<ByteOrder::Little>(p);
}
inline uint32_t load32(const void* p, ByteOrder o) {
    return o == ByteOrder::Big ? load32<ByteOrder::Big>(p) : load32<ByteOrder::Little>(p);
}
inline void store16(void* p, uint16_t v, ByteOrder o) {
    o == ByteOrder::Big ? store16<ByteOrder::Big>(p, v) : store16<ByteOrder::Little>(p, v);
}
inline void store32(void* p, uint32_t v, ByteOrder o) {
    o == ByteOrder::Big ? store32<ByteOrder::Big>(p, v) : store32<ByteOrder::Little>(p, v);
}

// Reverses the n bytes at p in place.
inline void reverseInPlace(uint8_t* p, size_t n) {
    for (size_t i = 0, j = n; i + 1 < j; ++i) {
        --j;
        uint8_t t = p[i];
        p[i] = p[j];
        p[j] = t;
    }
}

// Reverses a 2- or 4-byte field from src into dst (src == dst allowed).
inline void swapField2(const uint8_t* src, uint8_t* dst) { storeRaw(dst, bswap16(loadRaw<uint16_t>(src))); }
inline void swapField4(const uint8_t* src, uint8_t* dst) { storeRaw(dst, bswap32(loadRaw<uint32_t>(src))); }

}  // namespace tamo
