/*
 * scratchpad's icon: a sheet of note paper with a blue band across its top,
 * four lines of writing, and its bottom right corner folded over. The picture
 * is a pure function of the pixel, so make-icon, which writes the icon that
 * scratchpad.exe carries, and anything that wants to know what that icon
 * looks like compute the very same pixels.
 *
 * Plain C, usable from C++ as well; no Windows header.
 */
#ifndef SCRATCHPAD_ICON_H
#define SCRATCHPAD_ICON_H

#include <stdint.h>

/* The images of the icon, in the order the icon file holds them. */
static const int scratchpad_icon_sizes[] = { 16, 32, 48, 256 };
enum { scratchpad_icon_size_count = (int)(sizeof scratchpad_icon_sizes / sizeof scratchpad_icon_sizes[0]) };

/* The colours, as 0xAARRGGBB, not premultiplied. */
static const uint32_t scratchpad_icon_clear = 0x00000000u;
static const uint32_t scratchpad_icon_outline = 0xFF3C3F4Au;
static const uint32_t scratchpad_icon_paper = 0xFFFBFAF3u;
static const uint32_t scratchpad_icon_band = 0xFF2F6FD0u;
static const uint32_t scratchpad_icon_writing = 0xFF7A8699u;
static const uint32_t scratchpad_icon_flap = 0xFFD8D6C8u;

/* The pixel at column x, row y (row 0 at the top) of the square image of side
 * `size`. The layout is laid on a grid of sixteenths of the side, so the
 * images at 16, 32 and 48 are the same drawing at one, two and three pixels a
 * step, which keeps every feature at least a whole pixel at 16. Only the
 * outline and the writing keep to a finer scale in large images, where a
 * sixteenth would make them heavy. */
static inline uint32_t scratchpad_icon_pixel(int size, int x, int y)
{
    const int unit = size >= 16 ? size / 16 : 1;
    const int border = size >= 128 ? size / 64 : 1;
    const int left = 2 * unit, right = 14 * unit, top = unit, bottom = 15 * unit;
    if (x < left || x >= right || y < top || y >= bottom)
        return scratchpad_icon_clear;

    /* The folded corner: beyond the fold is nothing; the flap is the back of
     * the paper, lying on its front. The fold is drawn a little thicker than
     * the other edges, since a diagonal looks thinner than a straight line of
     * the same width. */
    const int fold = 4 * unit;
    const int dx = x - (right - fold), dy = y - (bottom - fold);
    if (dx >= 0 && dy >= 0) {
        const int diagonal = dx + dy;
        if (diagonal > fold - 1)
            return scratchpad_icon_clear;
        if (diagonal > fold - 1 - (border + border / 2) || dx < border || dy < border)
            return scratchpad_icon_outline;
        return scratchpad_icon_flap;
    }

    if (x < left + border || x >= right - border || y < top + border || y >= bottom - border)
        return scratchpad_icon_outline;
    if (y < top + 3 * unit)
        return scratchpad_icon_band;

    /* The writing: a line every two steps from the fifth, each as long as
     * its number of steps says; the last stays clear of the fold. */
    static const int lengths[] = { 8, 6, 7, 4 };
    const int thickness = size >= 128 ? size * 3 / 64 : unit;
    const int margin = left + 2 * unit;
    for (int line = 0; line < (int)(sizeof lengths / sizeof lengths[0]); line++) {
        const int lineTop = (5 + 2 * line) * unit;
        if (y >= lineTop && y < lineTop + thickness && x >= margin && x < margin + lengths[line] * unit)
            return scratchpad_icon_writing;
    }
    return scratchpad_icon_paper;
}

#endif
