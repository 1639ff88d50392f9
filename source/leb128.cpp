// LEB128 coders for 32-bit values. The exported coders keep the 32-bit
// contract on every host: values are taken modulo 2^32 (so 5 output bytes
// always suffice), and decoders keep the low 32 bits of longer encodings while
// consuming every byte of them.

#include "leb128.h"

#include <cstdint>

#include "Assert.h"
#include "tamoelf.h"

#define LEB_FILE "source/leb128"

extern "C" unsigned char* long_to_leb(long value, unsigned char* pvbOutbuf) {
    TAMO_ASSERT(pvbOutbuf, LEB_FILE);
    auto v = static_cast<int32_t>(static_cast<uint32_t>(value));
    unsigned char* p = pvbOutbuf;
    for (;;) {
        auto byte = static_cast<unsigned char>(v & 0x7f);
        v >>= 7;  // arithmetic shift
        const bool last = (v == 0 && !(byte & 0x40)) || (v == -1 && (byte & 0x40));
        if (!last) byte |= 0x80;
        *p++ = byte;
        if (last) break;
    }
    return pvbOutbuf;
}

extern "C" unsigned char* ulong_to_leb(unsigned long value, unsigned char* pvbOutbuf) {
    TAMO_ASSERT(pvbOutbuf, LEB_FILE);
    auto v = static_cast<uint32_t>(value);
    unsigned char* p = pvbOutbuf;
    do {
        auto byte = static_cast<unsigned char>(v & 0x7f);
        v >>= 7;
        if (v != 0) byte |= 0x80;
        *p++ = byte;
    } while (v != 0);
    return p;
}

namespace {

// Decodes the groups at *cursor; returns the low 32 bits and the shift
// reached, and leaves the cursor past the last byte.
uint32_t decode(unsigned char** cursor, unsigned& shift, unsigned char& last) {
    uint32_t result = 0;
    shift = 0;
    unsigned char byte;
    do {
        byte = *(*cursor)++;
        if (shift < 32) result |= static_cast<uint32_t>(byte & 0x7f) << shift;
        shift += 7;
    } while (byte & 0x80);
    last = byte;
    return result;
}

}  // namespace

extern "C" long leb_to_long(unsigned char** pvbInval) {
    TAMO_ASSERT(pvbInval, LEB_FILE);
    unsigned shift;
    unsigned char last;
    uint32_t result = decode(pvbInval, shift, last);
    if (shift <= 31 && (last & 0x40)) result |= ~0u << shift;
    return static_cast<long>(static_cast<int32_t>(result));
}

extern "C" unsigned long leb_to_ulong(unsigned char** pvbInval) {
    TAMO_ASSERT(pvbInval, LEB_FILE);
    unsigned shift;
    unsigned char last;
    return decode(pvbInval, shift, last);
}

namespace tamo {

void CopyLEB128(unsigned char** ppbSrc, unsigned char** ppbDst) {
    unsigned char byte;
    do {
        byte = *(*ppbSrc)++;
        *(*ppbDst)++ = byte;
    } while (byte & 0x80);
}

unsigned long lebToUlongAndCopy(unsigned char** ppbSrc, unsigned char** ppbDst) {
    unsigned char* start = *ppbSrc;
    CopyLEB128(ppbSrc, ppbDst);
    return leb_to_ulong(&start);
}

}  // namespace tamo
