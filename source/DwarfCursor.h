// The cursor pair of the DWARF walks: a source and a destination of the same
// size (the same buffer for a conversion in place) read and written
// together. "Convert" reverses a field's bytes into the destination, "copy"
// moves them unchanged.
//
// Every step is checked, in one place, against the end of the range being
// walked before a byte is read or written. The first step that does not fit
// latches a failure and leaves the position where that step began; the
// failure closes the range, so later steps do nothing. A walk then copies
// the rest of its range unchanged from there, so that malformed input is
// never read or written outside the buffers and nothing is lost.
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

// A field reversed inside a record of known size.
struct Reversal {
    uint32_t offset;
    uint8_t width;
};

// Whether source and destination are the same buffer: known when the pair
// is made (Either), or fixed at compile time for the walks' hot loops.
enum class Buffers { Either, Same, Distinct };

template <Buffers B>
class BasicCursorPair {
public:
    BasicCursorPair(const uint8_t* src, uint8_t* dst, size_t size, bool srcNative)
        : m_src(src),
          m_dst(dst),
          m_size(size),
          m_end(size),
          m_limit(size),
          m_inPlace(src == dst),
          m_srcNative(srcNative) {}

    // The same pair with another view of its buffers (the state is copied).
    template <Buffers O>
    explicit BasicCursorPair(const BasicCursorPair<O>& o)
        : m_src(o.m_src),
          m_dst(o.m_dst),
          m_size(o.m_size),
          m_pos(o.m_pos),
          m_end(o.m_end),
          m_limit(o.m_limit),
          m_inPlace(o.m_inPlace),
          m_srcNative(o.m_srcNative),
          m_failed(o.m_failed) {}

    // A pair over the range [pos, end) of the same buffers.
    BasicCursorPair(const uint8_t* src, uint8_t* dst, size_t size, bool srcNative, size_t pos, size_t end)
        : BasicCursorPair(src, dst, size, srcNative) {
        m_pos = pos;
        m_end = m_limit = end;
    }

    bool inPlace() const {
        if constexpr (B == Buffers::Either)
            return m_inPlace;
        else
            return B == Buffers::Same;
    }
    uint8_t* destination() const { return m_dst; }

    size_t pos() const { return m_pos; }
    size_t end() const { return m_limit; }
    size_t size() const { return m_size; }
    bool ok() const { return !m_failed; }
    bool failed() const { return m_failed; }
    bool srcNative() const { return m_srcNative; }

    // n more bytes lie inside the range (none after a failure).
    bool has(size_t n) const { return n <= m_end - m_pos; }
    // The next source byte (0 past the end, without failing).
    uint8_t peek() const { return m_pos < m_end ? m_src[m_pos] : 0; }
    // The next source byte; only after has(1).
    uint8_t peekInRange() const { return m_src[m_pos]; }

    // Narrows the range to end at `end` (which must not pass the current
    // end); returns the old end for restore().
    size_t limit(size_t end) {
        const size_t old = m_limit;
        if (m_failed || end < m_pos || end > m_limit) {
            fail();
        } else {
            m_limit = m_end = end;
        }
        return old;
    }
    void restore(size_t end) {
        m_limit = end;
        if (!m_failed) m_end = end;
    }

    void fail() {
        m_failed = true;
        m_end = m_pos;
    }

    // Copies the rest of the range (or up to `to`) unchanged and clears a
    // failure: the walk resumes there.
    void copyRest() { copyTo(m_limit); }
    void copyTo(size_t to) {
        m_failed = false;
        m_end = m_limit;
        if (to > m_end) to = m_end;
        if (to > m_pos) {
            move(to - m_pos);
            m_pos = to;
        }
    }

    // The host-order value of the n-byte (1 to 8) field at absolute offset
    // `at`, without moving; false when it is not inside the range.
    bool valueAt(size_t at, size_t n, uint64_t& v) const {
        if (at > m_end || n > m_end - at || n > 8) return false;
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
        if (inPlace()) {
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
        if (m_pos < m_end && m_src[m_pos] < 0x80) {  // one byte, the usual case
            if (value) *value = m_src[m_pos];
            if (!inPlace()) m_dst[m_pos] = m_src[m_pos];
            ++m_pos;
            return true;
        }
        uint64_t v = 0;
        unsigned shift = 0;
        size_t i = m_pos;
        for (;;) {
            if (i >= m_end) return failStep();
            const uint8_t b = m_src[i++];
            if (shift < 64) v |= static_cast<uint64_t>(b & 0x7f) << shift;
            shift += 7;
            if (!(b & 0x80)) break;
        }
        if (value) *value = v;
        return CopyN(i - m_pos);
    }

    // A record of `size` bytes whose `count` listed fields are reversed and
    // whose other bytes are copied: one bounds check for all of them.
    template <class Field>
    bool Record(size_t size, const Field* fields, size_t count) {
        if (!has(size)) return failStep();
        uint8_t* d = m_dst + m_pos;
        if (!inPlace()) std::memcpy(d, m_src + m_pos, size);
        switch (count) {  // entries have few reversed fields: unrolled
            default:
                for (size_t i = 4; i < count; ++i) reverse(d, fields[i]);
                [[fallthrough]];
            case 4:
                reverse(d, fields[3]);
                [[fallthrough]];
            case 3:
                reverse(d, fields[2]);
                [[fallthrough]];
            case 2:
                reverse(d, fields[1]);
                [[fallthrough]];
            case 1:
                reverse(d, fields[0]);
                [[fallthrough]];
            case 0:
                break;
        }
        m_pos += size;
        return true;
    }

    // A record whose reversed fields are all 4-byte words: two reversals
    // (four when r.words says so), without a branch on how many there are
    // (those marked in r.scratch land on a scratch word and change nothing).
    template <class QuickRecord>
    bool WordRecord(const QuickRecord& r) {
        if (!has(r.size)) return failStep();
        uint8_t* d = m_dst + m_pos;
        if (!inPlace()) std::memcpy(d, m_src + m_pos, r.size);
        uint8_t scratch[4] = {};
        auto word = [&](int i) {
            uint8_t* p = (r.scratch >> i) & 1 ? scratch : d + r.offset[i];
            storeRaw(p, bswap32(loadRaw<uint32_t>(p)));
        };
        word(0);
        word(1);
        if (r.words > 2) {
            word(2);
            word(3);
        }
        m_pos += r.size;
        return true;
    }

    // Moves past n bytes that another walk over the same buffers has
    // already written.
    bool Handled(size_t n) {
        if (!has(n)) return failStep();
        m_pos += n;
        return true;
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
    template <Buffers>
    friend class BasicCursorPair;

    template <class Field>
    static void reverse(uint8_t* d, const Field& f) {
        if (f.width == 4)  // the usual field
            storeRaw(d + f.offset, bswap32(loadRaw<uint32_t>(d + f.offset)));
        else
            reverseField(d + f.offset, f.width);
    }
    static void reverseField(uint8_t* p, uint8_t width) {
        switch (width) {
            case 2:
                storeRaw(p, bswap16(loadRaw<uint16_t>(p)));
                break;
            case 4:
                storeRaw(p, bswap32(loadRaw<uint32_t>(p)));
                break;
            case 8:
                storeRaw(p, bswap64(loadRaw<uint64_t>(p)));
                break;
            default:
                reverseInPlace(p, width);
        }
    }
    bool failStep() {
        fail();
        return false;
    }
    void move(size_t n) {
        if (!inPlace() && n) std::memcpy(m_dst + m_pos, m_src + m_pos, n);
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
    size_t m_end;    // where steps must stop: the range's end, or the position after a failure
    size_t m_limit;  // the range's end
    bool m_inPlace;
    bool m_srcNative;
    bool m_failed = false;
};

using CursorPair = BasicCursorPair<Buffers::Either>;

}  // namespace tamo::dwarf
