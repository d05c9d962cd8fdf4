// The built-in test chart and the bar-chart drawing of kvcv, both with
// OpenCV's drawing functions. The chart holds what shows the differences
// between resize methods and colour conversions: saturated colour bars (chroma
// edges), smooth ramps (rounding), one-pixel lines and a zone plate (aliasing).
#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "kvcv_common.h"

namespace kvcv {

ZonePlate chartZonePlate(int width, int height) {
    const int bars_h = height / 4, ramps_h = height * 3 / 20;
    const int top = bars_h + ramps_h, rest = height - top, half = width / 2;
    ZonePlate z;
    z.area = cv::Rect(0, top, half, rest);
    z.cx = half / 2.0;
    z.cy = top + rest / 2.0;
    z.r_max = std::max(1.0, std::hypot(half / 2.0, rest / 2.0));
    return z;
}

// The phase grows with r^2 / (2 r_max) half-turns: the local frequency at
// radius r is r / (2 r_max) cycles per pixel, 0.5 (Nyquist) at r_max.
double ZonePlate::grey(double x, double y, double max_frequency) const {
    const double dx = x - cx, dy = y - cy, r2 = dx * dx + dy * dy;
    if (std::sqrt(r2) / (2.0 * r_max) > max_frequency) return 127.5;
    return 127.5 + 127.5 * std::cos(M_PI * r2 / (2.0 * r_max));
}

cv::Mat makeTestChart(int width, int height, bool overlays) {
    cv::Mat img(height, width, CV_8UC3, cv::Scalar(0, 0, 0));
    const int bars_h = height / 4, ramps_h = height * 3 / 20;
    // Colour bars, 100%: white, yellow, cyan, green, magenta, red, blue, black (BGR).
    const cv::Vec3b bars[8] = {{255, 255, 255}, {0, 255, 255}, {255, 255, 0}, {0, 255, 0},
                               {255, 0, 255},   {0, 0, 255},   {255, 0, 0},   {0, 0, 0}};
    for (int y = 0; y < bars_h; ++y)
        for (int x = 0; x < width; ++x) img.at<cv::Vec3b>(y, x) = bars[x * 8 / width];
    // Ramps 0..255 left to right: red, green, blue, gray.
    for (int y = bars_h; y < bars_h + ramps_h; ++y) {
        const int band = (y - bars_h) * 4 / std::max(ramps_h, 1);
        for (int x = 0; x < width; ++x) {
            const uchar v = uchar(width > 1 ? x * 255 / (width - 1) : 0);
            cv::Vec3b px(0, 0, 0);
            if (band == 0) px[2] = v;
            if (band == 1) px[1] = v;
            if (band == 2) px[0] = v;
            if (band == 3) px = cv::Vec3b(v, v, v);
            img.at<cv::Vec3b>(y, x) = px;
        }
    }
    // Lower part: a zone plate on the left (frequency rising to the Nyquist limit
    // at its corners), line patterns on the right.
    const int top = bars_h + ramps_h, rest = height - top, half = width / 2;
    const ZonePlate zone = chartZonePlate(width, height);
    for (int y = top; y < height; ++y)
        for (int x = 0; x < half; ++x) {
            const uchar g = uchar(std::lround(zone.grey(x, y)));
            img.at<cv::Vec3b>(y, x) = cv::Vec3b(g, uchar((g + 255) / 2), uchar(255 - g));
        }
    const int third = std::max(rest / 3, 1);
    for (int y = top; y < height; ++y)
        for (int x = half; x < width; ++x) {
            const int lx = x - half, ly = y - top;
            uchar v;
            if (ly < third) {
                // Vertical lines, pitch 1, 2, 3, 4 pixels across the width.
                const int pitch = 1 + lx * 4 / std::max(width - half, 1);
                v = (lx / pitch) % 2 ? 255 : 0;
            } else if (ly < 2 * third) {
                const int pitch = 1 + lx * 4 / std::max(width - half, 1);
                v = ((ly - third) / pitch) % 2 ? 255 : 0;
            } else {
                v = ((lx + ly) % 2) ? 255 : 0;  // one-pixel checkerboard
                if (lx > (width - half) / 2) v = ((lx - ly) / 3) % 2 ? 230 : 25;  // diagonal stripes
            }
            img.at<cv::Vec3b>(y, x) = cv::Vec3b(v, v, v);
        }
    // Fine diagonal lines and a label across the lower part.
    if (!overlays) return img;
    cv::line(img, cv::Point(0, top), cv::Point(width - 1, height - 1), cv::Scalar(0, 200, 255), 1, cv::LINE_AA);
    cv::line(img, cv::Point(0, height - 1), cv::Point(width - 1, top), cv::Scalar(255, 120, 0), 1, cv::LINE_8);
    const double scale = std::max(0.3, height / 480.0);
    cv::putText(img, "kvcv", cv::Point(std::max(2, width / 40), top + std::max(12, int(28 * scale))),
                cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0, 0, 255), std::max(1, int(2 * scale)), cv::LINE_AA);
    return img;
}

cv::Mat drawBarChart(const std::string& title, const std::vector<std::string>& groups,
                     const std::vector<std::string>& series, const std::vector<std::vector<double>>& values,
                     const std::string& unit) {
    // Each group: its name on a line of its own, then one bar per series.
    const int bar_h = 16, gap = 4, label_h = 22, group_gap = 12, left = 24, bar_max = 560;
    const int width = left + bar_max + 130, head = 70;
    const int group_h = label_h + int(series.size()) * (bar_h + gap) + group_gap;
    const int height = head + int(groups.size()) * group_h + 10;
    cv::Mat img(height, width, CV_8UC3, cv::Scalar(255, 255, 255));
    const cv::Scalar colours[] = {cv::Scalar(180, 119, 31), cv::Scalar(14, 127, 255), cv::Scalar(44, 160, 44),
                                  cv::Scalar(40, 39, 214), cv::Scalar(189, 103, 148)};
    const int font = cv::FONT_HERSHEY_SIMPLEX;
    cv::putText(img, title, cv::Point(12, 26), font, 0.6, cv::Scalar(0, 0, 0), 1, cv::LINE_AA);
    int lx = 12;
    for (size_t s = 0; s < series.size(); ++s) {
        cv::rectangle(img, cv::Rect(lx, 42, 14, 14), colours[s % 5], cv::FILLED);
        int baseline = 0;
        const cv::Size text = cv::getTextSize(series[s], font, 0.5, 1, &baseline);
        cv::putText(img, series[s], cv::Point(lx + 20, 54), font, 0.5, cv::Scalar(0, 0, 0), 1, cv::LINE_AA);
        lx += 40 + text.width;
    }
    for (size_t g = 0; g < groups.size(); ++g) {
        const int y0 = head + int(g) * group_h;
        double top = 0;
        for (double v : values[g]) top = std::max(top, v);
        cv::putText(img, groups[g], cv::Point(12, y0 + 15), font, 0.5, cv::Scalar(0, 0, 0), 1, cv::LINE_AA);
        const int bars_y = y0 + label_h;
        for (size_t s = 0; s < series.size() && s < values[g].size(); ++s) {
            const int y = bars_y + int(s) * (bar_h + gap);
            const double v = values[g][s];
            if (!(v > 0)) {
                cv::putText(img, series[s] + ": n/a", cv::Point(left + 4, y + bar_h - 3), font, 0.4,
                            cv::Scalar(120, 120, 120), 1, cv::LINE_AA);
                continue;
            }
            const int len = std::max(1, int(std::lround(bar_max * v / top)));
            cv::rectangle(img, cv::Rect(left, y, len, bar_h), colours[s % 5], cv::FILLED);
            cv::putText(img, fixed(v, v < 10 ? 3 : 1) + " " + unit, cv::Point(left + len + 6, y + bar_h - 3), font,
                        0.4, cv::Scalar(0, 0, 0), 1, cv::LINE_AA);
        }
        cv::line(img, cv::Point(left, bars_y - 2), cv::Point(left, bars_y + int(series.size()) * (bar_h + gap)),
                 cv::Scalar(0, 0, 0));
    }
    return img;
}

}  // namespace kvcv
