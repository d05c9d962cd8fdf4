// Chains of row producers against the same steps done frame by frame. A chain
// is a source frame followed by stages, each a format conversion or a resize;
// run as producers it passes over the source once with a few rows of memory,
// run as steps every stage writes a whole frame that the next one reads. Both
// must give the same bytes, or both refuse (one exception, see verdict()).
// Shared by the chain tests and the row-pipeline fuzz target.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kv_core/kv_exception.h"
#include "kv_core/kv_frame.h"
#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler.h"
#include "kv_cv/kv_scaler_convolutional.h"
#include "frame_compare.h"
#include "test_kernels.h"

namespace kvtest {

// Scaler::reuse methods, and the convolutional scaler with a tent kernel.
enum class ScaleKind { kNearest, kBilinear, kArea, kTent };

inline const char* scaleKindName(ScaleKind k) {
    switch (k) {
        case ScaleKind::kNearest: return "nearest";
        case ScaleKind::kBilinear: return "bilinear";
        case ScaleKind::kArea: return "area";
        default: return "tent";
    }
}

struct ChainStage {
    bool scale = false;
    kv::FrameFormat format = kv::FRAME_UNDEFINED;  // conversion target
    kv::Size size;                                 // resize target
    ScaleKind kind = ScaleKind::kNearest;

    static ChainStage convert(kv::FrameFormat f) { return {false, f, kv::Size(), ScaleKind::kNearest}; }
    static ChainStage resize(kv::Size s, ScaleKind k) { return {true, kv::FRAME_UNDEFINED, s, k}; }
};

inline std::string describeChain(const kv::Frame& src, const std::vector<ChainStage>& stages) {
    std::ostringstream s;
    s << kv::toString(src.format()) << " " << src.size().width << "x" << src.size().height;
    for (const ChainStage& st : stages) {
        if (st.scale)
            s << " -> " << scaleKindName(st.kind) << " " << st.size.width << "x" << st.size.height;
        else
            s << " -> " << kv::toString(st.format);
    }
    return s.str();
}

struct ChainOutcome {
    bool ok = false;
    kv::Frame frame;
    int status = 0;
    std::string message;
    // Height of the source each resize stage reads (for the refusal rule).
    std::vector<int> scaler_input_heights;
};

// Keeps one set of producers per stage between runs, so that consecutive
// chains also exercise reuse() with new formats and sizes.
class ChainRunner {
public:
    static constexpr size_t kMaxStages = 6;

    ChainOutcome chained(const kv::Frame& src, const std::vector<ChainStage>& stages) {
        ChainOutcome out;
        try {
            kv::IRowProducer* upstream = nullptr;
            kv::Size size = src.size();
            for (size_t i = 0; i < stages.size() && i < kMaxStages; ++i) {
                const ChainStage& st = stages[i];
                if (st.scale) out.scaler_input_heights.push_back(size.height);
                upstream = attach(i, st, upstream ? nullptr : &src, upstream);
                size = upstream->layout().size;
            }
            kv::produceFrame(*upstream, _chain_out);
            out.frame = _chain_out;
            out.ok = true;
        } catch (const kv::Exception& e) {
            out.status = int(e.status());
            out.message = e.message();
        }
        return out;
    }

    // Frames of a prefix that repeats the previous call's (same source frame,
    // same first stages) are kept, so a sweep over the last stage redoes only
    // that stage.
    ChainOutcome stepwise(const kv::Frame& src, const std::vector<ChainStage>& stages) {
        ChainOutcome out;
        const bool same_source = _step_source.initialized() && src.planeCpuData(0) == _step_source.planeCpuData(0) &&
                                 src.format() == _step_source.format() && src.size() == _step_source.size();
        size_t kept = 0;
        while (same_source && kept < stages.size() && kept < _step_stages.size() && kept < _steps_done &&
               sameStage(stages[kept], _step_stages[kept]))
            ++kept;
        _step_source = src;
        _step_stages = stages;
        _steps_done = kept;
        try {
            kv::Frame current = kept ? _step_frames[kept - 1] : src;
            for (size_t i = 0; i < stages.size() && i < kMaxStages; ++i) {
                if (stages[i].scale) out.scaler_input_heights.push_back(current.size().height);
                if (i < kept) {
                    current = _step_frames[i];
                    continue;
                }
                kv::produceFrame(*attach(i, stages[i], &current, nullptr), _step_frames[i]);
                current = _step_frames[i];
                _steps_done = i + 1;
            }
            out.frame = current;
            out.ok = true;
        } catch (const kv::Exception& e) {
            out.status = int(e.status());
            out.message = e.message();
        }
        return out;
    }

private:
    // Reuses stage i's producer on a frame or on the upstream producer.
    kv::IRowProducer* attach(size_t i, const ChainStage& st, const kv::Frame* frame, kv::IRowProducer* up) {
        if (!st.scale) {
            if (frame)
                _converters[i].reuse(*frame, st.format);
            else
                _converters[i].reuse(*up, st.format);
            return &_converters[i];
        }
        if (st.kind == ScaleKind::kTent) {
            if (frame)
                _convolutional[i].reuse(_tent, *frame, st.size, kv::KV_SCALER_FIXED_POINT_16S);
            else
                _convolutional[i].reuse(_tent, *up, st.size, kv::KV_SCALER_FIXED_POINT_16S);
            return &_convolutional[i];
        }
        const kv::ScaleMethod m = st.kind == ScaleKind::kNearest    ? kv::KV_SCALE_NEAREST
                                  : st.kind == ScaleKind::kBilinear ? kv::KV_SCALE_BILINEAR
                                                                    : kv::KV_SCALE_AREA;
        if (frame)
            _scalers[i].reuse(*frame, st.size, m);
        else
            _scalers[i].reuse(*up, st.size, m);
        return &_scalers[i];
    }

    static bool sameStage(const ChainStage& a, const ChainStage& b) {
        return a.scale == b.scale && a.format == b.format && a.size == b.size && a.kind == b.kind;
    }

    TentKernel _tent{1.0f};
    kv::Frame _chain_out;
    kv::Frame _step_source;
    std::vector<ChainStage> _step_stages;
    size_t _steps_done = 0;
    kv::Frame _step_frames[kMaxStages];
    kv::FormatConverter _converters[kMaxStages];
    kv::Scaler _scalers[kMaxStages];
    kv::ScalerConvolutional _convolutional[kMaxStages];
};

// "" when the chain is acceptable: the same bytes as the steps, or refused
// where the steps are refused. A resize stage in a chain reads its source
// through a window that must fit in the upstream producer, so a producer of
// fewer rows than a vertical filter needs is refused where a frame of that
// height is not; that refusal is accepted too.
inline std::string verdict(const ChainOutcome& chain, const ChainOutcome& steps) {
    if (chain.ok && steps.ok) return frameDifference(chain.frame, steps.frame);
    if (!chain.ok && !steps.ok) return "";
    if (!chain.ok) {
        bool short_source = false;
        for (int h : chain.scaler_input_heights) short_source = short_source || h <= 3;
        if (chain.status == 5 && chain.message == "Parameter 'window_size' is out of range." && short_source)
            return "";
        return "chain refused (" + std::to_string(chain.status) + " " + chain.message + ") where the steps run";
    }
    return "steps refused (" + std::to_string(steps.status) + " " + steps.message + ") where the chain runs";
}

}  // namespace kvtest
