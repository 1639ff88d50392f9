// Unit and block conversion between byte orders.
//
// The block loops are the library's hot path: one type dispatch per block,
// then straight loops of byte reversals. Word-shaped records (every type
// whose fields are all 32-bit) are converted as one run of words.

#include "ByteSwap.h"

#include <cstring>
#include <initializer_list>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "Endian.h"
#include "ErrHndr.h"
#include "Globe.h"

namespace tamo {

namespace {

// The last COFF symbol unit converted by TypeUnitSwap, for callers that
// convert one unit at a time.
CoffLink g_unitLink;

// Runs of 32-bit words: the distinct-buffer and in-place loops are separate
// so that the compiler can vectorise both without alias checks.
void swapWordsDistinct(const uint8_t* __restrict src, uint8_t* __restrict dst, size_t n) {
    for (size_t i = 0; i < n; ++i) storeRaw(dst + 4 * i, bswap32(loadRaw<uint32_t>(src + 4 * i)));
}
void swapWordsInPlace(uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) storeRaw(p + 4 * i, bswap32(loadRaw<uint32_t>(p + 4 * i)));
}
void swapWordsScalar(const uint8_t* src, uint8_t* dst, size_t n) {
    if (src == dst)
        swapWordsInPlace(dst, n);
    else
        swapWordsDistinct(src, dst, n);
}

void swapHalvesDistinct(const uint8_t* __restrict src, uint8_t* __restrict dst, size_t n) {
    for (size_t i = 0; i < n; ++i) storeRaw(dst + 2 * i, bswap16(loadRaw<uint16_t>(src + 2 * i)));
}
void swapHalvesInPlace(uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) storeRaw(p + 2 * i, bswap16(loadRaw<uint16_t>(p + 2 * i)));
}

// 20-byte symbols: words at 0, 4, 8 and 16, a half at 14; bytes 12 and 13
// (st_info, st_other) stay. Word 3 is loaded whole and only its st_shndx
// half is reversed.
inline uint32_t swapSymWord3(uint32_t w) {
    if constexpr (kHostOrder == ByteOrder::Little)
        return (w & 0x0000ffffu) | (static_cast<uint32_t>(bswap16(static_cast<uint16_t>(w >> 16))) << 16);
    else
        return (w & 0xffff0000u) | bswap16(static_cast<uint16_t>(w));
}
inline void swapSym(const uint8_t* src, uint8_t* dst) {
    uint32_t w[5];
    std::memcpy(w, src, 20);
    w[0] = bswap32(w[0]);
    w[1] = bswap32(w[1]);
    w[2] = bswap32(w[2]);
    w[3] = swapSymWord3(w[3]);
    w[4] = bswap32(w[4]);
    std::memcpy(dst, w, 20);
}
void swapSymsScalar(const uint8_t* src, uint8_t* dst, size_t n) {
    for (size_t i = 0; i < n; ++i) swapSym(src + 20 * i, dst + 20 * i);
}

#if defined(__x86_64__) || defined(__i386__)
// Vector kernels, chosen once at run time by what the processor offers.
// Every load of a step happens before its stores, so src == dst works.

__attribute__((target("avx2"))) size_t swapWordsAvx2(const uint8_t* src, uint8_t* dst, size_t n) {
    const __m256i mask = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12,  //
                                          3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 4 * i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 4 * i + 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 4 * i), _mm256_shuffle_epi8(a, mask));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 4 * i + 32), _mm256_shuffle_epi8(b, mask));
    }
    return i;
}

__attribute__((target("ssse3"))) size_t swapWordsSsse3(const uint8_t* src, uint8_t* dst, size_t n) {
    const __m128i mask = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 4 * i), _mm_shuffle_epi8(a, mask));
    }
    return i;
}

// Four symbols are 80 bytes, five 16-byte chunks; no field crosses a chunk,
// so each chunk is one byte shuffle with its own mask.
struct SymMasks {
    alignas(16) int8_t m[5][16];
    SymMasks() {
        for (int p = 0; p < 80; ++p) {
            const int q = p % 20;
            int from;
            if (q == 12 || q == 13)
                from = q;
            else if (q == 14 || q == 15)
                from = 29 - q;
            else
                from = (q & ~3) + 3 - (q & 3);
            m[p / 16][p % 16] = static_cast<int8_t>(p / 20 * 20 + from - p / 16 * 16);
        }
    }
};

__attribute__((target("ssse3"))) size_t swapSymsSsse3(const uint8_t* src, uint8_t* dst, size_t n) {
    static const SymMasks masks;
    __m128i mk[5];
    for (int c = 0; c < 5; ++c) mk[c] = _mm_load_si128(reinterpret_cast<const __m128i*>(masks.m[c]));
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const uint8_t* s = src + 20 * i;
        uint8_t* d = dst + 20 * i;
        __m128i v[5];
        for (int c = 0; c < 5; ++c) v[c] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * c));
        for (int c = 0; c < 5; ++c)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16 * c), _mm_shuffle_epi8(v[c], mk[c]));
    }
    return i;
}

// What the processor offers, and what the kernels may use (all of it
// unless a test limits them).
struct Cpu {
    bool hasAvx2, hasSsse3;
    bool avx2, ssse3;
    Cpu() {
        __builtin_cpu_init();
        avx2 = hasAvx2 = __builtin_cpu_supports("avx2");
        ssse3 = hasSsse3 = __builtin_cpu_supports("ssse3");
    }
};
Cpu& cpu() {
    static Cpu c;
    return c;
}

void swapWords(const uint8_t* src, uint8_t* dst, size_t n) {
    size_t done = 0;
    if (cpu().avx2)
        done = swapWordsAvx2(src, dst, n);
    else if (cpu().ssse3)
        done = swapWordsSsse3(src, dst, n);
    swapWordsScalar(src + 4 * done, dst + 4 * done, n - done);
}

void swapSyms(const uint8_t* src, uint8_t* dst, size_t n) {
    const size_t done = cpu().ssse3 ? swapSymsSsse3(src, dst, n) : 0;
    swapSymsScalar(src + 20 * done, dst + 20 * done, n - done);
}
#else
void swapWords(const uint8_t* src, uint8_t* dst, size_t n) { swapWordsScalar(src, dst, n); }
void swapSyms(const uint8_t* src, uint8_t* dst, size_t n) { swapSymsScalar(src, dst, n); }
#endif

void swapEhdr(const uint8_t* src, uint8_t* dst) {
    if (src != dst) std::memmove(dst, src, EI_NIDENT);
    static constexpr uint8_t kHalves[] = {16, 18, 40, 42, 44, 46, 48, 50};
    static constexpr uint8_t kWords[] = {20, 24, 28, 32, 36};
    for (uint8_t off : kHalves) swapField2(src + off, dst + off);
    for (uint8_t off : kWords) swapField4(src + off, dst + off);
}

// A relocation against a COFF line-number section: r_offset is rescaled
// from `from`-byte to `to`-byte records, computed on its host-order value
// (the source's when it is in host order, else the converted one).
void swapLnRela(const uint8_t* src, uint8_t* dst, uint32_t from, uint32_t to, bool srcNative) {
    const uint32_t raw = loadRaw<uint32_t>(src);
    const uint32_t off = srcNative ? raw : bswap32(raw);
    const uint32_t scaled = off / from * to;
    storeRaw(dst, srcNative ? bswap32(scaled) : scaled);
    swapField4(src + 4, dst + 4);
    swapField4(src + 8, dst + 8);
}

CoffLink linkOf(const uint8_t* unit) {
    CoffLink l;
    l.valid = true;
    l.type = loadRaw<uint16_t>(unit + 14);
    l.sclass = unit[16];
    l.numaux = unit[17];
    return l;
}

// One 18-byte COFF unit, converted in place: an auxiliary entry when the
// unit before it had auxiliary entries, else a symbol entry. The link
// remembers this unit's fields in host order.
void symentUnit(uint8_t* p, CoffLink& link, bool srcNative) {
    const bool isAux = link.valid && link.numaux != 0;
    CoffLink next;
    if (srcNative) next = linkOf(p);
    if (isAux)
        ByteSwap::swap_aux_entry(p, link);
    else
        ByteSwap::swap_symtab_entry(p);
    if (!srcNative) next = linkOf(p);
    link = next;
}

// COFF records are converted in place; between buffers the destination
// gets a copy first, so the source is never changed.
void coffRecords(uint8_t* src, uint8_t* dst, Elf_Type type, size_t count, CoffLink& link, bool srcNative) {
    const size_t unit = unitSize(type);
    if (src != dst && count) std::memmove(dst, src, count * unit);
    for (size_t i = 0; i < count; ++i) {
        if (type == ELF_T_LINENO)
            ByteSwap::swap_line_info(dst + i * unit);
        else
            symentUnit(dst + i * unit, link, srcNative);
    }
}

bool isWordShaped(Elf_Type type) {
    switch (type) {
    case ELF_T_ADDR:
    case ELF_T_OFF:
    case ELF_T_WORD:
    case ELF_T_DYN:
    case ELF_T_REL:
    case ELF_T_RELA:
    case ELF_T_THREEWORD:
    case ELF_T_PHDR:
    case ELF_T_SHDR:
    case ELF_T_SIXWORD:
        return true;
    default:
        return false;
    }
}

long convert(uint8_t* src, uint8_t* dst, Elf_Type type, size_t count, CoffLink& link, bool srcNative) {
    if (!src || !dst || static_cast<uint32_t>(type) >= ELF_T_NUM) {
        SETERR(ERR_DESC_TYPE);
        return -1;
    }
    if (type == ELF_T_SWORD || type == ELF_T_SPARE) {
        if (count == 0) return 0;
        SETERR(ERR_SWAP_TYPE);
        return -1;
    }
    const size_t unit = unitSize(type);
    if (isWordShaped(type)) {
        swapWords(src, dst, count * (unit / 4));
        return static_cast<long>(count);
    }
    switch (type) {
    case ELF_T_BYTE:
        if (src != dst && count) std::memmove(dst, src, count);
        break;
    case ELF_T_HALF:
        if (src == dst)
            swapHalvesInPlace(dst, count);
        else
            swapHalvesDistinct(src, dst, count);
        break;
    case ELF_T_SYM:
        swapSyms(src, dst, count);
        break;
    case ELF_T_EHDR:
        for (size_t i = 0; i < count; ++i) swapEhdr(src + i * unit, dst + i * unit);
        break;
    case ELF_T_LINENO:
    case ELF_T_SYMENT:
        coffRecords(src, dst, type, count, link, srcNative);
        break;
    case ELF_T_LNRELA_6TO8:
        for (size_t i = 0; i < count; ++i) swapLnRela(src + i * unit, dst + i * unit, 6, 8, srcNative);
        break;
    case ELF_T_LNRELA_8TO6:
        for (size_t i = 0; i < count; ++i) swapLnRela(src + i * unit, dst + i * unit, 8, 6, srcNative);
        break;
    default:
        SETERR(ERR_SWAP_TYPE);
        return -1;
    }
    return static_cast<long>(count);
}

}  // namespace

int limitVectorKernels(int level) {
#if defined(__x86_64__) || defined(__i386__)
    cpu().avx2 = cpu().hasAvx2 && level >= 2;
    cpu().ssse3 = cpu().hasSsse3 && level >= 1;
    return cpu().avx2 ? 2 : cpu().ssse3 ? 1 : 0;
#else
    (void)level;
    return 0;
#endif
}

AuxFields auxEntryFields(uint8_t c, uint16_t t, bool firstWordZero) {
    AuxFields a;
    auto set = [&a](int row, std::initializer_list<AuxFields::Field> f) {
        a.row = row;
        a.count = 0;
        for (const auto& x : f) a.fields[a.count++] = x;
    };
    const unsigned bt = t & 0x0fu;
    const unsigned dt = t & 0x30u;
    const bool inS = c == 1 || c == 2 || c == 3 || c == 4 || c == 8 || c == 9 || c == 11 || c == 13 || c == 17;
    if (c == 103 && t == 0 && !firstWordZero)
        set(1, {});  // file name inline
    else if (c == 103 && t == 0)
        set(2, {{4, 4}});  // file name by string-table offset
    else if (c == 3 && t == 0)
        set(3, {{0, 4}, {4, 2}, {6, 2}});  // section: length, relocations, line numbers
    else if ((c == 10 && t == 8) || (c == 12 && t == 9) || (c == 15 && t == 10))
        set(4, {{6, 2}, {12, 4}});  // struct/union/enum tag: size, end index
    else if (c == 102 && t == 0)
        set(5, {{0, 4}, {6, 2}});  // end of structure: tag index, size
    else if ((c == 2 || c == 3) && dt == 0x20 && bt != 11)
        set(6, {{0, 4}, {4, 4}, {8, 4}, {12, 4}});  // function
    else if (inS && dt == 0x30 && bt != 11)
        set(7, {{0, 4}, {4, 2}, {6, 2}, {8, 2}, {10, 2}, {12, 2}, {14, 2}});  // array
    else if ((c == 100 || c == 101) && t == 0)
        set(8, {{4, 2}, {12, 4}});  // block or function begin/end
    else if (inS && (dt == 0 || dt == 0x10) && bt != 11 && (t & 0x0bu) != 0)
        set(9, {{0, 4}, {6, 2}});  // tag index and size
    else if (c == 18 && dt == 0)
        set(10, {{0, 4}, {6, 2}});  // bit field
    else
        set(11, {});
    return a;
}

void ByteSwap::UnsignedUnitSwap(char* src, char* dst, int n) {
    if (n <= 0 || !src || !dst) return;
    auto* s = reinterpret_cast<uint8_t*>(src);
    auto* d = reinterpret_cast<uint8_t*>(dst);
    if (s == d) {
        reverseInPlace(d, static_cast<size_t>(n));
        return;
    }
    for (int i = 0; i < n; ++i) d[i] = s[n - 1 - i];
}

int ByteSwap::TypeUnitSwap(char* src, char* dst, Elf_Type type) {
    auto* s = reinterpret_cast<uint8_t*>(src);
    auto* d = reinterpret_cast<uint8_t*>(dst);
    // A COFF unit is converted where it stands in the source and then
    // copied, so that both buffers end converted.
    const bool coff = type == ELF_T_LINENO || type == ELF_T_SYMENT;
    const long r = convert(s, coff ? s : d, type, 1, g_unitLink, /*srcNative=*/false);
    if (r < 0) return -1;
    if (coff && d && s != d) std::memcpy(d, s, unitSize(type));
    return static_cast<int>(unitSize(type));
}

long ByteSwap::swapBlock(char* src, char* dst, Elf_Type type, size_t count, bool srcNative) {
    CoffLink link;
    return convert(reinterpret_cast<uint8_t*>(src), reinterpret_cast<uint8_t*>(dst), type, count, link, srcNative);
}

long ByteSwap::reshapeBlock(const char* src, char* dst, Elf_Type type, size_t count, size_t srcStride,
                            size_t dstStride, bool doConvert, bool srcNative) {
    if (!src || !dst || static_cast<uint32_t>(type) >= ELF_T_NUM || srcStride == 0 || dstStride == 0) {
        SETERR(ERR_DESC_TYPE);
        return -1;
    }
    const size_t keep = srcStride < dstStride ? srcStride : dstStride;
    CoffLink link;
    for (size_t i = 0; i < count; ++i) {
        auto* d = reinterpret_cast<uint8_t*>(dst) + i * dstStride;
        std::memmove(d, src + i * srcStride, keep);
        if (dstStride > keep) std::memset(d + keep, 0, dstStride - keep);
        if (doConvert && convert(d, d, type, 1, link, srcNative) < 0) return -1;
    }
    return static_cast<long>(count);
}

void ByteSwap::swap_line_info(uint8_t* p) {
    reverseInPlace(p, 4);
    if (p[4] | p[5]) reverseInPlace(p + 4, 2);
}

void ByteSwap::swap_symtab_entry(uint8_t* p) {
    if ((p[0] | p[1] | p[2] | p[3]) == 0) reverseInPlace(p + 4, 4);  // name by string-table offset
    reverseInPlace(p + 8, 4);                                         // n_value
    reverseInPlace(p + 12, 2);                                        // n_scnum
    reverseInPlace(p + 14, 2);                                        // n_type
}

void ByteSwap::swap_aux_entry(uint8_t* p, const CoffLink& sym) {
    const bool firstWordZero = (p[0] | p[1] | p[2] | p[3]) == 0;
    const AuxFields f = auxEntryFields(sym.sclass, sym.type, firstWordZero);
    for (uint8_t i = 0; i < f.count; ++i) reverseInPlace(p + f.fields[i].off, f.fields[i].width);
}

}  // namespace tamo
