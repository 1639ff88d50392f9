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
/* The standard ELF32 names, each defined only where the including program
 * (or a header it included first) has not defined it already. */

/* Object file types (e_type). */
#ifndef ET_NONE
#define ET_NONE 0
#endif
#ifndef ET_REL
#define ET_REL 1
#endif
#ifndef ET_EXEC
#define ET_EXEC 2
#endif
#ifndef ET_DYN
#define ET_DYN 3
#endif
#ifndef ET_CORE
#define ET_CORE 4
#endif

/* Machines (e_machine), the common ones. */
#ifndef EM_NONE
#define EM_NONE 0
#endif
#ifndef EM_M32
#define EM_M32 1
#endif
#ifndef EM_SPARC
#define EM_SPARC 2
#endif
#ifndef EM_386
#define EM_386 3
#endif
#ifndef EM_68K
#define EM_68K 4
#endif
#ifndef EM_88K
#define EM_88K 5
#endif
#ifndef EM_860
#define EM_860 7
#endif
#ifndef EM_MIPS
#define EM_MIPS 8
#endif
#ifndef EM_PARISC
#define EM_PARISC 15
#endif
#ifndef EM_SPARC32PLUS
#define EM_SPARC32PLUS 18
#endif
#ifndef EM_PPC
#define EM_PPC 20
#endif
#ifndef EM_PPC64
#define EM_PPC64 21
#endif
#ifndef EM_S390
#define EM_S390 22
#endif
#ifndef EM_ARM
#define EM_ARM 40
#endif
#ifndef EM_SH
#define EM_SH 42
#endif
#ifndef EM_SPARCV9
#define EM_SPARCV9 43
#endif
#ifndef EM_IA_64
#define EM_IA_64 50
#endif
#ifndef EM_X86_64
#define EM_X86_64 62
#endif
#ifndef EM_AARCH64
#define EM_AARCH64 183
#endif
#ifndef EM_RISCV
#define EM_RISCV 243
#endif

/* Special section indexes. */
#ifndef SHN_UNDEF
#define SHN_UNDEF 0
#endif
#ifndef SHN_LORESERVE
#define SHN_LORESERVE 0xff00
#endif
#ifndef SHN_LOPROC
#define SHN_LOPROC 0xff00
#endif
#ifndef SHN_HIPROC
#define SHN_HIPROC 0xff1f
#endif
#ifndef SHN_ABS
#define SHN_ABS 0xfff1
#endif
#ifndef SHN_COMMON
#define SHN_COMMON 0xfff2
#endif
#ifndef SHN_XINDEX
#define SHN_XINDEX 0xffff
#endif
#ifndef SHN_HIRESERVE
#define SHN_HIRESERVE 0xffff
#endif

/* Section types (sh_type). The library gives types 12 to 20 data types of
 * its own (see Elf_Type); a type above 20 has no data type and its data
 * cannot be had (code 28). */
#ifndef SHT_NULL
#define SHT_NULL 0
#endif
#ifndef SHT_PROGBITS
#define SHT_PROGBITS 1
#endif
#ifndef SHT_SYMTAB
#define SHT_SYMTAB 2
#endif
#ifndef SHT_STRTAB
#define SHT_STRTAB 3
#endif
#ifndef SHT_RELA
#define SHT_RELA 4
#endif
#ifndef SHT_HASH
#define SHT_HASH 5
#endif
#ifndef SHT_DYNAMIC
#define SHT_DYNAMIC 6
#endif
#ifndef SHT_NOTE
#define SHT_NOTE 7
#endif
#ifndef SHT_NOBITS
#define SHT_NOBITS 8
#endif
#ifndef SHT_REL
#define SHT_REL 9
#endif
#ifndef SHT_SHLIB
#define SHT_SHLIB 10
#endif
#ifndef SHT_DYNSYM
#define SHT_DYNSYM 11
#endif
#ifndef SHT_INIT_ARRAY
#define SHT_INIT_ARRAY 14
#endif
#ifndef SHT_FINI_ARRAY
#define SHT_FINI_ARRAY 15
#endif
#ifndef SHT_PREINIT_ARRAY
#define SHT_PREINIT_ARRAY 16
#endif
#ifndef SHT_GROUP
#define SHT_GROUP 17
#endif
#ifndef SHT_SYMTAB_SHNDX
#define SHT_SYMTAB_SHNDX 18
#endif
#ifndef SHT_LOOS
#define SHT_LOOS 0x60000000
#endif
#ifndef SHT_HIOS
#define SHT_HIOS 0x6fffffff
#endif
#ifndef SHT_LOPROC
#define SHT_LOPROC 0x70000000
#endif
#ifndef SHT_HIPROC
#define SHT_HIPROC 0x7fffffff
#endif
#ifndef SHT_LOUSER
#define SHT_LOUSER 0x80000000
#endif
#ifndef SHT_HIUSER
#define SHT_HIUSER 0xffffffff
#endif

/* Section flags (sh_flags). */
#ifndef SHF_WRITE
#define SHF_WRITE 0x1
#endif
#ifndef SHF_ALLOC
#define SHF_ALLOC 0x2
#endif
#ifndef SHF_EXECINSTR
#define SHF_EXECINSTR 0x4
#endif
#ifndef SHF_MERGE
#define SHF_MERGE 0x10
#endif
#ifndef SHF_STRINGS
#define SHF_STRINGS 0x20
#endif
#ifndef SHF_INFO_LINK
#define SHF_INFO_LINK 0x40
#endif
#ifndef SHF_LINK_ORDER
#define SHF_LINK_ORDER 0x80
#endif
#ifndef SHF_OS_NONCONFORMING
#define SHF_OS_NONCONFORMING 0x100
#endif
#ifndef SHF_GROUP
#define SHF_GROUP 0x200
#endif
#ifndef SHF_TLS
#define SHF_TLS 0x400
#endif
#ifndef SHF_COMPRESSED
#define SHF_COMPRESSED 0x800
#endif
#ifndef SHF_MASKOS
#define SHF_MASKOS 0x0ff00000
#endif
#ifndef SHF_MASKPROC
#define SHF_MASKPROC 0xf0000000
#endif
#ifndef GRP_COMDAT
#define GRP_COMDAT 0x1
#endif

/* Symbol bindings, types and visibilities (st_info, st_other). */
#ifndef STB_LOCAL
#define STB_LOCAL 0
#endif
#ifndef STB_GLOBAL
#define STB_GLOBAL 1
#endif
#ifndef STB_WEAK
#define STB_WEAK 2
#endif
#ifndef STB_LOOS
#define STB_LOOS 10
#endif
#ifndef STB_HIOS
#define STB_HIOS 12
#endif
#ifndef STB_LOPROC
#define STB_LOPROC 13
#endif
#ifndef STB_HIPROC
#define STB_HIPROC 15
#endif
#ifndef STT_NOTYPE
#define STT_NOTYPE 0
#endif
#ifndef STT_OBJECT
#define STT_OBJECT 1
#endif
#ifndef STT_FUNC
#define STT_FUNC 2
#endif
#ifndef STT_SECTION
#define STT_SECTION 3
#endif
#ifndef STT_FILE
#define STT_FILE 4
#endif
#ifndef STT_COMMON
#define STT_COMMON 5
#endif
#ifndef STT_TLS
#define STT_TLS 6
#endif
#ifndef STT_LOOS
#define STT_LOOS 10
#endif
#ifndef STT_HIOS
#define STT_HIOS 12
#endif
#ifndef STT_LOPROC
#define STT_LOPROC 13
#endif
#ifndef STT_HIPROC
#define STT_HIPROC 15
#endif
#ifndef STV_DEFAULT
#define STV_DEFAULT 0
#endif
#ifndef STV_INTERNAL
#define STV_INTERNAL 1
#endif
#ifndef STV_HIDDEN
#define STV_HIDDEN 2
#endif
#ifndef STV_PROTECTED
#define STV_PROTECTED 3
#endif

/* Packing and unpacking st_info, st_other and r_info. */
#ifndef ELF32_ST_BIND
#define ELF32_ST_BIND(info) ((unsigned char)(info) >> 4)
#endif
#ifndef ELF32_ST_TYPE
#define ELF32_ST_TYPE(info) ((info) & 0xf)
#endif
#ifndef ELF32_ST_INFO
#define ELF32_ST_INFO(bind, type) (((bind) << 4) + ((type) & 0xf))
#endif
#ifndef ELF32_ST_VISIBILITY
#define ELF32_ST_VISIBILITY(other) ((other) & 0x3)
#endif
#ifndef ELF32_R_SYM
#define ELF32_R_SYM(info) ((info) >> 8)
#endif
#ifndef ELF32_R_TYPE
#define ELF32_R_TYPE(info) ((unsigned char)(info))
#endif
#ifndef ELF32_R_INFO
#define ELF32_R_INFO(sym, type) (((sym) << 8) + (unsigned char)(type))
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
/*                                                                         */
/* Every function that fails sets one error code (tamo_elf_errno) and      */
/* returns its failure value; successes never clear the code. Handles      */
/* are checked first: null gives 32, a pointer that is not a live          */
/* descriptor 70 (Elf), 71 (Elf_Scn) or 72 (Elf_Data). The library owns    */
/* every descriptor and what it allocates; the caller owns its file ids,   */
/* memory images and the data buffers it attaches.                         */
/* ---------------------------------------------------------------------- */

/** Sets the working version, which tamo_elf_begin needs (80 without it).
 * 0 returns the current version (1) and changes nothing; 1 returns the
 * previous working version (1 if none) and sets it; anything else returns 0
 * with code 54. */
TAMO_API unsigned int tamo_elf_version(unsigned int version);

/** The kind of a descriptor (a member of an archive gives ELF_K_AR);
 * ELF_K_NONE on failure (32, 70). */
TAMO_API Elf_Kind tamo_elf_kind(Elf* elf);

/** The 16 identification bytes of the ELF header, owned by the descriptor;
 * stores 16 through count when it is not null. Null with count 0 and code 44
 * for a descriptor without a header (an archive, a new file), 32, 70. */
TAMO_API char* tamo_elf_getident(Elf* elf, size_t* count);

/** File offset of the descriptor's contents: 0 for a file or an archive, the
 * data offset of a member; -1 on failure (32, 70, 6). */
TAMO_API off_t tamo_elf_getbase(Elf* elf);

/** Sets the fill value; its low byte goes into the gaps of written images. */
TAMO_API void tamo_elf_fill(int fill);

/** Returns the code of the last failure and clears it (the context text stays). */
TAMO_API int tamo_elf_errno(void);

/** The message of an error code (a constant string); codes outside 0..98
 * give code 0's text. Never null. */
TAMO_API const char* tamo_elf_errmsg(int code);

/** The context text of the last failure (the operation in whose course a file
 * call failed, such as "elf_update"), or null. A constant string. */
TAMO_API const char* elf_lastmsg_poster(void);

/* ---------------------------------------------------------------------- */
/* Opening, reading and ending                                             */
/* ---------------------------------------------------------------------- */

/** Makes a descriptor on a file id the caller opened (and closes):
 * ELF_C_READ and ELF_C_RDWR read an object or archive from the file's
 * position (the file id is left at 0, or at an archive's first member);
 * ELF_C_WRITE starts a new file without reading. With an ELF descriptor as
 * ref: ref again (its activation count + 1). With an archive's descriptor
 * as ref: the member whose header starts at the file position.
 * ELF_C_NULL returns null without a code. Failures: 80, 1, 39, 20, 87, 60,
 * 13, 6, 8, 12, the seek codes, and those of reading the header and table. */
TAMO_API Elf* tamo_elf_begin(int fd, Elf_Cmd cmd, Elf* ref);

/** Makes a read-only descriptor on a memory image of an object (the caller
 * keeps the image, which must be writable and outlive the descriptor). The
 * image is converted in place while the descriptor lives and put back when
 * it ends (only e_ident[EI_DATA] keeps the value derived from e_version).
 * Null on failure: 3 (no image), 6 (not an object, or shorter than a
 * header), 7 (the section table past the image). */
TAMO_API Elf* tamo_elf_memory(char* image, size_t size);

/** open(2); -1 with 93..97 or 50 (context "elf_open"). */
TAMO_API int tamo_elf_open(const char* path, int flags, mode_t mode);

/** Maps a whole file privately (copy-on-write, so the library's in-place
 * conversion never reaches the file); stores the address through address
 * when it is not null and returns the size, or -1 (62, 93..97 or 50 with
 * "elf_mopen", 5, 51). Unmap with tamo_elf_mclose. */
TAMO_API long tamo_elf_mopen(const char* path, void** address);

/** close(2); 0, or -1 with 1 or 56. */
TAMO_API int tamo_elf_close(int fd);

/** munmap(2); 0, or -1 with 52. */
TAMO_API int tamo_elf_mclose(void* address, size_t length);

/** ELF_C_FDREAD reads every section (and every member of an archive) now;
 * ELF_C_FDDONE stops further reading. After either, unread sections cannot
 * be had (42) and the descriptor cannot be written (42). 0, or -1 with 32,
 * 85, 42, 83 or a reading code. */
TAMO_API int tamo_elf_cntl(Elf* elf, Elf_Cmd cmd);

/** Takes one activation away and destroys the descriptor at 0 (with its
 * sections, data, buffers; an archive's with its members; an image's is
 * put back first). Returns the remaining count, or -1 (32, 70). */
TAMO_API int tamo_elf_end(Elf* elf);

/** The ELF header in host order, owned by the descriptor (changing it changes
 * what is written); null without a code when there is none yet, or on
 * failure (32, 70). */
TAMO_API Elf32_Ehdr* tamo_elf32_getehdr(Elf* elf);

/** The section at index, read (and converted) on first use; owned by the
 * descriptor. Null on failure: 32, 70, 21 (no such index), 42, or a
 * reading code (8, 7, 28 for a sh_type above 20, 26, 4, ...). */
TAMO_API Elf_Scn* tamo_elf_getscn(Elf* elf, size_t index);

/** The section after scn (section 1 when scn is null); null at the end, with
 * code 21, and on failure (32, 70, 71). */
TAMO_API Elf_Scn* tamo_elf_nextscn(Elf* elf, Elf_Scn* scn);

/** The index of a section; 0 on failure (32, 71). */
TAMO_API size_t tamo_elf_ndxscn(Elf_Scn* scn);

/** The section header in host order, owned by the descriptor (the caller may
 * change it); null on failure (32, 71, 27, 53, 44). */
TAMO_API Elf32_Shdr* tamo_elf32_getshdr(Elf_Scn* scn);

/** The string at offset in the string-table section `section`, pointing into
 * the section's data (valid while the descriptor lives); null on failure
 * (32, 25, 70, 21, 27, 68 for another section type or an offset past the
 * section, 37). */
TAMO_API char* tamo_elf_strptr(Elf* elf, size_t section, size_t offset);

/** The first data block of scn (data null) or the one after data, owned by
 * the section; d_buf holds host order. Null at the end and on failure: 37
 * (also for a section without data, such as SHT_NOBITS), 32, 71, 72. */
TAMO_API Elf_Data* tamo_elf_getdata(Elf_Scn* scn, Elf_Data* data);

/* ---------------------------------------------------------------------- */
/* Creating, flags, layout and writing                                     */
/* ---------------------------------------------------------------------- */

/** The ELF header of a descriptor opened for writing or update, made zeroed
 * (e_ident[EI_DATA] the host's order) when there is none; the same header
 * on a second call. Null on failure: 32, 70, 38 (an archive), 39 (opened
 * for reading), 45 (a header read from a file whose class is not ELFCLASS32),
 * 4. */
TAMO_API Elf32_Ehdr* tamo_elf32_newehdr(Elf* elf);

/** A new section after the last one (section 0, the null section, is made
 * before the first), with a zeroed header; sets e_ident[EI_DATA] to the
 * host's order, so a caller wanting the other order sets it after its last
 * tamo_elf_newscn. Null on failure: 32, 70, 44 (no header yet), 20 (an
 * archive or a memory image), 4. */
TAMO_API Elf_Scn* tamo_elf_newscn(Elf* elf);

/** A new data block after the section's others: d_buf null, d_type
 * ELF_T_BYTE, d_size and d_off 0, d_align 1, d_version 1. The caller sets
 * d_buf (and keeps those bytes, in host order, until the last update);
 * the library never copies or frees them. Null on failure: 32, 71, 20. */
TAMO_API Elf_Data* tamo_elf_newdata(Elf_Scn* scn);

/** Sets (ELF_C_SET) or clears (ELF_C_CLR) flags: ELF_F_DIRTY (what changed
 * and must be written; only the descriptor's decides whether an update
 * writes) and, on the descriptor only, ELF_F_LAYOUT (the caller lays the file
 * out). Return the flags given, or 0 with 32, 70 (flagelf only), 66 (neither
 * flag), 84 (another command), or 90, 91, 92 (LAYOUT elsewhere, after DIRTY
 * took effect). tamo_elf_flagehdr acts on the descriptor, tamo_elf_flagshdr
 * on the section. */
TAMO_API unsigned int tamo_elf_flagelf(Elf* elf, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagehdr(Elf* elf, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagscn(Elf_Scn* scn, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagshdr(Elf_Scn* scn, Elf_Cmd cmd, unsigned int flags);
TAMO_API unsigned int tamo_elf_flagdata(Elf_Data* data, Elf_Cmd cmd, unsigned int flags);

/** ELF_C_NULL lays the file out (completing the ELF header and placing every
 * section and piece, or checking the caller's places under ELF_F_LAYOUT) and
 * returns the image's size. ELF_C_WRITE also builds the image in the file's
 * byte order and writes it at offset 0 of the file id (cutting a longer file
 * to it), returning its size; 0 when the descriptor is not dirty (nothing is
 * written). Other commands do nothing and return 0. -1 on failure, with
 * nothing written: 32, 70, 65, 61, 9, 22, 24, 33, 29 (a piece that cannot be
 * laid out, an image past 4 GiB), 30, 43, 32 (a piece without bytes), 42,
 * 35, 8, 4, and the seek and write codes with context "elf_update". */
TAMO_API off_t tamo_elf_update(Elf* elf, Elf_Cmd cmd);

/* ---------------------------------------------------------------------- */
/* Types, byte order and translation                                       */
/* ---------------------------------------------------------------------- */

/** File size of count units of type (a 32-bit product); 0 on failure
 * (33, 67). Needs no working version. */
TAMO_API size_t tamo_elf32_fsize(Elf_Type type, size_t count, unsigned int version);

/** Sets a section's swap behaviour (1 host order, 2 little-endian, 3
 * big-endian, 4 as stored), which governs its later conversions towards the
 * file; 0, or -1 with code 98. The section is not checked. */
TAMO_API int tamo_elf_setswapbehavior(Elf_Scn* scn, int behavior);

/** Installs a read-swap controller, which chooses each section's swap
 * behaviour (1 to 4) from its header and name when its data are read (null
 * installs the default, which returns 1); returns the previous one. The
 * descriptor is not checked; no code is set. */
TAMO_API Elf_ReadSwapController tamo_elf_setreadswapcontroller(Elf* elf, Elf_ReadSwapController controller);

/** Converts a data block the library handed out (src) into dst, towards the
 * file's order (xlatetof) or memory's (xlatetom) for encoding `encode`
 * (ELFDATA2LSB or ELFDATA2MSB); dst's d_buf must hold src's d_size bytes,
 * and dst gets src's d_size and d_type. Returns dst, or null: 72, 41, 24,
 * 47, 53, 44, 67, 82, 33. */
TAMO_API Elf_Data* tamo_elf32_xlatetof(Elf_Data* dst, Elf_Data* src, unsigned int encode);
TAMO_API Elf_Data* tamo_elf32_xlatetom(Elf_Data* dst, Elf_Data* src, unsigned int encode);

/* ---------------------------------------------------------------------- */
/* Archives                                                                */
/* ---------------------------------------------------------------------- */

/** Moves the archive's file position to the next member (the first one, given
 * the archive's own descriptor); ELF_C_READ while members remain, ELF_C_NULL
 * at the end (code 59) and on failure (70, 6, 60, the seek codes). */
TAMO_API Elf_Cmd tamo_elf_next(Elf* elf);

/** Moves the archive's file position to a member header offset (such as an
 * as_off); returns the offset, or 0 (32, 70, 9 for a member's descriptor,
 * 81, the seek codes with "elf_rand"). */
TAMO_API size_t tamo_elf_rand(Elf* elf, size_t offset);

/** A member's parsed header, owned by the archive; null on failure (69, 70). */
TAMO_API Elf_Arhdr* tamo_elf_getarhdr(Elf* elf);

/** The archive symbol table, owned by the archive: count records, then one
 * more whose as_name is null (as_off 0, as_hash all ones) for loops that
 * walk to a terminator. Null on failure: 32, 70, 60 (not an archive's own
 * descriptor; count set to 0), 15 (no symbol table; count unchanged). */
TAMO_API Elf_Arsym* tamo_elf_getarsym(Elf* elf, size_t* count);

/* ---------------------------------------------------------------------- */
/* LEB128 and DWARF                                                        */
/* ---------------------------------------------------------------------- */

/** Signed LEB128 encoding of a 32-bit value into at least 5 bytes; returns
 * the start of the buffer (the encoding ends at the first byte below 0x80). */
TAMO_API unsigned char* long_to_leb(long value, unsigned char* pvbOutbuf);
/** Unsigned LEB128 encoding of a 32-bit value; returns the end of the bytes
 * written. */
TAMO_API unsigned char* ulong_to_leb(unsigned long value, unsigned char* pvbOutbuf);
/** Decodes a signed LEB128 (32-bit result; longer encodings keep their low 32
 * bits); leaves the cursor past it. The caller guarantees its end is there. */
TAMO_API long leb_to_long(unsigned char** pvbInval);
/** Decodes an unsigned LEB128 as leb_to_long does. */
TAMO_API unsigned long leb_to_ulong(unsigned char** pvbInval);

/** Reads the .debug_abbrev section of elf (through this interface) into the
 * DWARF converter's abbreviation tables; sets no code of its own. */
TAMO_API void ReadAbbrevTable(Elf* elf);

/** Converts a DWARF section between byte orders: .debug_info or the
 * DWARF 4 .debug_types (abbreviations read with ReadAbbrevTable(elf)), or
 * .debug_line* (not .debug_line_str, which is copied), sh_size bytes from src
 * into dst (equal or not overlapping). bSrcNative: src holds host order.
 * Copies what it cannot convert; sets no code. Reading and writing route only
 * .debug_info and .debug_line* here; .debug_types stays as stored unless a
 * caller converts it with this function. */
TAMO_API void endian_swap_dwarf_section(const char* name, char* src, char* dst, const Elf* elf,
                                        const Elf32_Shdr* shdr, bool bSrcNative);

#ifdef __cplusplus
}
#endif

#endif /* TAMOELF_H */
