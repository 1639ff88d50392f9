// The DWARF converter on fuzzed sections. The first byte chooses the section
// (.debug_line, .debug_info or .debug_types) and the direction, the next two the length of
// the .debug_abbrev part that follows; the rest is the section. It is
// converted by each walk (the chase, the windows, the plain walk; the
// faster ones whatever the section's size) in place and into a second
// buffer, which must all give what the plain walk gives in place and leave
// the source alone, and converting the result back must give the input:
// the walks decide only by host-order values, so this holds for malformed
// sections too. Buffers have exactly their data's size, so that the
// sanitizers see any step outside them.
#include <cstdint>
#include <cstring>
#include <memory>

#include "dwarf_swap.h"

namespace {

std::unique_ptr<char[]> copyOf(const uint8_t* p, size_t n) {
    std::unique_ptr<char[]> b(new char[n ? n : 1]);
    if (n) std::memcpy(b.get(), p, n);
    return b;
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const uint8_t mode = data[0];
    size_t abbrevSize = static_cast<size_t>(data[1]) | static_cast<size_t>(data[2]) << 8;
    data += 3;
    size -= 3;
    if (abbrevSize > size) abbrevSize = size;
    const char* const names[] = {".debug_line", ".debug_info", ".debug_types"};
    const char* name = names[(mode & 0x7f) % 3];
    const bool srcNative = (mode & 0x80) != 0;
    const auto abbrevBytes = copyOf(data, abbrevSize);
    const tamo::AbbrevBytes abbrev{reinterpret_cast<const uint8_t*>(abbrevBytes.get()), abbrevSize};
    const uint8_t* section = data + abbrevSize;
    const size_t n = size - abbrevSize;

    // The plain walk in place is the reference. Each walk, in place and
    // between buffers, gives its bytes and leaves the source alone, and
    // converting the result back gives the input.
    auto plain = copyOf(section, n);
    tamo::dwarfConvert(name, plain.get(), plain.get(), n, nullptr, srcNative, &abbrev, tamo::Walk::OneUnit);
    for (const tamo::Walk walk : {tamo::Walk::Chase, tamo::Walk::Windows, tamo::Walk::OneUnit}) {
        auto inPlace = copyOf(section, n);
        tamo::dwarfConvert(name, inPlace.get(), inPlace.get(), n, nullptr, srcNative, &abbrev, walk);
        check(std::memcmp(inPlace.get(), plain.get(), n) == 0);
        auto src = copyOf(section, n);
        std::unique_ptr<char[]> out(new char[n ? n : 1]), back(new char[n ? n : 1]);
        tamo::dwarfConvert(name, src.get(), out.get(), n, nullptr, srcNative, &abbrev, walk);
        check(std::memcmp(src.get(), section, n) == 0);
        check(std::memcmp(out.get(), plain.get(), n) == 0);
        tamo::dwarfConvert(name, out.get(), back.get(), n, nullptr, !srcNative, &abbrev, walk);
        check(std::memcmp(back.get(), section, n) == 0);
    }
    return 0;
}
