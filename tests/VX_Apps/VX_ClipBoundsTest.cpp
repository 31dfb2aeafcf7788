#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "VX_Apps/VX_ClipBounds.h"
#include "VX_Apps/VX_MPR.h"

namespace {

// Rows as text, equal neighbours merged: "0-7*3 -*3" is three rows kept from
// column 0 to 7, then three empty rows.
std::string Text(std::vector<short> const& b)
{
    std::vector<std::string> rows;
    for (size_t j = 0; j < b.size(); j += 2)
        rows.push_back(b[j] > b[j + 1] ? "-" : std::to_string(b[j]) + "-" + std::to_string(b[j + 1]));
    std::string s;
    for (size_t i = 0; i < rows.size();) {
        size_t n = 1;
        while (i + n < rows.size() && rows[i + n] == rows[i]) ++n;
        s += (i ? " " : "") + rows[i] + (n > 1 ? "*" + std::to_string(n) : "");
        i += n;
    }
    return s;
}

// Clips rows of width 8 by a x + b y + d <= 0: reset when l < 0, otherwise
// from rows all (l, r). Both forms must give `want`; the array form alone for
// planes parallel to the image (a^2 + b^2 below 1e-10).
struct Case { float a, b, d; int H; short l, r; const char* want; };
const Case kCases[] = {
    // Parallel: only d above 0 empties; no reset keeps earlier bounds.
    {0, 0, 0.5f, 4, -1, 0, "-*4"},
    {0, 0, 0, 2, 2, 5, "2-5*2"},  // d = 0 keeps
    {1e-6f, 0, 1e-7f, 4, -1, 0, "-*4"},  // as a line (x <= -0.1) it would keep column 0
    // Horizontal: r = trunc((b > 0) + 0.5 - d / b) - 1; b > 0 empties r..H-1, b < 0 empties 0..r.
    {0, 1, -2.5f, 6, -1, 0, "0-7*3 -*3"},  // y <= 2.5: r = 3
    {0, -1, 2.5f, 6, -1, 0, "-*3 0-7*3"},  // y >= 2.5: r = 2, so row 2 (centre 2.5) goes too
    {0, -1, 100, 6, -1, 0, "-*6"},         // r clamped to H - 1
    {0, 1, 100, 6, -1, 0, "-*6"},          // r clamped to 0
    {0, 1, -100, 6, -1, 0, "0-7*6"},       // r >= H: nothing
    {0, -1, -100, 6, -1, 0, "0-7*6"},      // r < 0: nothing
    // Vertical: c = trunc(x0 - 0.5) + (a < 0); a > 0 caps right, a < 0 raises left.
    {1, 0, -2.7f, 3, -1, 0, "0-2*3"},
    {1, 0, -0.2f, 3, -1, 0, "0-0*3"},  // the rule, not the geometry: trunc(-0.3) = 0
    {-1, 0, 0.3f, 3, -1, 0, "1-7*3"},  // trunc(-0.2) + 1 = 1
    {1, 0, -2.5f, 3, 4, 6, "-*3"},     // no reset: the tighter of old and new
    {-1, 0, 2.5f, 3, 1, 6, "3-6*3"},
    // Nearly vertical: when a * b > 0, x0 moves by height * |b| (5e-4) toward the inside.
    {1, 5e-7f, -2.5002f, 1000, -1, 0, "0-1*1000"},    // x0 = 2.4997: c = 1
    {1, -5e-7f, -2.5002f, 1000, -1, 0, "0-2*1000"},   // a * b < 0: x0 = 2.5002, c = 2
    {-1, -5e-7f, 2.4998f, 1000, -1, 0, "3-7*1000"},   // x0 = 2.5003: c = 3
    // General lines are checked on random lines; here without reset: the tighter of old and new.
    {40, -40, -48, 4, 1, 5, "1-1 1-2 1-3 1-4"},
    {1, 1, -100, 6, 1, 5, "1-5*6"},  // missing the image with its centre inside
};

TEST(VX_ClipBounds, RowsByTheRule)
{
    for (Case const& c : kCases) {
        for (int form = 0; form < 2; ++form) {
            if (form == 1 && c.a * c.a + c.b * c.b < 1e-10f) continue;
            std::vector<short> b(2 * c.H);
            for (int j = 0; j < c.H; ++j) b[2 * j] = c.l < 0 ? 5 : c.l, b[2 * j + 1] = c.l < 0 ? 1 : c.r;
            float plane[4] = {c.a, c.b, 7, c.d};  // z is not used
            if (form == 0) VX_ClipBounds(b.data(), 8, c.H, plane, c.l < 0);
            else VX_ClipBounds(b.data(), 8, c.H, c.a, c.b, c.d, c.l < 0);
            EXPECT_EQ(Text(b), c.want) << (form ? "three-value" : "array") << " form, " << c.a << " x + " << c.b
                                       << " y + " << c.d << " <= 0";
        }
    }
}

// Lines neither horizontal nor vertical, at any scale, keep a pixel exactly
// when its centre is inside, up to rounding at the line itself.
TEST(VX_ClipBounds, RandomLinesKeepInsideCentres)
{
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> unit(-1, 1), px(-6, 30), py(-6, 22);
    const int W = 24, H = 16;
    int count[2] = {0, 0};  // dropped, kept
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<short> b(2 * H);
        float a = unit(rng), c = unit(rng), d = -(a * px(rng) + c * py(rng)), k = trial % 7 ? 1.0f : 40.0f;
        VX_ClipBounds(b.data(), W, H, k * a, k * c, k * d, true);
        for (int i = 0; i < W * H; ++i) {
            double e = (a * (i % W + 0.5) + c * (i / W + 0.5) + d) / std::hypot(a, c);
            if (std::fabs(e) < 2e-3) continue;
            ASSERT_EQ(i % W >= b[i / W * 2] && i % W <= b[i / W * 2 + 1], e <= 0) << "trial " << trial << ", " << i;
            count[e <= 0]++;
        }
    }
    EXPECT_GT(count[0], 10000);
    EXPECT_GT(count[1], 10000);
}

TEST(VX_ClipBounds, BoundingRectOfRows)
{
    // First to last non-empty row; least left, starting from w, to greatest right.
    std::vector<short> b = {0, -1, 3, 5, 5, 4, 2, 4, 7, 8, 0, -1}, one = {0, -1, 0, -1, 4, 4}, past = {12, 15};
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 6, b.data()), VX_Rect(2, 1, 7, 4));
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 3, one.data()), VX_Rect(4, 2, 1, 1));
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 1, past.data()), VX_Rect(10, 0, 6, 1));
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 1, b.data()), VX_Rect());
    EXPECT_EQ(VX_MPR::computeBoundingRect(10, 0, b.data()), VX_Rect());
}

}  // namespace
