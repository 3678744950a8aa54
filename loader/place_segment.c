/*
 * vt-place-segment FILE SECTION ADDRESS
 *
 * A step of the launcher's link: moves the loadable segment that holds
 * nothing but the zero-fill section SECTION to ADDRESS, and puts the loadable
 * segments back in ascending address order.
 *
 * The launcher's lowest segment (Wine's DOS area) lies far below the image,
 * yet the image must begin with the ELF and program headers: the dynamic
 * loader reads them for the life of the process, and Wine's mappings over the
 * DOS area must never cover them. GNU ld puts the headers just below the
 * lowest loadable segment and refuses them in a later one, so the section is
 * linked above everything else and moved down here. Only addresses change: a
 * zero-fill segment has no bytes in the file. ELF wants loadable segments in
 * ascending order, and kernels before 6.7 skip a zero-fill segment that comes
 * out of order.
 *
 * Either ELF class (the 32-bit build links the same layout), whatever the
 * tool's own word size. Running it again on its own output changes nothing.
 * A failure removes FILE, as a failed link leaves no executable behind: the
 * next build links again instead of taking a launcher without its layout for
 * up to date.
 */
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char* g_file;

static int fail(const char* what)
{
    fprintf(stderr, "vt-place-segment: %s: %s\n", g_file, what);
    return 1;
}

static int readAt(int fd, void* buffer, size_t size, off_t offset)
{
    return pread(fd, buffer, size, offset) == (ssize_t)size ? 0 : -1;
}

static int writeAt(int fd, const void* buffer, size_t size, off_t offset)
{
    return pwrite(fd, buffer, size, offset) == (ssize_t)size ? 0 : -1;
}

/* A 32-bit file's headers are handled in their 64-bit forms, which hold every
 * field, and written back in the file's own class. */
static int g_is64;

static int readSegments(int fd, const Elf64_Ehdr* header, Elf64_Phdr* segments)
{
    size_t count = header->e_phnum;
    if (g_is64)
        return readAt(fd, segments, count * sizeof *segments, (off_t)header->e_phoff);
    Elf32_Phdr* raw = calloc(count, sizeof *raw);
    int status = raw ? readAt(fd, raw, count * sizeof *raw, (off_t)header->e_phoff) : -1;
    for (size_t i = 0; status == 0 && i < count; ++i) {
        segments[i] = (Elf64_Phdr) { .p_type = raw[i].p_type, .p_flags = raw[i].p_flags,
                                     .p_offset = raw[i].p_offset, .p_vaddr = raw[i].p_vaddr,
                                     .p_paddr = raw[i].p_paddr, .p_filesz = raw[i].p_filesz,
                                     .p_memsz = raw[i].p_memsz, .p_align = raw[i].p_align };
    }
    free(raw);
    return status;
}

static int writeSegments(int fd, const Elf64_Ehdr* header, const Elf64_Phdr* segments)
{
    size_t count = header->e_phnum;
    if (g_is64)
        return writeAt(fd, segments, count * sizeof *segments, (off_t)header->e_phoff);
    Elf32_Phdr* raw = calloc(count, sizeof *raw);
    if (!raw)
        return -1;
    for (size_t i = 0; i < count; ++i) {
        raw[i] = (Elf32_Phdr) { .p_type = segments[i].p_type, .p_flags = segments[i].p_flags,
                                .p_offset = (Elf32_Off)segments[i].p_offset,
                                .p_vaddr = (Elf32_Addr)segments[i].p_vaddr,
                                .p_paddr = (Elf32_Addr)segments[i].p_paddr,
                                .p_filesz = (Elf32_Word)segments[i].p_filesz,
                                .p_memsz = (Elf32_Word)segments[i].p_memsz,
                                .p_align = (Elf32_Word)segments[i].p_align };
    }
    int status = writeAt(fd, raw, count * sizeof *raw, (off_t)header->e_phoff);
    free(raw);
    return status;
}

static int readSections(int fd, const Elf64_Ehdr* header, Elf64_Shdr* sections)
{
    size_t count = header->e_shnum;
    if (g_is64)
        return readAt(fd, sections, count * sizeof *sections, (off_t)header->e_shoff);
    Elf32_Shdr* raw = calloc(count, sizeof *raw);
    int status = raw ? readAt(fd, raw, count * sizeof *raw, (off_t)header->e_shoff) : -1;
    for (size_t i = 0; status == 0 && i < count; ++i) {
        sections[i] = (Elf64_Shdr) { .sh_name = raw[i].sh_name, .sh_type = raw[i].sh_type,
                                     .sh_flags = raw[i].sh_flags, .sh_addr = raw[i].sh_addr,
                                     .sh_offset = raw[i].sh_offset, .sh_size = raw[i].sh_size,
                                     .sh_link = raw[i].sh_link, .sh_info = raw[i].sh_info,
                                     .sh_addralign = raw[i].sh_addralign, .sh_entsize = raw[i].sh_entsize };
    }
    free(raw);
    return status;
}

static int writeSection(int fd, const Elf64_Ehdr* header, const Elf64_Shdr* section, size_t index)
{
    if (g_is64)
        return writeAt(fd, section, sizeof *section, (off_t)(header->e_shoff + index * sizeof *section));
    Elf32_Shdr raw = { .sh_name = section->sh_name, .sh_type = section->sh_type,
                       .sh_flags = (Elf32_Word)section->sh_flags, .sh_addr = (Elf32_Addr)section->sh_addr,
                       .sh_offset = (Elf32_Off)section->sh_offset, .sh_size = (Elf32_Word)section->sh_size,
                       .sh_link = section->sh_link, .sh_info = section->sh_info,
                       .sh_addralign = (Elf32_Word)section->sh_addralign,
                       .sh_entsize = (Elf32_Word)section->sh_entsize };
    return writeAt(fd, &raw, sizeof raw, (off_t)(header->e_shoff + index * sizeof raw));
}

/* The file header in its 64-bit form, whatever the file's class. */
static int readHeader(int fd, Elf64_Ehdr* header)
{
    unsigned char ident[EI_NIDENT];
    if (readAt(fd, ident, sizeof ident, 0) != 0 || memcmp(ident, ELFMAG, SELFMAG) != 0)
        return fail("not an ELF file");
    g_is64 = ident[EI_CLASS] == ELFCLASS64;
    if (g_is64) {
        if (readAt(fd, header, sizeof *header, 0) != 0)
            return fail("not an ELF file");
        if (header->e_phentsize != sizeof(Elf64_Phdr) || header->e_shentsize != sizeof(Elf64_Shdr))
            return fail("no program or section headers as expected");
        return 0;
    }
    Elf32_Ehdr raw;
    if (ident[EI_CLASS] != ELFCLASS32 || readAt(fd, &raw, sizeof raw, 0) != 0)
        return fail("not an ELF file");
    if (raw.e_phentsize != sizeof(Elf32_Phdr) || raw.e_shentsize != sizeof(Elf32_Shdr))
        return fail("no program or section headers as expected");
    *header = (Elf64_Ehdr) { .e_phoff = raw.e_phoff, .e_shoff = raw.e_shoff, .e_phnum = raw.e_phnum,
                             .e_shnum = raw.e_shnum, .e_shstrndx = raw.e_shstrndx };
    return 0;
}

static int overlaps(const Elf64_Phdr* segment, Elf64_Addr start, Elf64_Xword length)
{
    return segment->p_vaddr < start + length && start < segment->p_vaddr + segment->p_memsz;
}

/* Moves the segment and its section header, then sorts the loadable
 * segments among their own slots, so that the header table's other entries
 * (PT_PHDR and PT_INTERP first) keep their places. */
static int place(Elf64_Phdr* segments, size_t segmentCount, Elf64_Phdr* segment, Elf64_Shdr* section,
                 Elf64_Addr address)
{
    if (segment->p_align > 1 && (address % segment->p_align || segment->p_offset % segment->p_align))
        return fail("the address is not aligned as the segment requires");
    for (size_t i = 0; i < segmentCount; ++i) {
        if (&segments[i] != segment && segments[i].p_type == PT_LOAD
            && overlaps(&segments[i], address, segment->p_memsz))
            return fail("the segment would overlap another one");
    }
    segment->p_vaddr = segment->p_paddr = section->sh_addr = address;

    for (size_t i = 0; i < segmentCount; ++i) {
        for (size_t j = i + 1; j < segmentCount; ++j) {
            if (segments[i].p_type == PT_LOAD && segments[j].p_type == PT_LOAD
                && segments[j].p_vaddr < segments[i].p_vaddr) {
                Elf64_Phdr lower = segments[j];
                segments[j] = segments[i];
                segments[i] = lower;
            }
        }
    }
    return 0;
}

static int placeInFile(int fd, const char* sectionName, Elf64_Addr address)
{
    Elf64_Ehdr header;
    if (readHeader(fd, &header) != 0)
        return 1;
    if (header.e_shstrndx == SHN_UNDEF || header.e_shstrndx >= header.e_shnum)
        return fail("no program or section headers as expected");
    if (!g_is64 && address > UINT32_MAX)
        return fail("the address does not fit a 32-bit file");

    size_t segmentCount = header.e_phnum, sectionCount = header.e_shnum;
    Elf64_Phdr* segments = calloc(segmentCount, sizeof *segments);
    Elf64_Shdr* sections = calloc(sectionCount, sizeof *sections);
    char* names = NULL;
    int status = 1;
    if (!segments || !sections) {
        fail("out of memory");
        goto done;
    }
    if (readSegments(fd, &header, segments) != 0 || readSections(fd, &header, sections) != 0) {
        fail("cannot read the program and section headers");
        goto done;
    }
    const Elf64_Shdr* nameTable = &sections[header.e_shstrndx];
    names = calloc(1, nameTable->sh_size + 1);
    if (!names || readAt(fd, names, nameTable->sh_size, (off_t)nameTable->sh_offset) != 0) {
        fail("cannot read the section names");
        goto done;
    }

    Elf64_Shdr* section = NULL;
    for (size_t i = 0; i < sectionCount; ++i) {
        if (sections[i].sh_name < nameTable->sh_size && strcmp(names + sections[i].sh_name, sectionName) == 0)
            section = &sections[i];
    }
    if (!section || section->sh_type != SHT_NOBITS || !(section->sh_flags & SHF_ALLOC)) {
        fail("the section is missing or not zero-fill");
        goto done;
    }
    Elf64_Phdr* segment = NULL;
    for (size_t i = 0; i < segmentCount; ++i) {
        if (segments[i].p_type == PT_LOAD && segments[i].p_vaddr == section->sh_addr)
            segment = &segments[i];
    }
    if (!segment || segment->p_filesz != 0 || segment->p_memsz != section->sh_size) {
        fail("the section is not a loadable segment of its own");
        goto done;
    }
    if (place(segments, segmentCount, segment, section, address) != 0)
        goto done;

    if (writeSegments(fd, &header, segments) != 0
        || writeSection(fd, &header, section, (size_t)(section - sections)) != 0) {
        fail("cannot write the headers back");
        goto done;
    }
    status = 0;
done:
    free(names);
    free(sections);
    free(segments);
    return status;
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: vt-place-segment FILE SECTION ADDRESS\n");
        return 2;
    }
    g_file = argv[1];
    char* end = NULL;
    errno = 0;
    unsigned long long address = strtoull(argv[3], &end, 0);
    int status;
    if (errno || !*argv[3] || *end) {
        status = fail("the address is not a number");
    } else {
        int fd = open(argv[1], O_RDWR | O_CLOEXEC);
        if (fd < 0)
            return fail(strerror(errno));
        status = placeInFile(fd, argv[2], address);
        if (close(fd) != 0 && status == 0)
            status = fail(strerror(errno));
    }
    if (status != 0)
        unlink(argv[1]);
    return status;
}
