// A program built against the installed libraries: the README's example.
#include <kv_core/kv_frame.h>
#include <kv_cv/kv_cv_backend_simd.h>
#include <kv_cv/kv_format_converter.h>
#include <kv_cv/kv_row_copier.h>
#include <kv_cv/kv_scaler.h>

#include <cstdio>

int main() {
    kv::Frame camera(kv::FRAME_NV12, kv::Size(1920, 1080));
    camera.setZero();
    camera.planeCpuData(0)[360 * camera.layout().plane[0].step + 640] = 7;
    kv::Frame face = kv::getRegion(camera, kv::Rect(640, 360, 320, 240));

    kv::RowCopier copier;
    copier.reuse(face);
    kv::Frame copy;
    kv::produceFrame(copier, copy);

    kv::Scaler scaler;
    scaler.reuse(face, kv::Size(160, 120), kv::KV_SCALE_BILINEAR);
    kv::FormatConverter to_bgr;
    to_bgr.reuse(scaler, kv::FRAME_BGR_8);
    kv::Frame small_bgr;
    kv::produceFrame(to_bgr, small_bgr);

    kv::CvBackendSimd backend;
    kv::Tensor input(kv::TensorLayout(kv::TENSOR_FLOAT_32, kv::TENSOR_NCHW, kv::TensorSize{1, 3, 224, 224},
                                      kv::TensorSize(), kv::TENSOR_ORDER_RGB));
    kv::crop_and_resize(backend, camera, input, {kv::Rect(640, 360, 320, 240)}, {}, -127.5f, 1.f / 127.5f);

    const bool ok = copy.size() == kv::Size(320, 240) && copy.planeCpuData(0)[0] == 7 &&
                    small_bgr.format() == kv::FRAME_BGR_8 && small_bgr.size() == kv::Size(160, 120) &&
                    input.initialized();
    std::printf("consumer %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
