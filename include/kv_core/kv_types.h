// Small geometric value types: Size, Point, Rect.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kv {

struct Size {
    int32_t width = 0;
    int32_t height = 0;

    constexpr Size() = default;
    constexpr Size(int32_t w, int32_t h) : width(w), height(h) {}
    constexpr bool empty() const { return width <= 0 || height <= 0; }
    constexpr bool operator==(const Size& o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const Size& o) const { return !(*this == o); }
};

// Sub-pixel centres are common (rotation about a frame's centre), so float.
struct Point {
    float x = 0.f;
    float y = 0.f;

    constexpr Point() = default;
    constexpr Point(float px, float py) : x(px), y(py) {}
};

struct Rect {
    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;
    int32_t height = 0;

    constexpr Rect() = default;
    constexpr Rect(int32_t px, int32_t py, int32_t w, int32_t h) : x(px), y(py), width(w), height(h) {}
    constexpr bool empty() const { return width <= 0 || height <= 0; }
    constexpr Size size() const { return Size(width, height); }
    constexpr bool operator==(const Rect& o) const {
        return x == o.x && y == o.y && width == o.width && height == o.height;
    }
    constexpr bool operator!=(const Rect& o) const { return !(*this == o); }

    // Clips in place to (0, 0)..size. A rectangle wholly outside becomes empty
    // (width and height 0, origin clamped into the size).
    void crop(const Size& size) {
        const int64_t x0 = std::max<int64_t>(x, 0), y0 = std::max<int64_t>(y, 0);
        const int64_t x1 = std::min<int64_t>(int64_t(x) + width, size.width);
        const int64_t y1 = std::min<int64_t>(int64_t(y) + height, size.height);
        if (x1 <= x0 || y1 <= y0 || width <= 0 || height <= 0) {
            x = int32_t(std::min<int64_t>(x0, std::max(size.width, 0)));
            y = int32_t(std::min<int64_t>(y0, std::max(size.height, 0)));
            width = height = 0;
            return;
        }
        x = int32_t(x0); y = int32_t(y0);
        width = int32_t(x1 - x0); height = int32_t(y1 - y0);
    }
};

}  // namespace kv
