// The printer's icons, built into the front end: the PNG images that the
// printer's "printer-icons" attribute points at (http://host/icon-sm.png and
// http://host/icon.png), served without a trip to the library.
#ifndef CMP_IPP_ICONS_H
#define CMP_IPP_ICONS_H

#include <stddef.h>

namespace cmp_ipp_fe {

struct IconFile {
    const char* path;  // URL path, "/icon-sm.png"
    const unsigned char* data;
    size_t size;
    unsigned side;  // width and height in pixels
};

// The icon served at this URL path; nullptr for every other path.
const IconFile* iconFor(const char* path);

}  // namespace cmp_ipp_fe

#endif
