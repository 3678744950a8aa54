/* See tagged.h. */
#define WIN32_LEAN_AND_MEAN
#ifndef UNICODE
#define UNICODE
#endif
#include "tagged.h"

#include <winternl.h>

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

/* Reads the whole environment block of another process, a page at a time (a
 * read may not cross into memory that is not there). Returns a malloc'ed
 * block of wide strings ending with an empty one, or NULL when the whole
 * block could not be read. */
static wchar_t* readEnvironment(HANDLE process)
{
    PROCESS_BASIC_INFORMATION basic;
    ULONG length = 0;
    if (NtQueryInformationProcess(process, ProcessBasicInformation, &basic, sizeof basic, &length) != 0
        || !basic.PebBaseAddress)
        return NULL;
    PEB peb;
    SIZE_T got = 0;
    if (!ReadProcessMemory(process, basic.PebBaseAddress, &peb, sizeof peb, &got) || got != sizeof peb)
        return NULL;
    /* The environment pointer follows the command line in the process
     * parameters; the SDK's structure stops just before it. */
    const char* parameters = (const char*)peb.ProcessParameters;
    void* environment = NULL;
    size_t environmentOffset = offsetof(RTL_USER_PROCESS_PARAMETERS, CommandLine) + sizeof(UNICODE_STRING);
    if (!parameters
        || !ReadProcessMemory(process, parameters + environmentOffset, &environment, sizeof environment, &got)
        || got != sizeof environment || !environment)
        return NULL;

    const size_t limit = 4 * 1024 * 1024;
    size_t size = 0, capacity = 0;
    char* block = NULL;
    const char* cursor = environment;
    while (size < limit) {
        size_t chunk = 4096 - ((size_t)cursor & 4095);
        if (size + chunk + 2 * sizeof(wchar_t) > capacity) {
            capacity = (size + chunk) * 2 + 2 * sizeof(wchar_t);
            char* grown = realloc(block, capacity);
            if (!grown)
                break;
            block = grown;
        }
        if (!ReadProcessMemory(process, cursor, block + size, chunk, &got) || got == 0)
            break;
        size_t before = size;
        size += got;
        cursor += got;
        /* Two wide zeros in a row end the block. */
        size_t start = before >= sizeof(wchar_t) ? before - sizeof(wchar_t) : 0;
        start -= start % sizeof(wchar_t);
        for (size_t at = start; at + 2 * sizeof(wchar_t) <= size; at += sizeof(wchar_t)) {
            wchar_t pair[2];
            memcpy(pair, block + at, sizeof pair);
            if (pair[0] == 0 && pair[1] == 0)
                return (wchar_t*)block;
        }
    }
    /* Unreadable or without its end: not known, which is not the same as
     * known to be without the tag. */
    free(block);
    return NULL;
}

static BOOL environmentHasTag(const wchar_t* environment, const wchar_t* tag)
{
    static const wchar_t name[] = L"VT_WINDOW_TAG=";
    const size_t nameLength = sizeof name / sizeof *name - 1;
    for (const wchar_t* entry = environment; *entry; entry += wcslen(entry) + 1)
        if (_wcsnicmp(entry, name, nameLength) == 0 && wcscmp(entry + nameLength, tag) == 0)
            return TRUE;
    return FALSE;
}

TagAnswer processTag(DWORD pid, const wchar_t* tag)
{
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid);
    if (!process)
        return TAG_UNKNOWN;
    wchar_t* environment = readEnvironment(process);
    CloseHandle(process);
    if (!environment)
        return TAG_UNKNOWN;
    TagAnswer answer = environmentHasTag(environment, tag) ? TAG_PRESENT : TAG_ABSENT;
    free(environment);
    return answer;
}
