// A Windows program's icon as its shortcut shows it, read with Debian's
// icoutils: `wrestool` takes the group icon out of an .exe or .dll (the
// index-th group in the file's order, or, for a negative index, the group
// whose number is minus the index, as Windows' ExtractIcon counts), and
// `icotool` turns each image of an .ico into a PNG (the 256 x 256 images
// that are PNGs inside the file as well).
#pragma once

#include <filesystem>
#include <stdexcept>
#include <vector>

#include "shell/Pixbuf.hpp"

namespace vt::product {

// No icon could be read; the text says why, in one line.
class IconError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct IconImage {
    GPtr<GdkPixbuf> pixbuf; // RGBA
    int bitsPerPixel = 0; // in the icon file
};

// The images of the icon in `file` (an .ico, or a program or library with
// icon resources), largest first, and of equal sizes the one with more
// colours first. `scratch` is an empty folder the tools may write into.
// Throws IconError.
std::vector<IconImage> readProgramIcon(const std::filesystem::path& file, int index,
                                       const std::filesystem::path& scratch);

// The image of `images` (as readProgramIcon() orders them) to show at
// `size` x `size`: one of exactly that size, else the smallest larger one
// scaled down, else the largest scaled up.
GPtr<GdkPixbuf> iconAtSize(const std::vector<IconImage>& images, int size);

} // namespace vt::product
