/* A small client of the library, in C: prints the library's version and its
 * error messages, then reports what it finds in each file named on the
 * command line (kind, byte order, sections). */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "tamoelf.h"

static void describe(const char* path) {
    int fd = tamo_elf_open(path, O_RDONLY, 0);
    if (fd < 0) {
        printf("%s: %s (%s)\n", path, tamo_elf_errmsg(tamo_elf_errno()), elf_lastmsg_poster());
        return;
    }
    Elf* elf = tamo_elf_begin(fd, ELF_C_READ, NULL);
    if (!elf) {
        printf("%s: %s\n", path, tamo_elf_errmsg(tamo_elf_errno()));
        tamo_elf_close(fd);
        return;
    }
    if (tamo_elf_kind(elf) == ELF_K_AR) {
        size_t nsyms = 0;
        tamo_elf_getarsym(elf, &nsyms);
        printf("%s: archive, %zu symbols in its table\n", path, nsyms);
        Elf_Cmd cmd = ELF_C_READ;
        Elf* member;
        while ((member = tamo_elf_begin(fd, cmd, elf)) != NULL) {
            Elf_Arhdr* hdr = tamo_elf_getarhdr(member);
            printf("  member %-20s %8ld bytes at %ld\n", hdr ? hdr->ar_name : "?", hdr ? (long)hdr->ar_size : 0L,
                   (long)tamo_elf_getbase(member));
            cmd = tamo_elf_next(member);
            tamo_elf_end(member);
            if (cmd == ELF_C_NULL) break;
        }
        tamo_elf_errno();
    } else {
        Elf32_Ehdr* ehdr = tamo_elf32_getehdr(elf);
        printf("%s: ELF, %s-endian, %u sections\n", path,
               ehdr->e_ident[EI_DATA] == ELFDATA2MSB ? "big" : "little", (unsigned)ehdr->e_shnum);
        Elf_Scn* scn = NULL;
        while ((scn = tamo_elf_nextscn(elf, scn)) != NULL) {
            Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
            const char* name = tamo_elf_strptr(elf, ehdr->e_shstrndx, sh->sh_name);
            printf("  [%2zu] %-24s type %2u size %8u\n", tamo_elf_ndxscn(scn), name ? name : "?",
                   (unsigned)sh->sh_type, (unsigned)sh->sh_size);
        }
        tamo_elf_errno(); /* the end of the walk leaves code 21 */
    }
    tamo_elf_end(elf);
    tamo_elf_close(fd);
}

int main(int argc, char** argv) {
    unsigned previous = tamo_elf_version(EV_CURRENT);
    printf("tamoelf: working version %u (was %u)\n", tamo_elf_version(EV_NONE), previous);
    if (argc < 2) {
        int code;
        printf("error messages:\n");
        for (code = 0; code < 99; ++code) printf("  %2d  %s\n", code, tamo_elf_errmsg(code));
        return 0;
    }
    for (int i = 1; i < argc; ++i) describe(argv[i]);
    return 0;
}
