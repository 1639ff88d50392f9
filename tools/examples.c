/* The examples of the README, in C, as a program: it writes a big-endian
 * object, then reads it back and lists its sections and symbols. Built with
 * the project and run by its tests, so the documented code works.
 *
 * Usage: examples FILE */
#include <fcntl.h>
#include <stdio.h>

#include "tamoelf.h"

/* Writing: a new big-endian object with a code section and its names. */
static int write_object(const char* path) {
    static char names[] = "\0.text\0.shstrtab";
    static unsigned char code[] = {0x38, 0x60, 0x00, 0x2a, 0x4e, 0x80, 0x00, 0x20};
    tamo_elf_version(EV_CURRENT);
    int fd = tamo_elf_open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return -1;
    Elf* elf = tamo_elf_begin(fd, ELF_C_WRITE, NULL);
    Elf32_Ehdr* eh = tamo_elf32_newehdr(elf);
    eh->e_type = ET_REL;
    eh->e_machine = EM_PPC;

    Elf_Scn* text = tamo_elf_newscn(elf); /* section 1; the null section 0 is made too */
    Elf32_Shdr* sh = tamo_elf32_getshdr(text);
    sh->sh_name = 1;
    sh->sh_type = SHT_PROGBITS;
    sh->sh_flags = SHF_ALLOC | SHF_EXECINSTR;
    sh->sh_addralign = 4;
    Elf_Data* d = tamo_elf_newdata(text); /* bytes the caller owns, in host order */
    d->d_buf = code;
    d->d_size = sizeof code;

    Elf_Scn* strs = tamo_elf_newscn(elf);
    sh = tamo_elf32_getshdr(strs);
    sh->sh_name = 7;
    sh->sh_type = SHT_STRTAB;
    d = tamo_elf_newdata(strs);
    d->d_buf = names;
    d->d_size = sizeof names;

    eh->e_shstrndx = (Elf32_Half)tamo_elf_ndxscn(strs);
    eh->e_ident[EI_DATA] = ELFDATA2MSB; /* after the last tamo_elf_newscn */
    off_t size = tamo_elf_update(elf, ELF_C_WRITE); /* lays out, converts, writes */
    if (size < 0) fprintf(stderr, "%s\n", tamo_elf_errmsg(tamo_elf_errno()));
    tamo_elf_end(elf);
    tamo_elf_close(fd);
    return size < 0 ? -1 : 0;
}

/* Reading: every section, and the symbols of symbol tables, in host order. */
static int read_object(const char* path) {
    tamo_elf_version(EV_CURRENT);
    int fd = tamo_elf_open(path, O_RDONLY, 0);
    if (fd < 0) return -1;
    Elf* elf = tamo_elf_begin(fd, ELF_C_READ, NULL);
    if (!elf) {
        fprintf(stderr, "%s: %s\n", path, tamo_elf_errmsg(tamo_elf_errno()));
        tamo_elf_close(fd);
        return -1;
    }
    Elf32_Ehdr* eh = tamo_elf32_getehdr(elf);
    printf("%s: %s-endian, %u sections\n", path, eh->e_ident[EI_DATA] == ELFDATA2MSB ? "big" : "little",
           (unsigned)eh->e_shnum);
    for (Elf_Scn* scn = NULL; (scn = tamo_elf_nextscn(elf, scn)) != NULL;) {
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        const char* name = tamo_elf_strptr(elf, eh->e_shstrndx, sh->sh_name);
        Elf_Data* data = tamo_elf_getdata(scn, NULL); /* host order */
        printf("  [%zu] %-10s %u bytes\n", tamo_elf_ndxscn(scn), name ? name : "?", data ? (unsigned)data->d_size : 0u);
        if (sh->sh_type == SHT_SYMTAB && data) {
            const Elf32_Sym* sym = (const Elf32_Sym*)data->d_buf; /* 20-byte symbols */
            for (size_t i = 0; i < data->d_size / sizeof *sym; ++i)
                printf("    %s = 0x%x\n", tamo_elf_strptr(elf, sh->sh_link, sym[i].st_name), sym[i].st_value);
        }
    }
    tamo_elf_errno(); /* the end of the walk leaves code 21 */
    tamo_elf_end(elf);
    tamo_elf_close(fd);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: examples FILE\n");
        return 2;
    }
    if (write_object(argv[1]) != 0 || read_object(argv[1]) != 0) return 1;
    return 0;
}
