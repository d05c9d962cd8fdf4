// CvBackendSimd and the frame helpers beside the libyuv / OpenCV calls they
// wrap, single thread, 1920x1080, on the same frames for every
// implementation. Names are CASE/IMPL with IMPL kv_simd, opencv or libyuv.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "kv_core/kv_core_functions.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "bench_util.h"

using namespace kv;

namespace {

const Size kFull(1920, 1080);

using kvbench::add;
using kvbench::mat;
using kvbench::pitch;
Frame randomFrame(FrameFormat f, Size s, uint32_t seed) { return kvbench::noiseFrame(f, s, seed); }

struct Registrar {
    Registrar() {
        cv::setNumThreads(1);
        // Inputs shared by every implementation of a case.
        static Frame bgr = randomFrame(FRAME_BGR_8, kFull, 1);
        static Frame gray = randomFrame(FRAME_GRAY_8, kFull, 2);
        static Frame i420 = randomFrame(FRAME_I420, kFull, 3);
        static Frame nv12 = randomFrame(FRAME_NV12, kFull, 4);
        static Frame yuv444 = randomFrame(FRAME_YUV444_PLANAR, kFull, 7);
        static Frame fc3 = randomFrame(FRAME_FLOAT_32_C3, kFull, 5);
        static Frame bgr_small = randomFrame(FRAME_BGR_8, Size(640, 360), 6);
        static CvBackendSimd simd;

        // ---- colour ----
        static Frame out_gray(FRAME_GRAY_8, kFull), out_i420(FRAME_I420, kFull), out_bgr(FRAME_BGR_8, kFull);
        static Frame out_planar(FRAME_BGR_8_PLANAR, kFull), out_fc3(FRAME_FLOAT_32_C3, kFull);
        static Frame out_nv12(FRAME_NV12, kFull);
        add("ColorCvt/BGR_to_GRAY_1920x1080/kv_simd", [] { simd.colorCvt(bgr, out_gray, Rect()); });
        add("ColorCvt/BGR_to_GRAY_1920x1080/opencv", [] {
            cv::Mat d = mat(out_gray, 0, CV_8UC1);
            cv::cvtColor(mat(bgr, 0, CV_8UC3), d, cv::COLOR_BGR2GRAY);
        });
        add("ColorCvt/BGR_to_I420_1920x1080/kv_simd", [] { simd.colorCvt(bgr, out_i420, Rect()); });
        add("ColorCvt/BGR_to_I420_1920x1080/libyuv", [] {
            libyuv::RGB24ToI420(bgr.planeCpuData(0), pitch(bgr, 0), out_i420.planeCpuData(0), pitch(out_i420, 0),
                                out_i420.planeCpuData(1), pitch(out_i420, 1), out_i420.planeCpuData(2),
                                pitch(out_i420, 2), 1920, 1080);
        });
        add("ColorCvt/BGR_to_I420_1921x1081/kv_simd", [] {
            static Frame odd_src = randomFrame(FRAME_BGR_8, Size(1921, 1081), 9);
            static Frame odd_dst(FRAME_I420, Size(1921, 1081));
            simd.colorCvt(odd_src, odd_dst, Rect());
        });
        add("ColorCvt/BGR_to_NV12_1920x1080/kv_simd", [] { simd.colorCvt(bgr, out_nv12, Rect()); });
        add("ColorCvt/BGR_to_NV12_1920x1080/libyuv", [] {
            libyuv::RGB24ToI420(bgr.planeCpuData(0), pitch(bgr, 0), out_i420.planeCpuData(0), pitch(out_i420, 0),
                                out_i420.planeCpuData(1), pitch(out_i420, 1), out_i420.planeCpuData(2),
                                pitch(out_i420, 2), 1920, 1080);
            libyuv::MergeUVPlane(out_i420.planeCpuData(1), pitch(out_i420, 1), out_i420.planeCpuData(2),
                                 pitch(out_i420, 2), out_nv12.planeCpuData(1), pitch(out_nv12, 1), 960, 540);
        });
        add("ColorCvt/I420_to_BGR_1920x1080/kv_simd", [] { simd.colorCvt(i420, out_bgr, Rect()); });
        add("ColorCvt/I420_to_BGR_1920x1080/libyuv", [] {
            libyuv::I420ToRGB24(i420.planeCpuData(0), pitch(i420, 0), i420.planeCpuData(1), pitch(i420, 1),
                                i420.planeCpuData(2), pitch(i420, 2), out_bgr.planeCpuData(0), pitch(out_bgr, 0), 1920,
                                1080);
        });
        add("ColorCvt/NV12_to_BGR_1920x1080/kv_simd", [] { simd.colorCvt(nv12, out_bgr, Rect()); });
        add("ColorCvt/NV12_to_BGR_1920x1080/libyuv", [] {
            libyuv::NV12ToRGB24(nv12.planeCpuData(0), pitch(nv12, 0), nv12.planeCpuData(1), pitch(nv12, 1),
                                out_bgr.planeCpuData(0), pitch(out_bgr, 0), 1920, 1080);
        });
        add("ColorCvt/I420_to_RGB_1920x1080/kv_simd", [] {
            static Frame rgb(FRAME_RGB_8, kFull);
            simd.colorCvt(i420, rgb, Rect());
        });
        add("ColorCvt/I420_to_RGB_1920x1080/libyuv", [] {
            libyuv::I420ToRAW(i420.planeCpuData(0), pitch(i420, 0), i420.planeCpuData(1), pitch(i420, 1),
                              i420.planeCpuData(2), pitch(i420, 2), out_bgr.planeCpuData(0), pitch(out_bgr, 0), 1920,
                              1080);
        });
        add("ColorCvt/YUV444_PLANAR_to_BGR_1920x1080/kv_simd", [] { simd.colorCvt(yuv444, out_bgr, Rect()); });
        add("ColorCvt/YUV444_PLANAR_to_BGR_1920x1080/libyuv", [] {
            libyuv::I444ToRGB24(yuv444.planeCpuData(0), pitch(yuv444, 0), yuv444.planeCpuData(1), pitch(yuv444, 1),
                                yuv444.planeCpuData(2), pitch(yuv444, 2), out_bgr.planeCpuData(0), pitch(out_bgr, 0),
                                1920, 1080);
        });
        add("ColorCvt/BGR_to_RGB_1920x1080/kv_simd", [] {
            static Frame rgb(FRAME_RGB_8, kFull);
            simd.colorCvt(bgr, rgb, Rect());
        });
        add("ColorCvt/BGR_to_RGB_1920x1080/libyuv", [] {
            libyuv::RAWToRGB24(bgr.planeCpuData(0), pitch(bgr, 0), out_bgr.planeCpuData(0), pitch(out_bgr, 0), 1920,
                               1080);
        });
        add("ColorCvt/BGR_to_RGB_1920x1080/opencv", [] {
            cv::Mat d = mat(out_bgr, 0, CV_8UC3);
            cv::cvtColor(mat(bgr, 0, CV_8UC3), d, cv::COLOR_BGR2RGB);
        });
        add("ColorCvt/BGR_to_BGR_PLANAR_1920x1080/kv_simd", [] { simd.colorCvt(bgr, out_planar, Rect()); });
        add("ColorCvt/BGR_to_BGR_PLANAR_1920x1080/libyuv", [] {
            libyuv::SplitRGBPlane(bgr.planeCpuData(0), pitch(bgr, 0), out_planar.planeCpuData(0), pitch(out_planar, 0),
                                  out_planar.planeCpuData(1), pitch(out_planar, 1), out_planar.planeCpuData(2),
                                  pitch(out_planar, 2), 1920, 1080);
        });
        add("ColorCvt/BGR_to_BGR_PLANAR_1920x1080/opencv", [] {
            std::vector<cv::Mat> planes{mat(out_planar, 0, CV_8UC1), mat(out_planar, 1, CV_8UC1),
                                        mat(out_planar, 2, CV_8UC1)};
            cv::split(mat(bgr, 0, CV_8UC3), planes);
        });
        add("ColorCvt/GRAY_to_BGR_1920x1080/kv_simd", [] { simd.colorCvt(gray, out_bgr, Rect()); });
        add("ColorCvt/GRAY_to_BGR_1920x1080/opencv", [] {
            cv::Mat d = mat(out_bgr, 0, CV_8UC3);
            cv::cvtColor(mat(gray, 0, CV_8UC1), d, cv::COLOR_GRAY2BGR);
        });
        add("ColorCvt/BGR_to_FLOAT_C3_1920x1080/kv_simd", [] { simd.colorCvt(bgr, out_fc3, Rect()); });
        add("ColorCvt/BGR_to_FLOAT_C3_1920x1080/opencv", [] {
            cv::Mat d = mat(out_fc3, 0, CV_32FC3);
            mat(bgr, 0, CV_8UC3).convertTo(d, CV_32F);
        });
        add("ColorCvt/FLOAT_C3_to_BGR_1920x1080/kv_simd", [] { simd.colorCvt(fc3, out_bgr, Rect()); });
        add("ColorCvt/FLOAT_C3_to_BGR_1920x1080/opencv", [] {
            cv::Mat d = mat(out_bgr, 0, CV_8UC3);
            mat(fc3, 0, CV_32FC3).convertTo(d, CV_8U);
        });

        // ---- resize ----
        struct ResizeCase {
            const char* name;
            Frame* src;
            Size to;
            int method;
            int cv_method;
        };
        static const ResizeCase resizes[] = {
            {"Resize/BGR_1920x1080_to_640x360/bilinear", &bgr, Size(640, 360), ResizeBilinear, cv::INTER_LINEAR},
            {"Resize/BGR_640x360_to_1920x1080/bilinear", &bgr_small, kFull, ResizeBilinear, cv::INTER_LINEAR},
            {"Resize/BGR_1920x1080_to_480x270/area", &bgr, Size(480, 270), ResizeArea, cv::INTER_AREA},
            {"Resize/BGR_1920x1080_to_960x540/nearest", &bgr, Size(960, 540), ResizeNearestNeighbour,
             cv::INTER_NEAREST_EXACT},
        };
        for (const ResizeCase& r : resizes) {
            auto* dst = new Frame(FRAME_BGR_8, r.to);  // lives as long as the benchmark
            add(std::string(r.name) + "/kv_simd", [r, dst] {
                static CvBackendSimd b;
                b.setIntProperty(1, r.method);
                b.resize(*r.src, *dst, Rect(), Rect());
            });
            add(std::string(r.name) + "/opencv", [r, dst] {
                cv::Mat d = mat(*dst, 0, CV_8UC3);
                cv::resize(mat(*r.src, 0, CV_8UC3), d, d.size(), 0, 0, r.cv_method);
            });
        }

        // ---- rotation and warp ----
        static Frame rot_bgr(FRAME_BGR_8, Size(1080, 1920)), rot_gray(FRAME_GRAY_8, Size(1080, 1920));
        add("Rotate90/BGR_1920x1080/kv_simd", [] { rotateFrame(bgr, Rotate90, rot_bgr); });
        add("Rotate90/BGR_1920x1080/opencv", [] {
            cv::Mat d = mat(rot_bgr, 0, CV_8UC3);
            cv::rotate(mat(bgr, 0, CV_8UC3), d, cv::ROTATE_90_CLOCKWISE);
        });
        add("Rotate90/GRAY_1920x1080/kv_simd", [] { rotateFrame(gray, Rotate90, rot_gray); });
        add("Rotate90/GRAY_1920x1080/libyuv", [] {
            libyuv::RotatePlane(gray.planeCpuData(0), pitch(gray, 0), rot_gray.planeCpuData(0), pitch(rot_gray, 0),
                                1920, 1080, libyuv::kRotate90);
        });
        add("Rotate90/GRAY_1920x1080/opencv", [] {
            cv::Mat d = mat(rot_gray, 0, CV_8UC1);
            cv::rotate(mat(gray, 0, CV_8UC1), d, cv::ROTATE_90_CLOCKWISE);
        });
        static float rot30[2][3];
        getRotationMatrix2D(30.f, Point(960.f, 540.f), rot30, 1.f);
        add("WarpAffine/BGR_1920x1080_rot30/bilinear/kv_simd", [] { simd.warpAffine(bgr, out_bgr, rot30, Rect(), false); });
        add("WarpAffine/BGR_1920x1080_rot30/bilinear/opencv", [] {
            cv::Mat d = mat(out_bgr, 0, CV_8UC3);
            const cv::Matx23f m(rot30[0][0], rot30[0][1], rot30[0][2], rot30[1][0], rot30[1][1], rot30[1][2]);
            cv::warpAffine(mat(bgr, 0, CV_8UC3), d, m, d.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        });

        // ---- float arithmetic and half floats ----
        add("Add/FLOAT_C3_1920x1080/kv_simd", [] { simd.add(fc3, 0.f, Rect()); });
        add("Add/FLOAT_C3_1920x1080/opencv", [] {
            cv::Mat m = mat(fc3, 0, CV_32FC3);
            cv::add(m, cv::Scalar::all(0.0), m);
        });
        add("Mul/FLOAT_C3_1920x1080/kv_simd", [] { simd.mul(fc3, 1.f, Rect()); });
        add("Mul/FLOAT_C3_1920x1080/opencv", [] {
            cv::Mat m = mat(fc3, 0, CV_32FC3);
            cv::multiply(m, cv::Scalar::all(1.0), m);
        });
        constexpr size_t kCount = 1920 * 1080;
        static std::vector<uint16_t> halves(kCount, 0x3c00);
        static std::vector<float> floats(kCount, 1.f);
        add("HalfToFloat/2073600/kv_simd", [] { convertFp16ToFp32(halves.data(), kCount, floats.data()); });
        add("HalfToFloat/2073600/opencv", [] {
            cv::Mat s(1, int(kCount), CV_16F, halves.data()), d(1, int(kCount), CV_32F, floats.data());
            s.convertTo(d, CV_32F);
        });
        add("FloatToHalf/2073600/kv_simd", [] { convertFp32ToFp16(floats.data(), kCount, halves.data()); });
        add("FloatToHalf/2073600/opencv", [] {
            cv::Mat s(1, int(kCount), CV_32F, floats.data()), d(1, int(kCount), CV_16F, halves.data());
            s.convertTo(d, CV_16F);
        });
    }
} registrar;

}  // namespace
