// Byte-exact comparison of two frames' rows (the padding between rows is not
// compared). Free of GoogleTest so that fuzz targets can use it.
#pragma once

#include <sstream>
#include <string>

#include "kv_core/kv_frame.h"

namespace kvtest {

// "" when format, size and every row byte of every plane agree; otherwise
// where the first difference lies.
inline std::string frameDifference(const kv::Frame& a, const kv::Frame& b) {
    std::ostringstream s;
    if (a.format() != b.format() || a.size() != b.size()) {
        s << "format/size differ: " << kv::toString(a.format()) << " " << a.size().width << "x" << a.size().height
          << " vs " << kv::toString(b.format()) << " " << b.size().width << "x" << b.size().height;
        return s.str();
    }
    const kv::FrameLayout& l = a.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            const uint8_t* ra = a.rowCpuData(p, y);
            const uint8_t* rb = b.rowCpuData(p, y);
            for (uint64_t x = 0; x < l.plane[p].row_bytes; ++x)
                if (ra[x] != rb[x]) {
                    s << "plane " << p << " row " << y << " byte " << x << ": " << int(ra[x]) << " vs " << int(rb[x]);
                    return s.str();
                }
        }
    return "";
}

}  // namespace kvtest
