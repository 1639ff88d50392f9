// The walk of .debug_info by chase, where the processor has AVX-512 with
// its byte permutes (VBMI). Units are converted a chunk of positions at a
// time, in three passes:
//
// - A vector pass takes every byte of the chunk as if an entry began there
//   and finds, from its code and the unit's ScanTable, the entry's size and
//   the slot of its pattern, checking that its LEB128 value is of one byte
//   (or two, once the unit has had one refused and its table allows it),
//   that its expression is of one to three bytes with nothing to reverse,
//   and that it ends inside the unit; positions that fail, and those past
//   the chunk's, get the slot that stops the chase.
// - The chase follows the entries from the chunk's first, one load an entry
//   on the way from one to the next (the size at its position), storing
//   each entry's pattern of 32 byte offsets and keeping the depth of the
//   entry tree. Three units are chased side by side, an entry of each in
//   turn, so that their chains of loads overlap. It stops at an entry it
//   must not take or that would end the tree.
// - A vector pass converts the entries chased, 64 bytes at a time, by the
//   patterns stored: one byte permute of the bytes around each 64.
//
// Unit headers and the entries the chase does not take go through the
// general walk, one at a time, after which the chase goes on.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

#include "DwarfInfoWalk.h"
#include "Endian.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

namespace tamo::dwarf {
namespace {

// The scan's view of an entry: at most 32 bytes; the code (one byte), then
// values of fixed width, at most one LEB128 value, of one byte or, where the
// unit asks for it, two (which the scan checks), and at most one exprloc of
// one to three bytes with nothing to reverse.
//
// An operand the expression walk reverses is of two bytes or more, and one
// that runs off the expression leaves it as it is: in one or two bytes
// nothing is ever reversed, and in three only the two-byte operand of the
// first operation (an address is of two bytes only in units that say so).
// The scan refuses the expressions whose first operation has one, of
// whatever length.
constexpr unsigned kScanWidth = 32;

// Where each byte of such an entry comes from, as an offset from its own
// place: the bytes of a reversed field come from its other end, every other
// byte stays (0). Bytes past the entry are 0.
struct alignas(32) Pattern {
    int8_t delta[kScanWidth];
};

// The scan's tables of the abbreviations with one-byte codes of a unit's
// table (codes of two bytes and more are refused). The tables by code are
// read 64 codes to a vector register.
struct alignas(64) ScanTable {
    // By code:
    uint8_t size[0x80];      // of an entry, without its expression
    uint8_t lengthAt[0x80];  // the offset of its expression's length; 0: none
    // The offset of its LEB128 value (bit 7: counted from the end of the
    // expression); 0: none (the code, below 0x80, is checked instead).
    uint8_t leb[0x80];
    // The slot of its pattern: the code itself, or for the abbreviations
    // with an expression (at most kExpressions of them) the first of four
    // slots, 0x80 + 4k, to which the expression's length (1 to 3) is added;
    // kStopSlot for a refused code.
    uint8_t slot[0x80];
    // By operation, op & 0x7f: bit 6 (bit 7 for op | 0x80) when an
    // expression it begins may have its operand reversed.
    uint8_t reversing[0x80];
    // What is added to the slot of an entry whose LEB128 value is of two
    // bytes, to reach the slots laid out for it; 0: such an entry is
    // refused (as every one is where a LEB128 value follows an expression).
    uint8_t wide[0x80];
    // By slot: the change of depth (+1: has children; -1: the 0 that ends a
    // list of them), and where each byte comes from.
    int16_t depth[0x100];
    Pattern pattern[0x100];
    // Whether an abbreviation has its LEB128 value after its expression,
    // and whether any has slots for a LEB128 value of two bytes.
    bool lebAfterExpression, anyWide;
};
constexpr unsigned kExpressions = 31;
// The slot of a position at which the chase stops: an entry it does not
// take, or one past the chunk's positions. Its change of depth ends any
// tree: the chase stops there as at the end of a tree, and so needs one
// test an entry. Depths at which a chunk begins stay below kDeepest. The
// first of each four slots of an expression stops as well: the slot of an
// expression of no bytes, and, as the next four's first, of one of four
// bytes and more.
constexpr uint8_t kStopSlot = 0xff;
constexpr int16_t kStopDepth = INT16_MIN;
constexpr ptrdiff_t kDeepest = 30000;

// The layout of an abbreviation's entries with an expression of `length`
// bytes (0: the plan must have none).
struct Layout {
    unsigned size = 0;
    unsigned lengthAt = 0;
    unsigned leb = 0;  // the offset of its LEB128 value; 0: none
};

// Lays out the entries of a plan, with a LEB128 value of `lebBytes`; false
// when the scan cannot take them.
bool layOut(const dwarf::Plan& p, unsigned length, unsigned lebBytes, Layout& l, Pattern& pattern) {
    l = Layout{};
    pattern = Pattern{};
    unsigned at = 1;  // the code
    bool expression = false;
    for (const Step& step : p.steps) {
        switch (step.kind) {
            case Step::Record:
                if (step.value > kScanWidth - at) return false;
                for (uint32_t k = 0; k < step.count; ++k) {
                    const dwarf::Reversal& r = p.reversals[step.first + k];
                    if (r.width > 8) return false;
                    for (unsigned b = 0; b < r.width; ++b)
                        pattern.delta[at + r.offset + b] = static_cast<int8_t>(r.width - 1 - 2 * b);
                }
                at += step.value;
                break;
            case Step::Leb:
                if (at + lebBytes > kScanWidth || l.leb) return false;
                l.leb = at;
                at += lebBytes;
                break;
            case Step::Block:
                if (step.width != 0 || !step.expression || expression || length == 0 ||
                    at + 1 + length > kScanWidth)
                    return false;
                expression = true;
                l.lengthAt = at;
                at += 1 + length;
                break;
            default:
                return false;
        }
    }
    l.size = at;
    return (length != 0) == expression;
}

// The scan's tables of a unit's abbreviation table.
void makeScanTable(void* tables, const CDwarfAbbrevTable& table, const Unit& u) {
    ScanTable& t = *static_cast<ScanTable*>(tables);
    std::memset(&t, 0, sizeof t);
    std::memset(t.slot + 1, kStopSlot, sizeof t.slot - 1);
    t.size[0] = 1;  // the end of a list of children
    t.depth[0] = -1;
    std::fill(t.depth + 0x80, t.depth + 0x100, kStopDepth);
    unsigned expressions = 0;
    for (uint32_t code = 1; code < 0x80; ++code) {
        const CDwarfAbbrevEntry* e = table.find(code);
        if (!e) continue;
        const dwarf::Plan& plan = planOf(*e, u);
        bool expression = false;
        for (const Step& s : plan.steps) expression |= s.kind == Step::Block;
        if (expression && expressions == kExpressions) continue;
        // Slots 0x80 + 4k + 1 to 3.
        const unsigned slot = expression ? 0x80 + 4 * expressions : code;
        Layout l[4];
        bool taken = true;
        for (unsigned length = expression ? 1 : 0; length <= (expression ? 3 : 0); ++length) {
            taken = taken && layOut(plan, length, 1, l[length], t.pattern[slot + length]);
            t.depth[slot + length] = e->m_bHasChildren ? 1 : 0;
        }
        if (!taken) continue;
        expressions += expression;
        const Layout& first = l[expression ? 1 : 0];
        t.size[code] = static_cast<uint8_t>(first.size - (expression ? 1 : 0));
        t.lengthAt[code] = static_cast<uint8_t>(first.lengthAt);
        if (first.leb)
            t.leb[code] =
                static_cast<uint8_t>(expression && first.leb > first.lengthAt ? (first.leb - 1) | 0x80 : first.leb);
        t.lebAfterExpression |= (t.leb[code] & 0x80) != 0;
        t.slot[code] = static_cast<uint8_t>(slot);
    }
    // Slots for entries whose LEB128 value is of two bytes (an index of
    // DW_FORM_addrx past 127, in every larger DWARF 5 unit), from the groups
    // of four the expressions leave: the same layouts a byte further on.
    for (uint32_t code = 1; code < 0x80 && !t.lebAfterExpression; ++code) {
        if (t.slot[code] == kStopSlot || !t.leb[code] || expressions == kExpressions) continue;
        const CDwarfAbbrevEntry* e = table.find(code);
        const dwarf::Plan& plan = planOf(*e, u);
        const bool expression = t.lengthAt[code] != 0;
        const unsigned group = 0x80 + 4 * expressions;
        bool taken = true;
        for (unsigned length = expression ? 1 : 0; length <= (expression ? 3 : 0); ++length) {
            Layout l;
            // Without an expression, the group's second slot (its first stops).
            const unsigned slot = group + (expression ? length : 1);
            taken = taken && layOut(plan, length, 2, l, t.pattern[slot]);
            t.depth[slot] = e->m_bHasChildren ? 1 : 0;
        }
        if (!taken) {
            for (unsigned k = 1; k < 4; ++k) t.depth[group + k] = kStopDepth;
            continue;
        }
        ++expressions;
        t.wide[code] = static_cast<uint8_t>((expression ? group : group + 1) - t.slot[code]);
        t.anyWide = true;
    }
    for (unsigned op = 0; op < 0x100; ++op) {
        const dwarf::Operands o = dwarf::kOperands[op];
        if (o == dwarf::Operands::Half || (o == dwarf::Operands::Address && u.addressSize == 2))
            t.reversing[op & 0x7f] |= static_cast<uint8_t>(op < 0x80 ? 0x40 : 0x80);
    }
}

// The entries of a chunk begin in its first kChunk bytes.
constexpr size_t kChunk = 1024;
// How far ahead of the positions being prepared the section's bytes are
// asked for (the chase takes the units in the section's order).
constexpr size_t kAhead = 8192;

// One lane's buffers and tables, in one block so that the chase reaches
// them all from one register.
struct alignas(64) ChunkData {
    // By position in the chunk, as if an entry began there: its size, and
    // the slot of its pattern (kStopSlot when the chase is not to take it,
    // and at the positions past the chunk's).
    uint8_t size[kChunk + 64];
    uint8_t slot[kChunk + 192];
    int8_t delta[kChunk + 128];  // the patterns of the entries chased
    // The chunk's first byte: in the section, or near its end in `bytes`.
    const uint8_t* in;
    // Where the chunk goes in the destination, when it is another buffer
    // (null in place).
    uint8_t* out;
    // Positions at which entries may begin, and where the unit ends (both
    // from the chunk's start).
    size_t n, unitEnd;
    // The chunk's bytes and those after it (zeros past the section).
    uint8_t bytes[kChunk + 192];
    ScanTable table;
};

#define TAMO_AVX512 gnu::target("avx2,avx512f,avx512bw,avx512vbmi")

// A table of 128 bytes as the two halves a byte permute reads.
struct Table128 {
    __m512i low, high;
};
[[TAMO_AVX512, gnu::always_inline]] inline Table128 table128(const void* p) {
    const auto* v = static_cast<const __m512i*>(p);
    return {_mm512_loadu_si512(v), _mm512_loadu_si512(v + 1)};
}
// t[index & 0x7f] for each byte.
[[TAMO_AVX512, gnu::always_inline]] inline __m512i lookup(const Table128& t, __m512i index) {
    return _mm512_permutex2var_epi8(t.low, index, t.high);
}

// The byte at offset `index` (below 128) from each position of `here`,
// followed by `after`.
[[TAMO_AVX512, gnu::always_inline]] inline __m512i at(__m512i here, __m512i after, __m512i index) {
    return _mm512_permutex2var_epi8(here, index, after);
}
// A byte of min(v, 255) in each lane.
[[TAMO_AVX512, gnu::always_inline]] inline __m512i clamp(size_t v) {
    return _mm512_set1_epi8(static_cast<char>(std::min<size_t>(v, 0xff)));
}

// The tables of the first pass, in vector registers.
struct PrepareTables {
    Table128 size, lengthAt, leb, slot, reversing, wide;
};
[[TAMO_AVX512, gnu::always_inline]] inline PrepareTables prepareTables(const ScanTable& t) {
    return {table128(t.size),
            table128(t.lengthAt),
            table128(t.leb),
            table128(t.slot),
            table128(t.reversing),
            table128(t.wide)};
}

// The chunk as the first pass sees it, copied out of ChunkData: the pass's
// stores could otherwise be taken to change it.
struct ChunkView {
    const uint8_t* in;
    uint8_t* out;
    size_t unitEnd;
    uint8_t* size;
    uint8_t* slot;
};

// The shapes of the first pass: LEB128 values of one byte, the same where a
// value may follow an expression, and values of one or two bytes (once a
// unit has had an entry refused and its table has slots for them).
enum class Pass { Narrow, LebAfterExpression, Wide };

// The first vector pass over positions [i, i + 64) of a chunk. A position
// refused has bit 7 set in a flags byte, kept in a vector register (tests
// into mask registers cost more than the byte permutes here), and turned
// into kStopSlot at the end.
template <Pass P>
[[TAMO_AVX512, gnu::always_inline]] inline void prepareBlock(const PrepareTables& t, const ChunkView& d, size_t i) {
    const __m512i iota = _mm512_set_epi8(63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45,
                                         44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26,
                                         25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6,
                                         5, 4, 3, 2, 1, 0);
    const __m512i one = _mm512_set1_epi8(1), four = _mm512_set1_epi8(4), bit7 = _mm512_set1_epi8(static_cast<char>(0x80)),
                  low7 = _mm512_set1_epi8(0x7f), stop = _mm512_set1_epi8(static_cast<char>(kStopSlot));
    // A prefetch never faults: the address may lie past the section.
    _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(d.in) + i + kAhead), _MM_HINT_T0);
    // Between buffers, the destination's lines are asked for to be written.
    if (d.out)
        _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(d.out) + i + kAhead), _MM_HINT_ET0);
    const __m512i code = _mm512_loadu_si512(d.in + i);
    const __m512i after = _mm512_loadu_si512(d.in + i + 64);
    // Codes of two bytes and more are refused by their bit 7, codes with no
    // shape by their slot.
    const __m512i base = lookup(t.size, code);
    // The LEB128 value's offset (bit 7: counted from the expression's end).
    const __m512i o = lookup(t.leb, code);
    // A LEB128 value of two bytes (never after an expression) moves what
    // follows it a byte on: `wide` marks the positions where it is taken,
    // `delta` what their slots gain.
    __mmask64 wide = 0;
    __m512i delta = _mm512_setzero_si512(), leb = delta;
    if constexpr (P == Pass::Wide) {
        const __m512i lebIndex = _mm512_add_epi8(iota, o);
        const __m512i first = at(code, after, lebIndex);
        delta = lookup(t.wide, code);
        wide = _mm512_mask_test_epi8_mask(_mm512_test_epi8_mask(delta, delta), first, bit7);
        // Of a value of two bytes, the last is checked as a one-byte value is.
        leb = _mm512_mask_blend_epi8(wide, first, at(code, after, _mm512_add_epi8(lebIndex, one)));
    }
    // The expression's length (0 without one). Its slot stops the chase
    // unless it is of one to three bytes; one whose first operation may
    // have its operand reversed is refused.
    const __m512i la = lookup(t.lengthAt, code);
    __m512i lengthIndex = _mm512_add_epi8(iota, la);
    if constexpr (P == Pass::Wide) lengthIndex = _mm512_mask_add_epi8(lengthIndex, wide, lengthIndex, one);
    const __m512i length = _mm512_maskz_permutex2var_epi8(_mm512_test_epi8_mask(la, la), code, lengthIndex, after);
    const __m512i op = at(code, after, _mm512_add_epi8(lengthIndex, one));
    const __m512i r = lookup(t.reversing, op);
    // Bit 7: op's bit 7 ? r's bit 7 : r's bit 6.
    const __m512i reversing = _mm512_ternarylogic_epi64(op, r, _mm512_add_epi8(r, r), 0xca);
    const __m512i isExpression = _mm512_adds_epu8(la, low7);  // bit 7: la != 0
    // The LEB128 value: below 0x80 (after the expression, that much
    // further). (The permute reads an index's low seven bits: bit 7 of the
    // offset may stay in.)
    if constexpr (P != Pass::Wide) {
        __m512i lebIndex = _mm512_add_epi8(iota, o);
        if constexpr (P == Pass::LebAfterExpression) {
            const __m512i after7 = _mm512_and_si512(o, bit7);
            lebIndex = _mm512_add_epi8(lebIndex, _mm512_and_si512(length, _mm512_adds_epu8(after7, after7)));
        }
        leb = at(code, after, lebIndex);
    }
    // Bit 7 of the flags: code | leb | (reversing & isExpression); then
    // 0xff where it is set, 0 elsewhere.
    const __m512i flags = _mm512_and_si512(
        _mm512_ternarylogic_epi64(reversing, isExpression, _mm512_or_si512(code, leb), 0xea), bit7);
    __m512i entrySize = _mm512_add_epi8(base, length);
    __m512i slot = _mm512_add_epi8(lookup(t.slot, code), _mm512_min_epu8(length, four));
    if constexpr (P == Pass::Wide) {
        entrySize = _mm512_mask_add_epi8(entrySize, wide, entrySize, one);
        slot = _mm512_mask_add_epi8(slot, wide, slot, delta);
    }
    slot = _mm512_or_si512(slot, _mm512_adds_epu8(flags, flags));
    // The entry must end inside the unit (which only entries in the unit's
    // last 128 bytes could fail). The positions past the chunk's are marked
    // by prepareChunk.
    if (d.unitEnd - i < 128)
        slot = _mm512_mask_mov_epi8(
            slot, _mm512_cmpgt_epu8_mask(_mm512_add_epi8(iota, entrySize), clamp(d.unitEnd - i)), stop);
    _mm512_storeu_si512(d.size + i, entrySize);
    _mm512_storeu_si512(d.slot + i, slot);
}

// The first pass over a chunk. The positions past the chunk's (where its
// last entries end) stop the chase.
template <Pass P>
[[TAMO_AVX512]] void prepareBlocks(ChunkData& d) {
    const PrepareTables t = prepareTables(d.table);
    const ChunkView view{d.in, d.out, d.unitEnd, d.size, d.slot};
    for (size_t i = 0, n = d.n; i < n; i += 64) prepareBlock<P>(t, view, i);
    std::memset(d.slot + d.n, kStopSlot, 128);
}
void prepareChunk(ChunkData& d, bool wide) {
    if (d.table.lebAfterExpression)
        prepareBlocks<Pass::LebAfterExpression>(d);
    else if (wide)
        prepareBlocks<Pass::Wide>(d);
    else
        prepareBlocks<Pass::Narrow>(d);
}

// The last vector pass: converts positions [from, to) of a chunk (`in`)
// into `out` (its place in the destination) by the patterns stored in
// `delta`. Each 64 bytes are taken from the 32 before them to the 32 after;
// the bytes before are those of the block before as it was read, so that
// the conversion may be in place.
[[TAMO_AVX512]] void applyChunk(const uint8_t* in, const int8_t* delta, size_t from, size_t to, uint8_t* out) {
    const __m512i iota = _mm512_set_epi8(95, 94, 93, 92, 91, 90, 89, 88, 87, 86, 85, 84, 83, 82, 81, 80, 79, 78, 77,
                                         76, 75, 74, 73, 72, 71, 70, 69, 68, 67, 66, 65, 64, 63, 62, 61, 60, 59, 58,
                                         57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45, 44, 43, 42, 41, 40, 39,
                                         38, 37, 36, 35, 34, 33, 32);
    __m512i before = _mm512_setzero_si512();
    for (size_t i = from; i < to; i += 64) {
        const __m512i here = _mm512_loadu_si512(in + i), after = _mm512_loadu_si512(in + i + 32);
        // (A full mask with a source of its own: g++ 12 warns of the
        // undefined source of the unmasked form.)
        const __m512i around = _mm512_mask_alignr_epi64(here, 0xff, here, before, 4);
        before = here;
        const __m512i index = _mm512_add_epi8(_mm512_loadu_si512(delta + i), iota);
        const __m512i r = _mm512_permutex2var_epi8(around, index, after);
        if (to - i >= 64)
            _mm512_storeu_si512(out + i, r);
        else
            _mm512_mask_storeu_epi8(out + i, (uint64_t{1} << (to - i)) - 1, r);
    }
}

// What the chase keeps of a lane: the position in the chunk, the depth of
// the entry tree, the lane's buffers.
struct ChaseAt {
    ptrdiff_t pos;
    ptrdiff_t depth;
    ChunkData* d;
};

// One entry of a lane; false, the entry not taken, when the lane stops:
// at an entry that would end the tree, or one its slot stops at. The lane's
// place is a pointer into its sizes, the other arrays of its chunk at fixed
// distances from it: the load from one entry to the next then needs no
// index.
constexpr ptrdiff_t kSlotFromSize = offsetof(ChunkData, slot) - offsetof(ChunkData, size);
constexpr ptrdiff_t kDeltaFromSize = offsetof(ChunkData, delta) - offsetof(ChunkData, size);
[[gnu::target("avx2"), gnu::always_inline]] inline bool chaseEntry(const uint8_t*& p, ptrdiff_t& depth,
                                                                   const ScanTable& t) {
    const uint8_t* at = p;
    const unsigned slot = at[kSlotFromSize];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(const_cast<uint8_t*>(at) + kDeltaFromSize),
                        _mm256_load_si256(reinterpret_cast<const __m256i*>(t.pattern + slot)));
    const ptrdiff_t deeper = depth + t.depth[slot];
    if (deeper <= 0) return false;
    depth = deeper;
    p = at + *at;
    return true;
}

// N lanes side by side, an entry of each in turn, until one stops; returns
// that lane. (The lanes' state is read and written field by field, as the
// general walk writes it: a wider load of fields just stored one by one
// would wait for the stores to reach the cache.)
template <unsigned N>
[[TAMO_AVX512]] unsigned chaseLanes(ChaseAt* const* at) {
    ChunkData *c0 = at[0]->d, *c1 = nullptr, *c2 = nullptr;
    const uint8_t *p0 = c0->size + at[0]->pos, *p1 = nullptr, *p2 = nullptr;
    ptrdiff_t d0 = at[0]->depth, d1 = 0, d2 = 0;
    if constexpr (N > 1) c1 = at[1]->d, p1 = c1->size + at[1]->pos, d1 = at[1]->depth;
    if constexpr (N > 2) c2 = at[2]->d, p2 = c2->size + at[2]->pos, d2 = at[2]->depth;
    unsigned stopped;
    for (;;) {
        if (!chaseEntry(p0, d0, c0->table)) {
            stopped = 0;
            break;
        }
        if constexpr (N > 1) {
            if (!chaseEntry(p1, d1, c1->table)) {
                stopped = 1;
                break;
            }
        }
        if constexpr (N > 2) {
            if (!chaseEntry(p2, d2, c2->table)) {
                stopped = 2;
                break;
            }
        }
    }
    at[0]->pos = p0 - c0->size, at[0]->depth = d0;
    if constexpr (N > 1) at[1]->pos = p1 - c1->size, at[1]->depth = d1;
    if constexpr (N > 2) at[2]->pos = p2 - c2->size, at[2]->depth = d2;
    return stopped;
}

constexpr unsigned kLanes = 3;

// A lane: the general walk's state, its unit's tables, and the chunk it is
// in. The lanes take the units in the section's order.
template <dwarf::Buffers B>
struct ChaseLane {
    Lane<B> lane;
    QuickTable quick;
    std::unique_ptr<ChunkData> data{new ChunkData};
    ChaseAt at{};
    size_t chunk = 0;  // where the chunk begins in the section
    size_t from = 0;   // the first of its positions not yet converted
    bool active = false;
    // Whether the unit's chunks are prepared for LEB128 values of two bytes:
    // from its first entry refused on, where its table has slots for them.
    bool wide = false;
    // The positions of the last chunk that the chase took and that are yet
    // to be converted. A load of 64 bytes of patterns whose stores are still
    // on their way to the cache waits for every one of them, so a chunk the
    // chase has left is converted only once the next one is prepared (which
    // leaves the patterns alone).
    struct Pending {
        const uint8_t* in = nullptr;
        uint8_t* out = nullptr;
        size_t from = 0, to = 0;
    } pending;

    explicit ChaseLane(const Lane<B>& l) : lane(l) {
        quick.tables = &data->table;
        quick.remake = makeScanTable;
        at.d = data.get();
    }

    void convertPending() {
        if (pending.to > pending.from) applyChunk(pending.in, data->delta, pending.from, pending.to, pending.out);
        pending.to = pending.from = 0;
    }
    // A chunk from the general walk's position, prepared for the chase; then
    // the last one converted.
    void newChunk(const CursorPair& whole) {
        ChunkData& d = *data;
        if (pending.in == d.bytes) convertPending();  // the copy below may overwrite its bytes
        chunk = lane.c.pos();
        from = 0;
        d.unitEnd = lane.c.end() - chunk;
        d.n = std::min(kChunk, d.unitEnd);
        d.out = whole.inPlace() ? nullptr : whole.destination() + chunk;
        // The passes read up to 128 bytes past the chunk's positions; near
        // the section's end, from a copy.
        if (whole.size() - chunk >= d.n + 128) {
            d.in = whole.source() + chunk;
        } else {
            const size_t have = whole.size() - chunk;
            std::memcpy(d.bytes, whole.source() + chunk, have);
            std::memset(d.bytes + have, 0, sizeof d.bytes - have);
            d.in = d.bytes;
        }
        prepareChunk(d, wide);
        convertPending();
        at.pos = 0;
        at.depth = lane.depth;
    }
    // The header of a unit at `at` that uses the lane's abbreviations as
    // its last unit did (a compile or partial unit), converted as startUnit
    // would; false, nothing done, for any other.
    bool sameKindOfUnit(const CursorPair& whole, size_t at) {
        if (!lane.table || lane.types || whole.size() - at < 12) return false;
        const uint8_t* s = whole.source() + at;
        auto value = [&](size_t offset, auto v) {
            std::memcpy(&v, s + offset, sizeof v);
            if (!whole.srcNative()) v = static_cast<decltype(v)>(bswap32(v) >> (32 - 8 * sizeof v));
            return v;
        };
        const uint32_t length = value(0, uint32_t{}), version = value(4, uint16_t{});
        if (length >= dwarf::kReservedLength || length > whole.size() - at - 4 || version != lane.u.version) return false;
        const bool v5 = version >= 5;
        const unsigned header = v5 ? 12 : 11;
        if (version < 2 || version > 5 || length + 4 < header) return false;
        const uint8_t addressSize = s[v5 ? 7 : 10];
        if (v5 && s[6] != dwarf::DW_UT_compile && s[6] != dwarf::DW_UT_partial) return false;
        if (value(v5 ? 8 : 6, uint32_t{}) != lane.table->m_lOffset || addressWidth(addressSize) != lane.u.addressSize)
            return false;
        uint8_t* d = whole.destination() + at;
        if (!whole.inPlace()) std::memcpy(d, s, header);
        storeRaw(d, bswap32(loadRaw<uint32_t>(s)));
        storeRaw(d + 4, bswap16(loadRaw<uint16_t>(s + 4)));
        storeRaw(d + (v5 ? 8 : 6), bswap32(loadRaw<uint32_t>(s + (v5 ? 8 : 6))));
        lane.c = dwarf::BasicCursorPair<B>(whole.source(), whole.destination(), whole.size(), whole.srcNative(),
                                           at + header, at + 4 + length);
        lane.outer = whole.size();
        lane.depth = 0;
        lane.inUnit = true;
        return true;
    }
    // The next unit, from `next` on, and its first chunk. Units that end at
    // their header (or take the rest of the section) are passed.
    void claim(const CursorPair& whole, size_t& next) {
        lane.inUnit = false;
        wide = false;
        while (next < whole.size() && !lane.inUnit) {
            if (!sameKindOfUnit(whole, next))
                lane = startUnit(Lane<B>(whole, next, whole.size(), lane.types), quick);
            next = lane.inUnit ? lane.c.end() : lane.c.pos();
        }
        active = lane.inUnit;
        if (active)
            newChunk(whole);
        else
            convertPending();
    }
    // Where the chase stopped: the entries it took are converted at once
    // when it stopped before the chunk's last position (after the general
    // step it may go on in this chunk), else once the next chunk is
    // prepared (the general walk writes only past them); the entry it did
    // not take goes through the general walk, after which (or at the end of
    // the chunk) a new chunk begins. False when the unit has ended.
    [[gnu::noinline]] bool resume(const CursorPair& whole) {
        const size_t stoppedAt = static_cast<size_t>(at.pos);
        if (stoppedAt > from) {
            pending = {data->in, whole.destination() + chunk, from, stoppedAt};
            if (stoppedAt + 1 < data->n) convertPending();
        }
        if (at.pos == static_cast<ptrdiff_t>(data->unitEnd - 1) && at.depth == 1 && data->in[stoppedAt] == 0) {
            // The 0 that ends the tree, the unit's last byte, as the general
            // walk would take it.
            whole.destination()[chunk + stoppedAt] = 0;
            lane.inUnit = false;
            return false;
        }
        lane.c.Handled(chunk + stoppedAt - lane.c.pos());
        lane.depth = at.depth;
        bool widened = false;
        if (stoppedAt < data->n || stoppedAt >= data->unitEnd) {
            widened = !wide && data->table.anyWide;
            wide |= widened;
            swap_dwarf_entry(lane);
        }
        // Deeper trees than the chase's stop can end go the general way.
        while (lane.inUnit && lane.depth > kDeepest) swap_dwarf_entry(lane);
        if (!lane.inUnit) return false;
        // The chase goes on in the chunk where the general walk left it, or
        // in a new chunk from there: at the chunk's end, or once the unit is
        // to be prepared for LEB128 values of two bytes.
        from = lane.c.pos() - chunk;
        if (from < data->n && !widened) {
            at.pos = static_cast<ptrdiff_t>(from);
            at.depth = lane.depth;
            return true;
        }
        newChunk(whole);
        return true;
    }
};

// N lanes until one ends with no unit left to claim; then N - 1.
template <dwarf::Buffers B, unsigned N>
void chaseUntilDone(ChaseLane<B>** lanes, const CursorPair& whole, size_t& next) {
    if constexpr (N > 0) {
        ChaseAt* at[N];
        for (unsigned k = 0; k < N; ++k) at[k] = &lanes[k]->at;
        for (;;) {
            const unsigned k = chaseLanes<N>(at);
            if (lanes[k]->resume(whole)) continue;
            lanes[k]->claim(whole, next);
            if (lanes[k]->active) continue;
            std::swap(lanes[k], lanes[N - 1]);
            return chaseUntilDone<B, N - 1>(lanes, whole, next);
        }
    }
}

}  // namespace

bool chaseWalkRuns() {
    static const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                               __builtin_cpu_supports("avx512vbmi");
    return avx512;
}

template <Buffers B>
void debugInfoChase(const CursorPair& whole, bool types) {
    const Lane<B> idle(whole, 0, 0, types);
    std::unique_ptr<ChaseLane<B>> owned[kLanes];
    ChaseLane<B>* lanes[kLanes];
    size_t next = 0;
    unsigned active = 0;
    // Every lane is made before the first claims (and converts) a unit.
    for (auto& l : owned) l = std::make_unique<ChaseLane<B>>(idle);
    for (auto& l : owned) {
        l->claim(whole, next);
        if (l->active) lanes[active++] = l.get();
    }
    switch (active) {
        case 3:
            return chaseUntilDone<B, 3>(lanes, whole, next);
        case 2:
            return chaseUntilDone<B, 2>(lanes, whole, next);
        case 1:
            return chaseUntilDone<B, 1>(lanes, whole, next);
        default:
            return;
    }
}

template void debugInfoChase<Buffers::Same>(const CursorPair&, bool);
template void debugInfoChase<Buffers::Distinct>(const CursorPair&, bool);

}  // namespace tamo::dwarf

#else

namespace tamo::dwarf {
bool chaseWalkRuns() { return false; }
template <Buffers B>
void debugInfoChase(const CursorPair&, bool) {}
template void debugInfoChase<Buffers::Same>(const CursorPair&, bool);
template void debugInfoChase<Buffers::Distinct>(const CursorPair&, bool);
}  // namespace tamo::dwarf

#endif
