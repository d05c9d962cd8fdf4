// A program built against the installed libraries: copy a region row by row.
#include <kv_core/kv_frame.h>
#include <kv_cv/kv_row_copier.h>

#include <cstdio>

int main() {
    kv::Frame src(kv::FRAME_NV12, kv::Size(64, 48));
    src.setZero();
    src.planeCpuData(0)[0] = 7;
    kv::RowCopier copier;
    copier.reuse(kv::getRegion(src, kv::Rect(0, 0, 32, 16)));
    kv::Frame dst;
    kv::produceFrame(copier, dst);
    const bool ok = dst.size() == kv::Size(32, 16) && dst.planeCpuData(0)[0] == 7;
    std::printf("consumer %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
