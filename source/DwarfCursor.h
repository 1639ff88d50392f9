// The cursor pair of the DWARF walks: a source and a destination of the same
// size (the same buffer for a conversion in place) read and written
// together. "Convert" reverses a field's bytes into the destination, "copy"
// moves them unchanged.
//
// Every step is checked, in one place, against the end of the range being
// walked before a byte is read or written. The first step that does not fit
// latches a failure and leaves the position where that step began; later
// steps do nothing. A walk then copies the rest of its range unchanged from
// there, so that malformed input is never read or written outside the
// buffers and nothing is lost.
//
// Values a walk needs (lengths, offsets) are decoded from whichever side is
// in host order: the source when it is (srcNative), else the source's bytes
// reversed, which is what the destination receives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Endian.h"

namespace tamo::dwarf {

class CursorPair {
public:
    CursorPair(const uint8_t* src, uint8_t* dst, size_t size, bool srcNative)
        : m_src(src), m_dst(dst), m_size(size), m_end(size), m_inPlace(src == dst), m_srcNative(srcNative) {}

    size_t pos() const { return m_pos; }
    size_t end() const { return m_end; }
    size_t size() const { return m_size; }
    bool ok() const { return !m_failed; }
    bool failed() const { return m_failed; }
    bool srcNative() const { return m_srcNative; }

    // n more bytes lie inside the range.
    bool has(size_t n) const { return !m_failed && n <= m_end - m_pos; }
    // The next source byte (0 past the end, without failing).
    uint8_t peek() const { return m_pos < m_end ? m_src[m_pos] : 0; }

    // Narrows the range to end at `end` (which must not pass the current
    // end); returns the old end for restore().
    size_t limit(size_t end) {
        const size_t old = m_end;
        if (end < m_pos || end > m_end)
            fail();
        else
            m_end = end;
        return old;
    }
    void restore(size_t end) { m_end = end; }

    void fail() { m_failed = true; }

    // Copies the rest of the range (or up to `to`) unchanged and clears a
    // failure: the walk resumes there.
    void copyRest() { copyTo(m_end); }
    void copyTo(size_t to) {
        m_failed = false;
        if (to > m_end) to = m_end;
        if (to > m_pos) {
            move(to - m_pos);
            m_pos = to;
        }
    }

    // The host-order value of the n-byte (1 to 8) field at absolute offset
    // `at`, without moving; false when it is not inside the range.
    bool valueAt(size_t at, size_t n, uint64_t& v) const {
        if (m_failed || at > m_end || n > m_end - at || n > 8) return false;
        v = decode(m_src + at, n);
        return true;
    }

    bool CopyN(size_t n) {
        if (!has(n)) return failStep();
        move(n);
        m_pos += n;
        return true;
    }

    // Converts an n-byte field.
    bool Swap(size_t n) {
        if (!has(n)) return failStep();
        if (m_inPlace) {
            reverseInPlace(m_dst + m_pos, n);
        } else {
            for (size_t i = 0; i < n; ++i) m_dst[m_pos + i] = m_src[m_pos + n - 1 - i];
        }
        m_pos += n;
        return true;
    }

    // Converts an n-byte (1 to 8) field and yields its host-order value.
    bool ReadAndSwap(size_t n, uint64_t& v) {
        if (n > 8 || !has(n)) return failStep();
        v = decode(m_src + m_pos, n);
        return Swap(n);
    }

    // Copies one byte and yields it.
    bool Byte(uint8_t& b) {
        if (!has(1)) return failStep();
        b = m_src[m_pos];
        return CopyN(1);
    }

    // Copies a LEB128 number (any length; the value keeps its low 64 bits).
    bool Uleb(uint64_t* value = nullptr) {
        uint64_t v = 0;
        unsigned shift = 0;
        size_t i = m_pos;
        for (;;) {
            if (m_failed || i >= m_end) return failStep();
            const uint8_t b = m_src[i++];
            if (shift < 64) v |= static_cast<uint64_t>(b & 0x7f) << shift;
            shift += 7;
            if (!(b & 0x80)) break;
        }
        if (value) *value = v;
        return CopyN(i - m_pos);
    }

    // Copies a NUL-terminated string with its NUL.
    bool CopyString() {
        if (!has(1)) return failStep();
        const void* nul = std::memchr(m_src + m_pos, 0, m_end - m_pos);
        if (!nul) return failStep();
        return CopyN(static_cast<size_t>(static_cast<const uint8_t*>(nul) - (m_src + m_pos)) + 1);
    }

    const uint8_t* source() const { return m_src; }

private:
    bool failStep() {
        m_failed = true;
        return false;
    }
    void move(size_t n) {
        if (!m_inPlace && n) std::memcpy(m_dst + m_pos, m_src + m_pos, n);
    }
    uint64_t decode(const uint8_t* p, size_t n) const {
        // The source holds host order when srcNative; otherwise its bytes
        // read reversed.
        const bool bigEndianValue = (kHostOrder == ByteOrder::Big) == m_srcNative;
        uint64_t v = 0;
        for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(p[bigEndianValue ? n - 1 - i : i]) << (8 * i);
        return v;
    }

    const uint8_t* m_src;
    uint8_t* m_dst;
    size_t m_size;
    size_t m_pos = 0;
    size_t m_end;
    bool m_inPlace;
    bool m_srcNative;
    bool m_failed = false;
};

}  // namespace tamo::dwarf
