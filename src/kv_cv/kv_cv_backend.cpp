// The backend interface's out-of-line members and the entry checks the
// backends share.
#include "kv_cv/kv_cv_backend.h"

#include <climits>
#include <string>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_regions.h"

namespace kv {

ICvBackend::~ICvBackend() = default;

namespace impl {

namespace {
// "kv::CvBackendSimd::resize" -> "CvBackendSimd::resize", for messages.
std::string shortName(const char* function) {
    const std::string f = function;
    return f.rfind("kv::", 0) == 0 ? f.substr(4) : f;
}
}  // namespace

void requireRegionInside(const Frame& f, const Rect& r, const char* function, const char* file, int line,
                         const char* parameter) {
    if (!f.initialized() || r.width < 1 || r.height < 1) return;
    const Size s = f.size();
    if (r.x >= 0 && r.y >= 0 && int64_t(r.x) + r.width <= s.width && int64_t(r.y) + r.height <= s.height) return;
    throw Exception(nullptr, KV_STATUS_OUT_OF_RANGE, function, file, line,
                    "Failure in %s(...) : parameter '%s' (%d, %d, %d, %d) lies outside the %dx%d frame.",
                    shortName(function).c_str(), parameter, r.x, r.y, r.width, r.height, s.width, s.height);
}

void requireIntPitches(const Frame& f, const char* function, const char* file, int line, const char* parameter) {
    const FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        if (l.plane[p].step > uint64_t(INT_MAX))
            throw Exception(nullptr, KV_STATUS_OUT_OF_RANGE, function, file, line,
                            "Failure in %s(...) : parameter '%s' has a row pitch of %llu bytes in plane %u; this "
                            "backend takes pitches up to %d.",
                            shortName(function).c_str(), parameter, static_cast<unsigned long long>(l.plane[p].step),
                            p, INT_MAX);
}

}  // namespace impl

}  // namespace kv
