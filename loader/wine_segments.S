/*
 * Two zero-fill sections that keep Wine's fixed address ranges free from the
 * moment the launcher starts, before the dynamic loader, libraries, heaps or
 * thread stacks can take any of them. The link gives each a loadable segment
 * of its own with no file data, so the binary stays small on disk (the DOS
 * area is moved to its place after the link: loader/place_segment.c). When Wine
 * starts inside this process, the hand-over maps over both ranges and gives
 * them to Wine's memory manager (loader/ExecutableLayout.hpp).
 *
 * The DOS area ends at 0x40001000 and starts at 0x10000, not at the 0x1000
 * Wine would like: exec fails when a segment lies below vm.mmap_min_addr,
 * which is 65536 on most machines and unknown at link time. The pages below
 * 0x10000 that the machine allows are reserved as the process starts (below)
 * and handed over with the rest.
 */
#define WINE_DOS_START 0x00010000
#define WINE_DOS_END 0x40001000
#define WINE_SHAREDHEAP_LENGTH 0x03000000

    .section .wine_dos, "aw", @nobits
    .p2align 12
    .space WINE_DOS_END - WINE_DOS_START

    .section .wine_sharedheap, "aw", @nobits
    .p2align 12
    .space WINE_SHAREDHEAP_LENGTH

/*
 * The pages of the DOS area below the linked segment, which the machine may
 * allow (vm.mmap_min_addr is 4096 on some), are reserved by the first code
 * the process runs: the executable's pre-initialisers run before any
 * library's initialiser, so nothing but the dynamic loader's own mappings can
 * come first, and those never go that low.
 */
    .section .preinit_array, "aw", @preinit_array
#if defined(__x86_64__) || defined(__aarch64__)
    .p2align 3
    .quad vt_reserve_wine_low_dos_area
#else
    .p2align 2
    .long vt_reserve_wine_low_dos_area
#endif

/* Nothing here is code: the stack stays non-executable. */
    .section .note.GNU-stack, "", @progbits
