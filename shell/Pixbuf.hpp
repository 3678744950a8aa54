// Owning wrapper for gdk-pixbuf images: the launcher's bitmaps (tray icons,
// the tile and its base icon) are GdkPixbufs, RGB or RGBA with 8-bit samples
// and colour that is not premultiplied by alpha.
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "base/glib_glue.hpp"

namespace vt {

VT_GOBJECT_TRAITS(GdkPixbuf)

} // namespace vt
