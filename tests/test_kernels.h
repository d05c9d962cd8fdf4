// Interpolation kernels for the convolutional scaler tests: the library ships
// none, so the tests define a box, a tent, a Keys cubic and a Lanczos-3, each
// stretched by a factor (its support grows with the reduction it serves).
#pragma once

#include <cmath>

#include "kv_cv/kv_kernel.h"

namespace kvtest {

class BoxKernel : public kv::IKernel {
public:
    explicit BoxKernel(float width = 1.0f) : _width(width) {}
    void prepare() override {}
    float value(float x) const override { return std::fabs(x) <= _width * 0.5f ? 1.0f : 0.0f; }
    float aperture() const override { return _width; }

private:
    float _width;
};

class TentKernel : public kv::IKernel {
public:
    explicit TentKernel(float stretch = 1.0f) : _s(stretch) {}
    void prepare() override {}
    float value(float x) const override {
        const float t = std::fabs(x) / _s;
        return t < 1.0f ? 1.0f - t : 0.0f;
    }
    float aperture() const override { return 2.0f * _s; }

private:
    float _s;
};

// Keys cubic with a = -0.5.
class CubicKernel : public kv::IKernel {
public:
    explicit CubicKernel(float stretch = 1.0f) : _s(stretch) {}
    void prepare() override {}
    float value(float x) const override {
        const float t = std::fabs(x) / _s;
        if (t < 1.0f) return (1.5f * t - 2.5f) * t * t + 1.0f;
        if (t < 2.0f) return ((-0.5f * t + 2.5f) * t - 4.0f) * t + 2.0f;
        return 0.0f;
    }
    float aperture() const override { return 4.0f * _s; }

private:
    float _s;
};

class LanczosKernel : public kv::IKernel {
public:
    explicit LanczosKernel(float stretch = 1.0f) : _s(stretch) {}
    void prepare() override {}
    float value(float x) const override {
        const double t = std::fabs(double(x)) / _s;
        if (t < 1e-6) return 1.0f;
        if (t >= 3.0) return 0.0f;
        const double pi = 3.14159265358979323846;
        return float(3.0 * std::sin(pi * t) * std::sin(pi * t / 3.0) / (pi * pi * t * t));
    }
    float aperture() const override { return 6.0f * _s; }

private:
    float _s;
};

// A constant kernel of the given value (0 or negative: no usable weights).
class ConstantKernel : public kv::IKernel {
public:
    ConstantKernel(float value, float width) : _value(value), _width(width) {}
    void prepare() override {}
    float value(float) const override { return _value; }
    float aperture() const override { return _width; }

private:
    float _value;
    float _width;
};

}  // namespace kvtest
