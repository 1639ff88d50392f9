// The walk of a DWARF location expression (DW_OP_* operations with their
// operands), shared by every walk that meets one: attribute values of
// .debug_info, location lists, call frame instructions. Operands of fixed
// width are reversed, LEB128s and bytes copied; an opcode the walk does not
// know, or an operand that runs off the expression, makes the rest of the
// expression go unchanged. Header-only, so that the tool's walkers use the
// library's very code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "DwarfCursor.h"
#include "DwarfTables.h"

namespace tamo::dwarf {

// Nested expressions (DW_OP_entry_value) deeper than this are copied.
inline constexpr int kMaxExpressionNesting = 16;

template <class Cursor>
[[gnu::noinline]] Cursor locationExpression(Cursor c, size_t end, unsigned addressSize, int depth = 0);

template <class Cursor>
[[gnu::always_inline]] inline bool swap_location_machine(Cursor& c, size_t end, unsigned addressSize, int depth) {
    while (c.pos() < end) {
        uint8_t op = 0;
        if (!c.Byte(op)) return false;
        uint64_t n = 0;
        uint8_t size = 0;
        switch (kOperands[op]) {
            case Operands::None:
                break;
            case Operands::Byte:
                c.CopyN(1);
                break;
            case Operands::Half:
                c.Swap(2);
                break;
            case Operands::Word:
                c.Swap(4);
                break;
            case Operands::Dword:
                c.Swap(8);
                break;
            case Operands::Address:
                c.Swap(addressSize);
                break;
            case Operands::Uleb:
            case Operands::Sleb:
                c.Uleb();
                break;
            case Operands::TwoLeb:
                c.Uleb() && c.Uleb();
                break;
            case Operands::WordSleb:
                c.Swap(4) && c.Uleb();
                break;
            case Operands::ByteUleb:
                c.CopyN(1) && c.Uleb();
                break;
            case Operands::Bytes:
                if (c.Uleb(&n) && c.has(n))
                    c.CopyN(static_cast<size_t>(n));
                else
                    c.fail();
                break;
            case Operands::Expression:
                if (c.Uleb(&n) && c.has(n))
                    c = locationExpression(c, c.pos() + static_cast<size_t>(n), addressSize, depth + 1);
                else
                    c.fail();
                break;
            case Operands::ConstType:
                c.Uleb() && c.Byte(size) && c.Swap(size);
                break;
            case Operands::Unknown:
                return false;  // its operands cannot be known: the rest goes as it is
        }
        if (c.failed()) return false;
    }
    return true;
}

// One location expression ending at `end`. A malformed or unknown opcode
// makes the rest of the expression go unchanged; the expression itself
// always ends at `end`. The cursor goes in and comes back by value (so that
// callers can keep theirs in registers).
template <class Cursor>
[[gnu::noinline]] Cursor locationExpression(Cursor c, size_t end, unsigned addressSize, int depth) {
    const size_t outer = c.limit(end);
    if (c.failed()) return c;
    if (depth >= kMaxExpressionNesting || !swap_location_machine(c, end, addressSize, depth)) c.copyRest();
    c.restore(outer);
    return c;
}

}  // namespace tamo::dwarf
