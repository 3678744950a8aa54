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
 * which is 65536 on most machines and unknown at link time. The hand-over
 * adds the pages below 0x10000 that the machine allows.
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

/* Nothing here is code: the stack stays non-executable. */
    .section .note.GNU-stack, "", @progbits
