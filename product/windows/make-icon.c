/*
 * make-icon: writes scratchpad's icon as a Windows icon file, for the
 * resource script that puts it into scratchpad.exe. Runs on the build
 * machine, not under Wine.
 *
 *   make-icon <icon file>
 *
 * One image for each size of scratchpad-icon.h, in its order, each a 32-bit
 * bitmap: a BITMAPINFOHEADER whose height counts the colour rows and the mask
 * rows together, the colour rows bottom up as blue, green, red and alpha,
 * then the AND mask rows, bottom up, one bit a pixel (set where the pixel is
 * fully transparent), each row padded to 32 bits. Windows reads the alpha and
 * ignores the mask; the mask is there for readers that know only masks. A
 * directory entry says 0 for a side of 256, which its byte cannot hold.
 *
 * Exit status 0 when the whole file is written, 1 otherwise, with a line on
 * standard error; the icon file is then as it was before, so a build never
 * takes a broken one for done.
 */
#define _POSIX_C_SOURCE 200809L

#include "scratchpad-icon.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { DIRECTORY_SIZE = 6, ENTRY_SIZE = 16, HEADER_SIZE = 40 };

static size_t colourBytes(int size)
{
    return (size_t)size * (size_t)size * 4;
}

static size_t maskStride(int size)
{
    return ((size_t)size + 31) / 32 * 4;
}

static size_t imageBytes(int size)
{
    return HEADER_SIZE + colourBytes(size) + maskStride(size) * (size_t)size;
}

static unsigned char* put16(unsigned char* out, unsigned value)
{
    out[0] = (unsigned char)(value & 0xFF);
    out[1] = (unsigned char)(value >> 8 & 0xFF);
    return out + 2;
}

static unsigned char* put32(unsigned char* out, uint32_t value)
{
    for (int i = 0; i < 4; i++)
        out[i] = (unsigned char)(value >> 8 * i & 0xFF);
    return out + 4;
}

static unsigned char* putImage(unsigned char* out, int size)
{
    out = put32(out, HEADER_SIZE);
    out = put32(out, (uint32_t)size);
    out = put32(out, (uint32_t)size * 2);
    out = put16(out, 1);  /* planes */
    out = put16(out, 32); /* bits a pixel */
    out = put32(out, 0);  /* BI_RGB */
    out = put32(out, (uint32_t)(imageBytes(size) - HEADER_SIZE));
    for (int i = 0; i < 4; i++) /* resolution and palette: none */
        out = put32(out, 0);

    for (int y = size - 1; y >= 0; y--) {
        for (int x = 0; x < size; x++) {
            uint32_t argb = scratchpad_icon_pixel(size, x, y);
            *out++ = (unsigned char)(argb & 0xFF);
            *out++ = (unsigned char)(argb >> 8 & 0xFF);
            *out++ = (unsigned char)(argb >> 16 & 0xFF);
            *out++ = (unsigned char)(argb >> 24);
        }
    }
    for (int y = size - 1; y >= 0; y--) {
        memset(out, 0, maskStride(size));
        for (int x = 0; x < size; x++)
            if ((scratchpad_icon_pixel(size, x, y) >> 24) == 0)
                out[x / 8] |= (unsigned char)(0x80 >> x % 8);
        out += maskStride(size);
    }
    return out;
}

/* Written beside the file under a name of its own and renamed over it when
 * whole, so the file is never seen half written, and a failure removes
 * nothing but what this program made. */
static int writeWhole(const char* path, const unsigned char* bytes, size_t total)
{
    static const char suffix[] = ".XXXXXX";
    size_t pathLength = strlen(path);
    char* temporary = malloc(pathLength + sizeof suffix);
    if (!temporary) {
        fprintf(stderr, "make-icon: no memory for the path %s\n", path);
        return 0;
    }
    memcpy(temporary, path, pathLength);
    memcpy(temporary + pathLength, suffix, sizeof suffix);
    int descriptor = mkstemp(temporary);
    if (descriptor < 0) {
        fprintf(stderr, "make-icon: cannot create %s: %s\n", temporary, strerror(errno));
        free(temporary);
        return 0;
    }
    const char* step = "write";
    int error = 0;
    FILE* file = NULL;
    if (fchmod(descriptor, 0644) != 0 || !(file = fdopen(descriptor, "wb"))) {
        error = errno;
        close(descriptor);
    } else {
        errno = 0;
        if (fwrite(bytes, 1, total, file) != total)
            error = errno ? errno : EIO;
        if (fclose(file) != 0 && !error)
            error = errno;
        if (!error && rename(temporary, path) != 0) {
            error = errno;
            step = "move into place";
        }
    }
    if (error) {
        fprintf(stderr, "make-icon: cannot %s %s: %s\n", step, path, strerror(error));
        unlink(temporary);
    }
    free(temporary);
    return !error;
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: make-icon <icon file>\n");
        return 1;
    }
    const char* path = argv[1];

    size_t total = DIRECTORY_SIZE + (size_t)ENTRY_SIZE * scratchpad_icon_size_count;
    for (int i = 0; i < scratchpad_icon_size_count; i++)
        total += imageBytes(scratchpad_icon_sizes[i]);
    unsigned char* bytes = malloc(total);
    if (!bytes) {
        fprintf(stderr, "make-icon: no memory for %zu bytes\n", total);
        return 1;
    }

    unsigned char* out = bytes;
    out = put16(out, 0);
    out = put16(out, 1); /* an icon, not a cursor */
    out = put16(out, (unsigned)scratchpad_icon_size_count);
    uint32_t offset = (uint32_t)(DIRECTORY_SIZE + ENTRY_SIZE * scratchpad_icon_size_count);
    for (int i = 0; i < scratchpad_icon_size_count; i++) {
        int size = scratchpad_icon_sizes[i];
        *out++ = (unsigned char)(size >= 256 ? 0 : size);
        *out++ = (unsigned char)(size >= 256 ? 0 : size);
        *out++ = 0; /* colours in a palette: none */
        *out++ = 0;
        out = put16(out, 1);
        out = put16(out, 32);
        out = put32(out, (uint32_t)imageBytes(size));
        out = put32(out, offset);
        offset += (uint32_t)imageBytes(size);
    }
    for (int i = 0; i < scratchpad_icon_size_count; i++)
        out = putImage(out, scratchpad_icon_sizes[i]);

    int written = writeWhole(path, bytes, total);
    free(bytes);
    return written ? 0 : 1;
}
