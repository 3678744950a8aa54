/*
 * The processes of one launcher's program: those whose environment holds
 * VT_WINDOW_TAG=<tag> (the launcher's process id, which every process of the
 * program inherits from the launcher's environment). Shared by the product's
 * Windows programs that act for a launcher on its program's processes.
 */
#pragma once

#include <windows.h>

typedef enum {
    TAG_ABSENT = 0,
    TAG_PRESENT = 1,
    /* The environment could not be read (no permission, the process ended,
     * a block without its end): not the same as known to be without it. */
    TAG_UNKNOWN = -1,
} TagAnswer;

/* Whether the environment of process `pid` holds the tag. */
TagAnswer processTag(DWORD pid, const wchar_t* tag);
