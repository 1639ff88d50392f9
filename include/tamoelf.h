/*
 * tamoelf: reading, creating and writing 32-bit ELF objects and archives of
 * them, in either byte order, through the System V libelf interface (every
 * function prefixed with tamo_).
 *
 * Everything a caller sees through a descriptor (ELF header, section headers,
 * section data) is in the host's byte order; the library converts on reading
 * and converts back when writing, or when a descriptor on a memory image ends.
 *
 * Record sizes differ from generic ELF32: a section header is 44 bytes (the
 * ten standard words plus sh_extra) and a symbol is 20 bytes (the six standard
 * fields plus st_extra).
 *
 * The header is usable from C and C++ and includes only standard headers.
 * Types that the interface spells size_t, off_t and long are those of the
 * platform the library was built for; build callers with the same
 * _FILE_OFFSET_BITS setting as the library (the default).
 */
#ifndef TAMOELF_H
#define TAMOELF_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(_WIN32)
#define TAMO_API
#elif defined(__GNUC__) || defined(__clang__)
#define TAMO_API __attribute__((visibility("default")))
#else
#define TAMO_API
#endif

/* ---------------------------------------------------------------------- */
/* Handles                                                                 */
/* ---------------------------------------------------------------------- */

#ifdef __cplusplus
class Elf;
class Elf_Scn;
#else
typedef struct Elf Elf;
typedef struct Elf_Scn Elf_Scn;
#endif

/* ---------------------------------------------------------------------- */
/* Enumerations and constants                                              */
/* ---------------------------------------------------------------------- */

/* C callers may pass any int where the interface takes an enumeration (the
 * library answers values outside the named ones with an error code). In C++
 * the enumerations therefore have a fixed int underlying type, so that every
 * int value is a valid value of the type; in C they are int-sized anyway. */
#ifdef __cplusplus
#define TAMO_ENUM_INT : int
#else
#define TAMO_ENUM_INT
#endif

/** Kind of a descriptor. A member of an archive reports ELF_K_AR as well. */
typedef enum TAMO_ENUM_INT {
    ELF_K_NONE = 0,
    ELF_K_AR = 1,
    ELF_K_ELF = 3
} Elf_Kind;

/** Commands of tamo_elf_begin, tamo_elf_update, tamo_elf_cntl and the flag
 * functions. */
typedef enum TAMO_ENUM_INT {
    ELF_C_NULL = 0,
    ELF_C_READ = 1,
    ELF_C_WRITE = 2,
    ELF_C_CLR = 3,
    ELF_C_SET = 4,
    ELF_C_FDDONE = 5,
    ELF_C_FDREAD = 6,
    ELF_C_RDWR = 7
} Elf_Cmd;

/** Flag bits of the flag functions. */
#define ELF_F_DIRTY 0x1u
#define ELF_F_LAYOUT 0x4u

/** Data types of Elf_Data.d_type; every unit has the same size in memory and
 * in the file (tamo_elf32_fsize). Values 13 to 19 are this library's own. */
typedef enum TAMO_ENUM_INT {
    ELF_T_BYTE = 0,
    ELF_T_ADDR = 1,
    ELF_T_DYN = 2,
    ELF_T_EHDR = 3,
    ELF_T_HALF = 4,
    ELF_T_OFF = 5,
    ELF_T_PHDR = 6,
    ELF_T_RELA = 7,
    ELF_T_REL = 8,
    ELF_T_SHDR = 9,
    ELF_T_SWORD = 10,
    ELF_T_SYM = 11,
    ELF_T_WORD = 12,
    ELF_T_SPARE = 13,
    ELF_T_SIXWORD = 14,
    ELF_T_LINENO = 15,       /* COFF line-number record, 6 bytes */
    ELF_T_SYMENT = 16,       /* COFF symbol or auxiliary entry, 18 bytes */
    ELF_T_LNRELA_6TO8 = 17,  /* RELA whose r_offset counts 6-byte records, rescaled to 8 */
    ELF_T_LNRELA_8TO6 = 18,  /* RELA whose r_offset counts 8-byte records, rescaled to 6 */
    ELF_T_THREEWORD = 19,
    ELF_T_NUM = 20
} Elf_Type;

#ifndef EV_NONE
#define EV_NONE 0
#endif
#ifndef EV_CURRENT
#define EV_CURRENT 1
#endif
#ifndef EI_NIDENT
#define EI_NIDENT 16
#endif
#ifndef EI_MAG0
#define EI_MAG0 0
#define EI_MAG1 1
#define EI_MAG2 2
#define EI_MAG3 3
#endif
#ifndef EI_CLASS
#define EI_CLASS 4
#endif
#ifndef EI_DATA
#define EI_DATA 5
#endif
#ifndef EI_VERSION
#define EI_VERSION 6
#endif
#ifndef ELFCLASS32
#define ELFCLASS32 1
#endif
#ifndef ELFDATANONE
#define ELFDATANONE 0
#endif
#ifndef ELFDATA2LSB
#define ELFDATA2LSB 1
#endif
#ifndef ELFDATA2MSB
#define ELFDATA2MSB 2
#endif
#ifndef SHN_UNDEF
#define SHN_UNDEF 0
#endif
#ifndef SHT_NULL
#define SHT_NULL 0
#define SHT_PROGBITS 1
#define SHT_SYMTAB 2
#define SHT_STRTAB 3
#define SHT_RELA 4
#define SHT_HASH 5
#define SHT_DYNAMIC 6
#define SHT_NOTE 7
#define SHT_NOBITS 8
#define SHT_REL 9
#define SHT_SHLIB 10
#define SHT_DYNSYM 11
#endif

/** Swap behaviours of tamo_elf_setswapbehavior: when a section's data are
 * converted. */
#define ELF_SWAP_HOST 1   /* converted when the file's order is not the host's */
#define ELF_SWAP_LITTLE 2 /* the caller sees little-endian data */
#define ELF_SWAP_BIG 3    /* the caller sees big-endian data */
#define ELF_SWAP_NEVER 4  /* data as stored */

/* ---------------------------------------------------------------------- */
/* Records                                                                 */
/* ---------------------------------------------------------------------- */

typedef uint32_t Elf32_Addr;
typedef uint16_t Elf32_Half;
typedef uint32_t Elf32_Off;
typedef int32_t Elf32_Sword;
typedef uint32_t Elf32_Word;

/** ELF header, 52 bytes. */
typedef struct {
    unsigned char e_ident[EI_NIDENT];
    Elf32_Half e_type;
    Elf32_Half e_machine;
    Elf32_Word e_version;
    Elf32_Addr e_entry;
    Elf32_Off e_phoff;
    Elf32_Off e_shoff;
    Elf32_Word e_flags;
    Elf32_Half e_ehsize;
    Elf32_Half e_phentsize;
    Elf32_Half e_phnum;
    Elf32_Half e_shentsize;
    Elf32_Half e_shnum;
    Elf32_Half e_shstrndx;
} Elf32_Ehdr;

/** Section header, 44 bytes: the ten standard words and sh_extra. */
typedef struct {
    Elf32_Word sh_name;
    Elf32_Word sh_type;
    Elf32_Word sh_flags;
    Elf32_Addr sh_addr;
    Elf32_Off sh_offset;
    Elf32_Word sh_size;
    Elf32_Word sh_link;
    Elf32_Word sh_info;
    Elf32_Word sh_addralign;
    Elf32_Word sh_entsize;
    Elf32_Word sh_extra;
} Elf32_Shdr;

/** Symbol, 20 bytes: the six standard fields and st_extra. */
typedef struct {
    Elf32_Word st_name;
    Elf32_Addr st_value;
    Elf32_Word st_size;
    unsigned char st_info;
    unsigned char st_other;
    Elf32_Half st_shndx;
    Elf32_Word st_extra;
} Elf32_Sym;

typedef struct {
    Elf32_Addr r_offset;
    Elf32_Word r_info;
} Elf32_Rel;

typedef struct {
    Elf32_Addr r_offset;
    Elf32_Word r_info;
    Elf32_Sword r_addend;
} Elf32_Rela;

/** One piece of a section's contents. */
typedef struct {
    void* d_buf;         /* the bytes */
    Elf_Type d_type;     /* type of the units in d_buf, as the caller sees it */
    size_t d_size;       /* number of bytes */
    off_t d_off;         /* offset of the piece in its section */
    size_t d_align;      /* alignment within the section; 0 and 1 mean none */
    unsigned int d_version; /* EV_CURRENT */
} Elf_Data;

/** Parsed archive member header. Numbers are decimal in the file. */
typedef struct {
    char* ar_name;    /* the name: the text before the first '/' */
    int32_t ar_date;
    int32_t ar_uid;
    int32_t ar_gid;
    int32_t ar_mode;
    int32_t ar_size;
    char* ar_rawname; /* the whole name field as stored */
} Elf_Arhdr;

/** Archive symbol table entry. */
typedef struct {
    char* as_name;    /* symbol name */
    uint32_t as_off;  /* file offset of the defining member's header */
    uint32_t as_hash; /* System V ELF hash of as_name */
} Elf_Arsym;

/** Read-swap controller: chooses a section's swap behaviour (1 to 4) from
 * its header and name when its data are read. */
typedef int (*Elf_ReadSwapController)(Elf32_Shdr* shdr, const char* name);

#ifdef __cplusplus
static_assert(sizeof(Elf32_Ehdr) == 52, "ELF header is 52 bytes");
static_assert(sizeof(Elf32_Shdr) == 44, "section header is 44 bytes");
static_assert(sizeof(Elf32_Sym) == 20, "symbol is 20 bytes");
static_assert(sizeof(Elf32_Rela) == 12, "RELA is 12 bytes");
extern "C" {
#else
typedef char tamo_check_ehdr_size[sizeof(Elf32_Ehdr) == 52 ? 1 : -1];
typedef char tamo_check_shdr_size[sizeof(Elf32_Shdr) == 44 ? 1 : -1];
typedef char tamo_check_sym_size[sizeof(Elf32_Sym) == 20 ? 1 : -1];
#endif

/** Values of the library's 32-bit yes/no fields: 0 and 1. */
TAMO_API extern const int FALSEVAL;
TAMO_API extern const int TRUEVAL;

/* ---------------------------------------------------------------------- */
/* Library frame and errors                                                */
/* ---------------------------------------------------------------------- */

/** Sets the working version. 0 asks for the current version (returns 1,
 * changes nothing); 1 returns the previous working version (1 if none) and
 * sets it; anything else fails with 0 (code 54). tamo_elf_begin needs it. */
TAMO_API unsigned int tamo_elf_version(unsigned int version);

/** Kind of a descriptor; ELF_K_NONE on failure. */
TAMO_API Elf_Kind tamo_elf_kind(Elf* elf);

/** The 16 identification bytes of the ELF header; stores 16 (or 0 on
 * failure) through count when it is not null. */
TAMO_API char* tamo_elf_getident(Elf* elf, size_t* count);

/** File offset of the descriptor's contents: 0, or a member's data offset. */
TAMO_API off_t tamo_elf_getbase(Elf* elf);

/** Sets the byte written into gaps of written images (its low byte). */
TAMO_API void tamo_elf_fill(int fill);

/** Returns the code of the last failure and clears it. */
TAMO_API int tamo_elf_errno(void);

/** Message text of an error code; codes outside 0..98 give code 0's text. */
TAMO_API const char* tamo_elf_errmsg(int code);

/** Context text (operation name) of the last failure, or null. */
TAMO_API const char* elf_lastmsg_poster(void);

/* ---------------------------------------------------------------------- */
/* Opening, reading and ending                                             */
/* ---------------------------------------------------------------------- */

/** Makes a descriptor on a file id: ELF_C_READ, ELF_C_RDWR or ELF_C_WRITE;
 * with an archive's descriptor as ref, the member at the file position. */
TAMO_API Elf* tamo_elf_begin(int fd, Elf_Cmd cmd, Elf* ref);

/** Makes a read-only descriptor on a memory image of an ELF object. The image
 * is converted in place while the descriptor lives and put back when it
 * ends (only e_ident[EI_DATA] keeps the value derived from e_version). */
TAMO_API Elf* tamo_elf_memory(char* image, size_t size);

/** open(2) with the library's error reporting. */
TAMO_API int tamo_elf_open(const char* path, int flags, mode_t mode);

/** Maps a whole file privately (copy-on-write); returns its size. */
TAMO_API long tamo_elf_mopen(const char* path, void** address);

/** close(2) with the library's error reporting. */
TAMO_API int tamo_elf_close(int fd);

/** munmap(2) with the library's error reporting. */
TAMO_API int tamo_elf_mclose(void* address, size_t length);

/** ELF_C_FDREAD reads everything now; ELF_C_FDDONE stops further reading. */
TAMO_API int tamo_elf_cntl(Elf* elf, Elf_Cmd cmd);

/** Takes one activation away; destroys the descriptor at 0. Returns the
 * remaining count, or -1. */
TAMO_API int tamo_elf_end(Elf* elf);

/** The ELF header in host order, or null. */
TAMO_API Elf32_Ehdr* tamo_elf32_getehdr(Elf* elf);

/** Section by index, read on first use. */
TAMO_API Elf_Scn* tamo_elf_getscn(Elf* elf, size_t index);

/** The section after scn (section 1 when scn is null); null at the end. */
TAMO_API Elf_Scn* tamo_elf_nextscn(Elf* elf, Elf_Scn* scn);

/** Index of a section; 0 on failure. */
TAMO_API size_t tamo_elf_ndxscn(Elf_Scn* scn);

/** The section header in host order, or null. */
TAMO_API Elf32_Shdr* tamo_elf32_getshdr(Elf_Scn* scn);

/** The string at offset in string-table section `section`, or null. */
TAMO_API char* tamo_elf_strptr(Elf* elf, size_t section, size_t offset);

/** The first data block of scn (data null) or the one after data. */
TAMO_API Elf_Data* tamo_elf_getdata(Elf_Scn* scn, Elf_Data* data);

/* ---------------------------------------------------------------------- */
/* Creating, flags, layout and writing                                     */
/* ---------------------------------------------------------------------- */

TAMO_API Elf32_Ehdr* tamo_elf32_newehdr(Elf* elf);
TAMO_API Elf_Scn* tamo_elf_newscn(Elf* elf);
TAMO_API Elf_Data* tamo_elf_newdata(Elf_Scn* scn);
TAMO_API unsigned int tamo_elf_flagelf(Elf* elf, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagehdr(Elf* elf, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagscn(Elf_Scn* scn, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagshdr(Elf_Scn* scn, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagdata(Elf_Data* data, Elf_Cmd cmd, unsigned int flags);
TAMO_API off_t tamo_elf_update(Elf* elf, Elf_Cmd cmd);

/* ---------------------------------------------------------------------- */
/* Types, byte order and translation                                       */
/* ---------------------------------------------------------------------- */

/** File size of count units of type (32-bit product); 0 on failure. */
TAMO_API size_t tamo_elf32_fsize(Elf_Type type, size_t count, unsigned int version);

/** Sets a section's swap behaviour (1 to 4); -1 with code 98 otherwise. */
TAMO_API int tamo_elf_setswapbehavior(Elf_Scn* scn, int behavior);

/** Installs a read-swap controller (null: the default, which returns 1);
 * returns the previous one. */
TAMO_API Elf_ReadSwapController tamo_elf_setreadswapcontroller(Elf* elf, Elf_ReadSwapController controller);

/** Converts a data block handed out by the library towards the file's order
 * (xlatetof) or towards memory order (xlatetom) for encoding `encode`. */
TAMO_API Elf_Data* tamo_elf32_xlatetof(Elf_Data* dst, Elf_Data* src, unsigned int encode);
TAMO_API Elf_Data* tamo_elf32_xlatetom(Elf_Data* dst, Elf_Data* src, unsigned int encode);

/* ---------------------------------------------------------------------- */
/* Archives                                                                */
/* ---------------------------------------------------------------------- */

/** Moves the archive's file position to the next member; ELF_C_READ while
 * members remain, ELF_C_NULL at the end. */
TAMO_API Elf_Cmd tamo_elf_next(Elf* elf);

/** Moves the archive's file position to a member header offset. */
TAMO_API size_t tamo_elf_rand(Elf* elf, size_t offset);

/** A member's parsed archive header. */
TAMO_API Elf_Arhdr* tamo_elf_getarhdr(Elf* elf);

/** The archive symbol table: count entries, then one more whose as_name is
 * null (as_off 0, as_hash all ones) for loops that walk to a terminator. */
TAMO_API Elf_Arsym* tamo_elf_getarsym(Elf* elf, size_t* count);

/* ---------------------------------------------------------------------- */
/* LEB128 and DWARF                                                        */
/* ---------------------------------------------------------------------- */

/** Signed LEB128 encoding of a 32-bit value into at least 5 bytes; returns
 * the start of the buffer. */
TAMO_API unsigned char* long_to_leb(long value, unsigned char* pvbOutbuf);
/** Unsigned LEB128 encoding of a 32-bit value; returns the end of the bytes
 * written. */
TAMO_API unsigned char* ulong_to_leb(unsigned long value, unsigned char* pvbOutbuf);
/** Decodes a signed LEB128 (32-bit result); advances the cursor. */
TAMO_API long leb_to_long(unsigned char** pvbInval);
/** Decodes an unsigned LEB128 (32-bit result); advances the cursor. */
TAMO_API unsigned long leb_to_ulong(unsigned char** pvbInval);

/** Reads the .debug_abbrev section of elf into the converter's tables. */
TAMO_API void ReadAbbrevTable(Elf* elf);

/** Converts a DWARF section (.debug_info, .debug_line*) between byte
 * orders, sh_size bytes from src into dst (which may equal src). */
TAMO_API void endian_swap_dwarf_section(const char* name, char* src, char* dst, const Elf* elf,
                                        const Elf32_Shdr* shdr, bool bSrcNative);

#ifdef __cplusplus
}
#endif

#endif /* TAMOELF_H */
