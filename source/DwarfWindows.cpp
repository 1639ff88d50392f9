// The walk of .debug_info by windows, where the processor has SSSE3: two
// units are walked at once, and entries whose values fit in 16-byte windows
// are checked and converted a window at a time (see Window); any entry they
// do not take goes the plain way.

#include <array>
#include <cstring>
#include <vector>

#include "DwarfInfoWalk.h"
#include "Endian.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

namespace tamo::dwarf {
namespace {

// An abbreviation whose entries fit in one or two 16-byte windows: the code
// and a head record (LEB128 values in it taken as one byte, which the walk
// checks), then optionally an exprloc of one operation with nothing to
// reverse and a tail record. Between two buffers each window is converted
// by one byte shuffle, which reverses the fields and leaves every other
// byte where it is.
struct alignas(16) Window {
    enum Kind : uint8_t { None, One, Two };
    uint8_t head[16];
    uint8_t tail[16];
    // Bytes that must be below 0x80; in the head, kRefuse too when the
    // entries of the abbreviation do not fit (the walk ors it into the mask
    // of high bits, so that one test decides both).
    static constexpr uint32_t kRefuse = 1u << 16;
    uint32_t headLeb = kRefuse;
    uint32_t tailLeb = 0;
    uint8_t headSize = 0, tailSize = 0;
    // An entry of two windows: the length of expression its last entry had
    // (so that the walk can step over the entry before it has read the
    // length, and checks it after).
    uint8_t length = 2;
    Kind kind = None;  // None: refused
    int8_t depth = 0;  // +1: has children; -1: the end of a list of children
    // In place the fields are reversed one by one (a whole window stored
    // back would stall the next entry's load): up to four words, at these
    // offsets from the head window (the first headWords) or the tail window.
    uint8_t words = 0;  // above 4: the fields are not four words or fewer
    uint8_t headWords = 0;
    uint8_t word[4] = {};
};

// Fills the head or the tail window from the plan's steps [from, to); false
// when they do not fit in `limit` bytes or hold other than records and
// LEB128 values.
bool fillWindow(const dwarf::Plan& p, const Step* from, const Step* to, Window& w, bool tail, unsigned limit) {
    uint8_t* shuffle = tail ? w.tail : w.head;
    uint32_t& leb = tail ? w.tailLeb : w.headLeb;
    uint8_t& size = tail ? w.tailSize : w.headSize;
    for (unsigned i = 0; i < 16; ++i) shuffle[i] = static_cast<uint8_t>(i);
    for (const Step* s = from; s != to; ++s) {
        if (s->kind == Step::Leb) {
            if (size + 1u > limit) return false;
            leb |= 1u << size;
            ++size;
            continue;
        }
        if (s->kind != Step::Record || size + s->value > limit) return false;
        for (uint32_t k = 0; k < s->count; ++k) {
            const dwarf::Reversal& r = p.reversals[s->first + k];
            const size_t at = size + r.offset;
            for (unsigned b = 0; b < r.width; ++b) shuffle[at + b] = static_cast<uint8_t>(at + r.width - 1 - b);
            if (r.width != 4 || w.words >= 4) {
                w.words = 0xfe;
            } else {
                w.word[w.words++] = static_cast<uint8_t>(at);
            }
        }
        size = static_cast<uint8_t>(size + s->value);
    }
    return true;
}

// In place, entries whose fields are not four words or fewer are refused.
void makeWindow(Window& w, const dwarf::Plan& p, bool children, bool inPlace) {
    w = Window{};
    const Step* begin = p.steps.data();
    const Step* end = begin + p.steps.size();
    const Step* split = end;
    for (const Step* s = begin; s != end; ++s)
        if (s->kind == Step::Block) {
            split = s;
            break;
        }
    w.headSize = 1;  // the code
    if (split == end) {
        if (!fillWindow(p, begin, end, w, false, 16)) return;
        w.headWords = w.words;
        w.kind = Window::One;
    } else {
        // The head leaves room for an expression of up to three bytes and
        // its length in the first window.
        if (split->width != 0 || !split->expression ||
            !fillWindow(p, begin, split, w, false, 12))
            return;
        w.headWords = w.words;
        if (!fillWindow(p, split + 1, end, w, true, 16)) return;
        w.kind = Window::Two;
    }
    w.depth = children ? 1 : 0;
    if (!inPlace || w.words <= 4) w.headLeb &= ~Window::kRefuse;
}

// The size of the abbreviation's entries, as far as the windows know it.
uint8_t expectedSize(const Window& w) {
    return static_cast<uint8_t>(w.kind == Window::Two ? w.headSize + 1 + w.length + w.tailSize : w.headSize);
}

// The windows of the abbreviations with one-byte codes of a unit's table.
struct WindowTables {
    bool inPlace = false;  // whether they convert in place
    std::vector<Window> window;
    // The expected sizes of the windows' entries on their own: the walk
    // steps from entry to entry by one byte load from here (a shorter
    // chain than through the windows' rows).
    std::vector<uint8_t> sizes;
};

void makeWindows(void* tables, const CDwarfAbbrevTable& t, const Unit& u) {
    WindowTables& w = *static_cast<WindowTables*>(tables);
    w.window.assign(0x100, Window{});  // codes of two bytes and more: None
    w.window[0].kind = Window::One;
    w.window[0].headSize = 1;
    w.window[0].depth = -1;
    w.window[0].headLeb = 0;
    for (unsigned i = 0; i < 16; ++i) w.window[0].head[i] = static_cast<uint8_t>(i);
    w.sizes.assign(0x100, 0);
    w.sizes[0] = 1;
    for (uint32_t code = 1; code < 0x80; ++code) {
        const CDwarfAbbrevEntry* e = t.find(code);
        if (!e) continue;
        makeWindow(w.window[code], planOf(*e, u), e->m_bHasChildren, w.inPlace);
        w.sizes[code] = expectedSize(w.window[code]);
    }
}

// The length of an expression that is one operation whose operand has no
// byte order, from its first two bytes: 1 without an operand, 2 with a
// byte, 2 or 3 with a LEB128 of one or two bytes (an operand running past
// the expression is copied either way); 0x40 for any other operation.
constexpr std::array<uint8_t, 256> kOneOperation = [] {
    std::array<uint8_t, 256> t{};
    for (size_t op = 0; op < 256; ++op) {
        const uint8_t c = dwarf::kPlainOperands[op];
        t[op] = c == 0 ? 1 : c == 1 ? 2 : c == 2 ? 0x82 : 0x40;
    }
    return t;
}();
[[gnu::always_inline]] inline unsigned oneOperationLength(const uint8_t* e) {
    const unsigned v = kOneOperation[e[0]];
    return (v & 0x7f) + ((v >> 7) & (e[1] >> 7));
}

// Reverses the first `count` (at most four) 4-byte words at the offsets from
// `base` packed a byte each in `at`, the first in the low byte.
[[gnu::always_inline]] inline void reverseWords(uint8_t* base, uint32_t at, unsigned count) {
    auto word = [&](unsigned k) {
        uint8_t* p = base + ((at >> 8 * k) & 0xff);
        storeRaw(p, bswap32(loadRaw<uint32_t>(p)));
    };
    // Most entries have one word or none.
    if (count == 0) return;
    word(0);
    if (count == 1) return;
    word(1);
    if (count == 2) return;
    word(2);
    if (count == 3) return;
    word(3);
}

// What the loop of a lane keeps in registers: its position and the depth
// of its entry tree (the two values each entry carries to the next).
struct Hot {
    size_t pos;
    ptrdiff_t depth;
};

// What the loop reads of a lane's unit: the last position at which a
// window fits in it (0 when none does: entries start after the unit's
// header), the windows of its table (none when no unit is left) and their
// entries' sizes. The loop reads them from memory for every entry (through
// a volatile view): with two lanes there are not registers enough for all,
// and these, unlike the position, are not carried from one entry to the
// next.
struct UnitView {
    size_t last = 0;
    Window* window = nullptr;
    uint8_t* sizes = nullptr;
};

// Bytes 0 to 15 at their place, then 0x80: from `16 - n` on, the shuffle
// that moves the last n bytes of a window to its front and clears the rest.
constexpr std::array<uint8_t, 32> kToFront = [] {
    std::array<uint8_t, 32> t{};
    for (size_t i = 0; i < 32; ++i) t[i] = static_cast<uint8_t>(i < 16 ? i : 0x80);
    return t;
}();

// In place, an entry of one window among the last 15 bytes of its unit:
// the window is the unit's last 16 bytes moved to the front, so that
// nothing past the unit is read; the entry must end inside the unit. A
// unit shorter than a window has none. False (nothing done) as for the
// windows.
[[gnu::target("ssse3"), gnu::always_inline]] inline bool unitTailEntry(Hot& h, Window* window, const uint8_t* sizes,
                                                                      size_t last, uint8_t* buffer) {
    const size_t end = last + 16;
    if (last == 0 || h.pos >= end) return false;
    const size_t left = end - h.pos;
    uint8_t* d = buffer + h.pos;
    const uint8_t code = d[0];
    const size_t size = sizes[code];
    const Window& w = window[code];
    const ptrdiff_t depth = h.depth + w.depth;
    if (w.kind != Window::One || size > left || depth <= 0) return false;
    const __m128i head =
        _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(buffer + end - 16)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(kToFront.data() + 16 - left)));
    if ((static_cast<uint32_t>(_mm_movemask_epi8(head)) | Window::kRefuse) & w.headLeb) return false;
    reverseWords(d, loadRaw<uint32_t>(w.word), w.words);
    h.pos += size;
    h.depth = depth;
    return true;
}

// One entry through its windows; false (nothing done) when it does not fit
// them: another kind of abbreviation, a LEB128 of more bytes, an expression
// that needs walking, fewer than 16 bytes left in the unit after a
// window's start (in place, unitTailEntry then takes entries of one
// window), or the entry that ends the unit's tree. All is checked before
// the first byte is written.
template <dwarf::Buffers B>
[[gnu::target("ssse3"), gnu::always_inline]] inline bool windowEntry(Hot& h, const UnitView& unit,
                                                                    const uint8_t* src, uint8_t* dst) {
    constexpr bool inPlace = B == dwarf::Buffers::Same;
    // The windows stay inside the unit: reading the next unit's bytes in
    // place would wait on the stores of the lane converting it.
    // What the loop knows of the unit is read from memory (see UnitView).
    const volatile UnitView& view = unit;
    const size_t last = view.last;
    if (h.pos > last) [[unlikely]] {
        if constexpr (inPlace)
            return unitTailEntry(h, view.window, view.sizes, last, const_cast<uint8_t*>(src));
        return false;
    }
    const uint8_t* s = src + h.pos;
    // The chain of entries would wait on each new cache line of the unit;
    // asking for the line 384 bytes on (about 50 entries) keeps ahead of it.
    // A prefetch never faults, so the address may lie past the section.
    _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(s) + 384), _MM_HINT_T0);
    const uint8_t code = s[0];
    uint8_t* const sizes = view.sizes;
    size_t size = sizes[code];
    Window& w = view.window[code];
    const __m128i head = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const ptrdiff_t depth = h.depth + w.depth;
    if ((static_cast<uint32_t>(_mm_movemask_epi8(head)) | Window::kRefuse) & w.headLeb) return false;
    if (depth <= 0) return false;
    uint8_t* d = inPlace ? const_cast<uint8_t*>(s) : dst + h.pos;
    size_t tail = 0;
    if (w.kind == Window::Two) {
        const size_t length = s[w.headSize];
        if (length != w.length) [[unlikely]] {
            if (length - 1 > 2) return false;
            // The abbreviation's entries now have expressions of this length.
            w.length = static_cast<uint8_t>(length);
            size = sizes[code] = expectedSize(w);
        }
        if (oneOperationLength(s + w.headSize + 1) != length) return false;
        tail = size - w.tailSize;
        if (h.pos + tail > last) return false;
        const __m128i t = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + tail));
        if (_mm_movemask_epi8(t) & w.tailLeb) return false;
        if constexpr (!inPlace) {
            // The head's window first: its bytes past the head are the
            // source's, which the tail's window then stores converted.
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d),
                             _mm_shuffle_epi8(head, _mm_load_si128(reinterpret_cast<const __m128i*>(w.head))));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + tail),
                             _mm_shuffle_epi8(t, _mm_load_si128(reinterpret_cast<const __m128i*>(w.tail))));
        }
    }
    if constexpr (inPlace) {
        // Only the reversed fields are stored: a whole window stored back
        // would hold up the next entry's load of bytes in it. The window's
        // fields are read before the first store (a store through a byte
        // pointer could otherwise change them).
        const uint32_t at = loadRaw<uint32_t>(w.word);
        const unsigned words = w.words, headWords = w.headWords;
        if (tail) {
            reverseWords(d, at, headWords);
            reverseWords(d + tail, at >> 8 * headWords, words - headWords);
        } else {
            reverseWords(d, at, words);
        }
    } else if (!tail) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d),
                         _mm_shuffle_epi8(head, _mm_load_si128(reinterpret_cast<const __m128i*>(w.head))));
    }
    h.pos += size;
    h.depth = depth;
    return true;
}

// A lane: its walk, the windows of its unit's table, and where the loop
// left it.
template <dwarf::Buffers B>
struct WindowLane {
    Lane<B> lane;
    QuickTable quick;
    WindowTables tables;
    UnitView unit;
    Hot at{};

    explicit WindowLane(const Lane<B>& l) : lane(l) {
        // Their room is taken before anything is converted: remaking them
        // for a unit allocates nothing.
        tables.window.reserve(0x100);
        tables.sizes.reserve(0x100);
        tables.inPlace = B == dwarf::Buffers::Same;
        quick.tables = &tables;
        quick.remake = makeWindows;
    }

    void load() {
        const size_t end = lane.c.end();
        unit = UnitView{end >= 16 ? end - 16 : 0, lane.inUnit ? tables.window.data() : nullptr, tables.sizes.data()};
        at = Hot{lane.c.pos(), lane.depth};
    }
    // The next unit, from `next` on. Units that end at their header (or
    // take the rest of the section) are passed.
    void claim(const CursorPair& whole, size_t& next) {
        lane.inUnit = false;
        while (next < whole.size() && !lane.inUnit) {
            lane = startUnit(Lane<B>(whole, next, whole.size(), lane.types), quick);
            next = lane.inUnit ? lane.c.end() : lane.c.pos();
        }
        load();
    }
    // One entry the windows do not take, by the general walk; then the next
    // unit when this one has ended (no windows when none is left).
    [[gnu::noinline]] void general(const CursorPair& whole, size_t& next) {
        lane.c.Handled(at.pos - lane.c.pos());
        lane.depth = at.depth;
        swap_dwarf_entry(lane);
        if (lane.inUnit)
            load();
        else
            claim(whole, next);
    }
};

// A lane alone, to the end of its last unit.
template <dwarf::Buffers B>
[[gnu::target("ssse3")]] void alone(WindowLane<B>& l, const CursorPair& whole, size_t& next) {
    while (l.unit.window) {
        const uint8_t* const src = whole.source();
        uint8_t* const dst = whole.destination();
        Hot h = l.at;
        while (windowEntry<B>(h, l.unit, src, dst)) {
        }
        l.at = h;
        l.general(whole, next);
    }
}

// Two units at once, an entry of each in turn: the entries of one unit
// form a chain (each starts where the last ended), and the processor works
// on the two chains side by side. Each lane converts its units as one lane
// would; when one has none left, the other finishes alone.
template <dwarf::Buffers B>
[[gnu::target("ssse3")]] void debugInfoLanes(const CursorPair& whole, bool types) {
    const Lane<B> idle(whole, 0, 0, types);
    WindowLane<B> a(idle), b(idle);
    size_t next = 0;
    a.claim(whole, next);
    b.claim(whole, next);
    while (a.unit.window && b.unit.window) {
        // The loop of windows makes no call, and nothing it keeps in
        // registers lives across the general walk's: both lanes' positions
        // and depths can stay in registers.
        const uint8_t* const src = whole.source();
        uint8_t* const dst = whole.destination();
        Hot ha = a.at, hb = b.at;
        WindowLane<B>* slow;
        for (;;) {
            if (!windowEntry<B>(ha, a.unit, src, dst)) {
                slow = &a;
                break;
            }
            if (!windowEntry<B>(hb, b.unit, src, dst)) {
                slow = &b;
                break;
            }
        }
        a.at = ha;
        b.at = hb;
        slow->general(whole, next);
    }
    alone(a.unit.window ? a : b, whole, next);
}

}  // namespace

bool windowsWalkRuns() {
    static const bool ssse3 = __builtin_cpu_supports("ssse3");
    return ssse3;
}

template <Buffers B>
void debugInfoWindows(const CursorPair& whole, bool types) {
    debugInfoLanes<B>(whole, types);
}
template void debugInfoWindows<Buffers::Same>(const CursorPair&, bool);
template void debugInfoWindows<Buffers::Distinct>(const CursorPair&, bool);

}  // namespace tamo::dwarf

#else

namespace tamo::dwarf {
bool windowsWalkRuns() { return false; }
template <Buffers B>
void debugInfoWindows(const CursorPair&, bool) {}
template void debugInfoWindows<Buffers::Same>(const CursorPair&, bool);
template void debugInfoWindows<Buffers::Distinct>(const CursorPair&, bool);
}  // namespace tamo::dwarf

#endif
