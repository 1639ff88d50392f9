// The DWARF 2 to 5 tables every walk uses: how each attribute form's value
// is laid out, what operands each location-expression opcode and each call
// frame instruction takes, and which attributes hold location expressions in
// block forms. Values are those of the DWARF standard (and the GNU
// extensions compilers emit).
#pragma once

#include <array>
#include <cstdint>

namespace tamo::dwarf {

// ---------------------------------------------------------------------------
// Attribute forms

enum class FormKind : uint8_t {
    Unknown,   // the walk cannot size the value
    Fixed,     // `width` bytes, reversed when `reverse`
    Address,   // the unit's address size, reversed
    RefAddr,   // address size in DWARF 2, offset size (4) later, reversed
    Uleb,      // an unsigned LEB128
    Sleb,      // a signed LEB128
    String,    // NUL-terminated
    Block,     // a length (`width` bytes, reversed; 0: LEB128), then bytes
    Exprloc,   // a LEB128 length, then a location expression
    Indirect,  // a LEB128 form, then a value of that form
    Nothing,   // no bytes in .debug_info (flag_present, implicit_const)
};

struct Form {
    FormKind kind = FormKind::Unknown;
    uint8_t width = 0;
    bool reverse = false;
};

inline constexpr uint32_t DW_FORM_implicit_const = 0x21;

namespace detail {
constexpr Form fixed(uint8_t w, bool rev = true) {
    return {FormKind::Fixed, w, rev};
}
constexpr Form kind(FormKind k, uint8_t w = 0) {
    return {k, w, false};
}

constexpr std::array<Form, 0x2d> makeForms() {
    std::array<Form, 0x2d> f{};
    f[0x01] = kind(FormKind::Address);                    // addr
    f[0x03] = kind(FormKind::Block, 2);                   // block2
    f[0x04] = kind(FormKind::Block, 4);                   // block4
    f[0x05] = fixed(2);                                   // data2
    f[0x06] = fixed(4);                                   // data4
    f[0x07] = fixed(8);                                   // data8
    f[0x08] = kind(FormKind::String);                     // string
    f[0x09] = kind(FormKind::Block, 0);                   // block
    f[0x0a] = kind(FormKind::Block, 1);                   // block1
    f[0x0b] = fixed(1, false);                            // data1
    f[0x0c] = fixed(1, false);                            // flag
    f[0x0d] = kind(FormKind::Sleb);                       // sdata
    f[0x0e] = fixed(4);                                   // strp
    f[0x0f] = kind(FormKind::Uleb);                       // udata
    f[0x10] = kind(FormKind::RefAddr);                    // ref_addr
    f[0x11] = fixed(1, false);                            // ref1
    f[0x12] = fixed(2);                                   // ref2
    f[0x13] = fixed(4);                                   // ref4
    f[0x14] = fixed(8);                                   // ref8
    f[0x15] = kind(FormKind::Uleb);                       // ref_udata
    f[0x16] = kind(FormKind::Indirect);                   // indirect
    f[0x17] = fixed(4);                                   // sec_offset
    f[0x18] = kind(FormKind::Exprloc);                    // exprloc
    f[0x19] = kind(FormKind::Nothing);                    // flag_present
    f[0x1a] = kind(FormKind::Uleb);                       // strx
    f[0x1b] = kind(FormKind::Uleb);                       // addrx
    f[0x1c] = fixed(4);                                   // ref_sup4
    f[0x1d] = fixed(4);                                   // strp_sup
    f[0x1e] = fixed(16, false);                           // data16: a byte string (MD5 digests)
    f[0x1f] = fixed(4);                                   // line_strp
    f[0x20] = fixed(8);                                   // ref_sig8
    f[DW_FORM_implicit_const] = kind(FormKind::Nothing);  // its value is in .debug_abbrev
    f[0x22] = kind(FormKind::Uleb);                       // loclistx
    f[0x23] = kind(FormKind::Uleb);                       // rnglistx
    f[0x24] = fixed(8);                                   // ref_sup8
    f[0x25] = fixed(1, false);                            // strx1
    f[0x26] = fixed(2);                                   // strx2
    f[0x27] = fixed(3);                                   // strx3
    f[0x28] = fixed(4);                                   // strx4
    f[0x29] = fixed(1, false);                            // addrx1
    f[0x2a] = fixed(2);                                   // addrx2
    f[0x2b] = fixed(3);                                   // addrx3
    f[0x2c] = fixed(4);                                   // addrx4
    return f;
}
}  // namespace detail

inline constexpr std::array<Form, 0x2d> kForms = detail::makeForms();

inline constexpr Form formOf(uint32_t form) {
    if (form < kForms.size()) return kForms[form];
    switch (form) {
        case 0x1f01:  // GNU_addr_index
        case 0x1f02:  // GNU_str_index
            return detail::kind(FormKind::Uleb);
        case 0x1f20:  // GNU_ref_alt
        case 0x1f21:  // GNU_strp_alt
            return detail::fixed(4);
        default:
            return {};
    }
}

// ---------------------------------------------------------------------------
// Location expressions

enum class Operands : uint8_t {
    None,
    Byte,        // 1 byte, copied
    Half,        // 2 bytes, reversed
    Word,        // 4 bytes, reversed
    Dword,       // 8 bytes, reversed
    Address,     // the unit's address size, reversed
    Uleb,        // one LEB128
    Sleb,        // one LEB128 (signed)
    TwoLeb,      // two LEB128s
    WordSleb,    // 4 bytes reversed, then a LEB128
    ByteUleb,    // 1 byte, then a LEB128
    Bytes,       // a LEB128 length, then that many bytes copied
    Expression,  // a LEB128 length, then a nested expression
    ConstType,   // a LEB128, a 1-byte size, then that many bytes reversed
    Unknown,     // not an opcode the walk knows
};

namespace detail {
constexpr std::array<Operands, 256> makeOps() {
    std::array<Operands, 256> o{};
    for (auto& x : o) x = Operands::Unknown;
    // Opcodes without operands.
    for (int op : {0x06, 0x12, 0x13, 0x14, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c,
                   0x1d, 0x1e, 0x1f, 0x20, 0x21, 0x22, 0x24, 0x25, 0x26, 0x27, 0x29,
                   0x2a, 0x2b, 0x2c, 0x2d, 0x2e, 0x96, 0x97, 0x9b, 0x9c, 0x9f, 0xe0 /* GNU_push_tls_address */,
                   0xf0 /* GNU_uninit */})
        o[op] = Operands::None;
    for (int op = 0x30; op <= 0x6f; ++op) o[op] = Operands::None;  // lit0..31, reg0..31
    for (int op = 0x70; op <= 0x8f; ++op) o[op] = Operands::Sleb;  // breg0..31
    o[0x03] = Operands::Address;                                   // addr
    o[0x08] = o[0x09] = Operands::Byte;                            // const1u, const1s
    o[0x0a] = o[0x0b] = Operands::Half;                            // const2u, const2s
    o[0x0c] = o[0x0d] = Operands::Word;                            // const4u, const4s
    o[0x0e] = o[0x0f] = Operands::Dword;                           // const8u, const8s
    o[0x10] = Operands::Uleb;                                      // constu
    o[0x11] = Operands::Sleb;                                      // consts
    o[0x15] = Operands::Byte;                                      // pick
    o[0x23] = Operands::Uleb;                                      // plus_uconst
    o[0x28] = o[0x2f] = Operands::Half;                            // bra, skip
    o[0x90] = Operands::Uleb;                                      // regx
    o[0x91] = Operands::Sleb;                                      // fbreg
    o[0x92] = Operands::TwoLeb;                                    // bregx
    o[0x93] = Operands::Uleb;                                      // piece
    o[0x94] = o[0x95] = Operands::Byte;                            // deref_size, xderef_size
    o[0x98] = Operands::Half;                                      // call2
    o[0x99] = o[0x9a] = Operands::Word;                            // call4, call_ref
    o[0x9d] = Operands::TwoLeb;                                    // bit_piece
    o[0x9e] = Operands::Bytes;                                     // implicit_value
    o[0xa0] = o[0xf2] = Operands::WordSleb;                        // implicit_pointer (and GNU_)
    o[0xa1] = o[0xa2] = Operands::Uleb;                            // addrx, constx
    o[0xa3] = o[0xf3] = Operands::Expression;                      // entry_value (and GNU_)
    o[0xa4] = o[0xf4] = Operands::ConstType;                       // const_type (and GNU_)
    o[0xa5] = o[0xf5] = Operands::TwoLeb;                          // regval_type (and GNU_)
    o[0xa6] = o[0xa7] = o[0xf6] = Operands::ByteUleb;              // deref_type, xderef_type, GNU_deref_type
    o[0xa8] = o[0xa9] = o[0xf7] = o[0xf9] = Operands::Uleb;        // convert, reinterpret (and GNU_)
    o[0xfa] = Operands::Word;                                      // GNU_parameter_ref
    o[0xfb] = o[0xfc] = Operands::Uleb;                            // GNU_addr_index, GNU_const_index
    o[0xfd] = Operands::Word;                                      // GNU_variable_value
    return o;
}
}  // namespace detail

inline constexpr std::array<Operands, 256> kOperands = detail::makeOps();

// The operations whose operands have no byte order, by how many bytes they
// take: 0 none, 1 one byte, 2 one LEB128; 3 anything else.
namespace detail {
constexpr std::array<uint8_t, 256> makePlain() {
    std::array<uint8_t, 256> p{};
    for (int op = 0; op < 256; ++op) {
        switch (kOperands[op]) {
            case Operands::None:
                p[op] = 0;
                break;
            case Operands::Byte:
                p[op] = 1;
                break;
            case Operands::Uleb:
            case Operands::Sleb:
                p[op] = 2;
                break;
            default:
                p[op] = 3;
        }
    }
    return p;
}
}  // namespace detail
inline constexpr std::array<uint8_t, 256> kPlainOperands = detail::makePlain();

// Attributes whose block-form values are location expressions.
inline constexpr bool isLocationAttribute(uint32_t at) {
    switch (at) {
        case 0x02:  // location
        case 0x19:  // string_length
        case 0x2a:  // return_addr
        case 0x38:  // data_member_location
        case 0x40:  // frame_base
        case 0x46:  // segment
        case 0x48:  // static_link
        case 0x4a:  // use_location
        case 0x4d:  // vtable_elem_location
            return true;
        default:
            return false;
    }
}

// ---------------------------------------------------------------------------
// Call frame instructions (.debug_frame, .eh_frame)

enum class CfaOperands : uint8_t {
    None,
    Byte,            // 1 byte (advance_loc1)
    Half,            // 2 bytes, reversed
    Word,            // 4 bytes, reversed
    Dword,           // 8 bytes, reversed
    Address,         // set_loc: an address (.eh_frame: the FDE's pointer encoding)
    Uleb,            // one LEB128
    TwoLeb,          // two LEB128s (register, offset)
    Expression,      // a LEB128 length, then a location expression
    UlebExpression,  // a register, then a LEB128 length and an expression
    Unknown,
};

// Operands of an instruction by its low six bits when its high two are 0;
// advance_loc (0x40), offset (0x80, one LEB128) and restore (0xc0) carry
// their first operand in the low bits.
namespace detail {
constexpr std::array<CfaOperands, 64> makeCfa() {
    std::array<CfaOperands, 64> o{};
    for (auto& x : o) x = CfaOperands::Unknown;
    o[0x00] = o[0x0a] = o[0x0b] = o[0x2d] = CfaOperands::None;  // nop, remember/restore_state, GNU_window_save
    o[0x01] = CfaOperands::Address;                             // set_loc
    o[0x02] = CfaOperands::Byte;                                // advance_loc1
    o[0x03] = CfaOperands::Half;                                // advance_loc2
    o[0x04] = CfaOperands::Word;                                // advance_loc4
    o[0x1c] = CfaOperands::Dword;                               // MIPS_advance_loc8
    for (int op : {0x06, 0x07, 0x08, 0x0d, 0x0e, 0x13, 0x2e})  // restore_extended, undefined, same_value,
        o[op] = CfaOperands::Uleb;                              // def_cfa_register, def_cfa_offset(_sf), GNU_args_size
    for (int op : {0x05, 0x09, 0x0c, 0x11, 0x12, 0x14, 0x15, 0x2f})  // offset_extended(_sf), register, def_cfa(_sf),
        o[op] = CfaOperands::TwoLeb;                                  // val_offset(_sf), GNU_negative_offset_extended
    o[0x0f] = CfaOperands::Expression;                                // def_cfa_expression
    o[0x10] = o[0x16] = CfaOperands::UlebExpression;                  // expression, val_expression
    return o;
}
}  // namespace detail
inline constexpr std::array<CfaOperands, 64> kCfaOperands = detail::makeCfa();

// ---------------------------------------------------------------------------
// Units and line programs

inline constexpr uint32_t DW_UT_compile = 1, DW_UT_type = 2, DW_UT_partial = 3, DW_UT_skeleton = 4,
                          DW_UT_split_compile = 5, DW_UT_split_type = 6;
inline constexpr uint8_t DW_LNS_fixed_advance_pc = 9;
inline constexpr uint8_t DW_LNE_set_address = 2;
// Initial lengths from this value up are reserved (0xffffffff: 64-bit DWARF).
inline constexpr uint64_t kReservedLength = 0xfffffff0u;

}  // namespace tamo::dwarf
