// A bounded reader over a byte buffer, used by every parser of untrusted
// bytes (archive headers, the archive symbol table, abbreviation tables,
// DWARF walks). All bounds are checked in one overflow-safe place; the first
// failure is latched and later reads return zeros without touching memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Endian.h"

namespace tamo {

class Cursor {
public:
    Cursor() = default;
    Cursor(const uint8_t* data, size_t size, ByteOrder order = kHostOrder)
        : m_data(data), m_size(data ? size : 0), m_order(order) {}

    bool ok() const { return !m_failed; }
    bool failed() const { return m_failed; }
    bool atEnd() const { return m_failed || m_off >= m_size; }
    size_t offset() const { return m_off; }
    size_t size() const { return m_size; }
    size_t remaining() const { return m_failed ? 0 : m_size - m_off; }
    const uint8_t* data() const { return m_data; }
    const uint8_t* here() const { return m_data + m_off; }
    ByteOrder order() const { return m_order; }

    // True when n more bytes can be read; does not latch.
    bool has(size_t n) const { return !m_failed && n <= m_size - m_off; }

    // Claims n bytes and returns their start, or null (and latches) when they
    // are not there.
    const uint8_t* take(size_t n) {
        if (!has(n)) {
            fail();
            return nullptr;
        }
        const uint8_t* p = m_data + m_off;
        m_off += n;
        return p;
    }

    void skip(size_t n) { take(n); }

    void seek(size_t off) {
        if (m_failed) return;
        if (off > m_size)
            fail();
        else
            m_off = off;
    }

    void fail() { m_failed = true; }

    uint8_t peek() const { return has(1) ? m_data[m_off] : 0; }

    uint8_t u8() {
        const uint8_t* p = take(1);
        return p ? *p : 0;
    }
    uint16_t u16() {
        const uint8_t* p = take(2);
        return p ? load16(p, m_order) : 0;
    }
    uint32_t u32() {
        const uint8_t* p = take(4);
        return p ? load32(p, m_order) : 0;
    }

    // Unsigned LEB128 of any length; keeps the low 32 bits of the value.
    uint32_t uleb() {
        // Most values are of one byte.
        if (!m_failed && m_off < m_size && m_data[m_off] < 0x80) return m_data[m_off++];
        uint32_t value = 0;
        unsigned shift = 0;
        for (;;) {
            const uint8_t* p = take(1);
            if (!p) return 0;
            if (shift < 32) value |= static_cast<uint32_t>(*p & 0x7f) << shift;
            shift += 7;
            if (!(*p & 0x80)) return value;
        }
    }

    // Signed LEB128 of any length; keeps the low 32 bits, sign-extended from
    // the last group when the encoding is shorter than 32 bits.
    int32_t sleb() {
        uint32_t value = 0;
        unsigned shift = 0;
        uint8_t byte = 0;
        for (;;) {
            const uint8_t* p = take(1);
            if (!p) return 0;
            byte = *p;
            if (shift < 32) value |= static_cast<uint32_t>(byte & 0x7f) << shift;
            shift += 7;
            if (!(byte & 0x80)) break;
        }
        if (shift < 32 && (byte & 0x40)) value |= ~0u << shift;
        return static_cast<int32_t>(value);
    }

    // A NUL-terminated string that ends inside the buffer, or null.
    const char* cstr() {
        if (!has(1)) {
            fail();
            return nullptr;
        }
        const void* nul = std::memchr(m_data + m_off, 0, m_size - m_off);
        if (!nul) {
            fail();
            return nullptr;
        }
        const char* s = reinterpret_cast<const char*>(m_data + m_off);
        m_off = static_cast<size_t>(static_cast<const uint8_t*>(nul) - m_data) + 1;
        return s;
    }

private:
    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
    size_t m_off = 0;
    ByteOrder m_order = kHostOrder;
    bool m_failed = false;
};

}  // namespace tamo
