#include "sim/Phantom.h"

#include "sim/Noise.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace vbridge {

namespace {

constexpr int kDarkLevel = 428;

double smoothstep(double edge0, double edge1, double x)
{
    const double t = std::clamp((x - edge0) / (edge1 - edge0), 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

// Length of the path through an elliptic cylinder of half-width w and
// half-depth w * depth, at dx from its axis.
double chord(double dx, double w, double depth)
{
    if (w <= 0 || std::fabs(dx) >= w)
        return 0;
    const double q = dx / w;
    return 2 * depth * w * std::sqrt(1 - q * q);
}

// A standard normal deviate from 32 random bits: the sum of four bytes
// (close enough to a Gaussian for sensor noise, and cheap).
inline double gaussian(uint32_t bits)
{
    const int sum = int(bits & 0xFF) + int((bits >> 8) & 0xFF) + int((bits >> 16) & 0xFF) + int(bits >> 24);
    return (sum - 510) / 147.8;
}

// ---------------------------------------------------------------------------
// The phantom: everything between the tube and the sensor, as the fraction
// of the open-field signal that reaches each pixel of the raw area.

// Linear attenuation coefficients (per mm) for an intra-oral beam of about
// 60 to 70 kV.
constexpr double kEnamel = 0.38;
constexpr double kDentine = 0.22;
constexpr double kPulp = 0.02;
constexpr double kBone = 0.07;
constexpr double kBoneThickness = 9.0; // mm of alveolar bone, bucco-lingually
constexpr double kCrownHeight = 7.0; // occlusal surface to the enamel's end
constexpr double kToothTop = 7.6; // mm from the top of the raw area

struct Tooth {
    double centre; // mm
    double top; // mm
    double length; // occlusal surface to apex
    double halfWidth; // of the crown
    bool filling;
};

double crownTop(const Tooth& tooth, double dx)
{
    // Two cusps with the fossa between them, rounded towards the sides.
    const double q = dx / tooth.halfWidth;
    const double f = dx / (0.3 * tooth.halfWidth);
    return 1.6 * q * q * q * q + 0.45 * std::exp(-f * f);
}

double outerHalfWidth(const Tooth& tooth, double s)
{
    if (s < 0 || s > tooth.length)
        return 0;
    if (s <= kCrownHeight)
        return tooth.halfWidth * (1 - 0.22 * smoothstep(3.5, kCrownHeight, s));
    const double r = (s - kCrownHeight) / (tooth.length - kCrownHeight);
    double w = 0.78 * tooth.halfWidth * (1 - 0.8 * std::pow(r, 1.4));
    if (r > 0.9)
        w *= std::sqrt(std::max(0.0, (1 - r) / 0.1));
    return w;
}

double pulpHalfWidth(const Tooth& tooth, double s)
{
    if (s < 2.9 || s > tooth.length - 0.3)
        return 0;
    const double chamber = 0.34 * tooth.halfWidth * smoothstep(2.9, 4.2, s);
    const double canal = 0.2 * outerHalfWidth(tooth, s) + 0.05;
    const double t = smoothstep(7.0, 9.5, s);
    return chamber * (1 - t) + canal * t;
}

// Attenuation by one tooth at (dx, s) from its axis and top, and the path
// its root takes from the bone there.
double toothAttenuation(const Tooth& tooth, double dx, double s, double* rootPath)
{
    *rootPath = 0;
    if (s < 0 || s > tooth.length || std::fabs(dx) > tooth.halfWidth)
        return 0;
    const double top = crownTop(tooth, dx);
    if (s < top)
        return 0;
    const double w = outerHalfWidth(tooth, s);
    const double depth = 0.95 - 0.1 * smoothstep(kCrownHeight - 1, kCrownHeight + 1, s);
    const double outer = chord(dx, w, depth);
    if (outer <= 0)
        return 0;
    double inner = outer;
    if (s <= kCrownHeight) {
        // Enamel: about 1.4 mm over the occlusal surface, 1.3 mm on the
        // sides, thinning out at the neck.
        const double enamel = 1.3 * (1 - smoothstep(4.0, kCrownHeight, s));
        inner = s < top + 1.4 ? 0 : chord(dx, w - enamel, depth);
    }
    const double pulp = chord(dx, pulpHalfWidth(tooth, s), 0.8);
    if (s > kCrownHeight)
        *rootPath = outer;
    return kDentine * inner + kEnamel * (outer - inner) - (kDentine - kPulp) * pulp;
}

// Horizontal distance from the root's surface (negative inside), for the
// periodontal space and the lamina dura around it.
double rootDistance(const Tooth& tooth, double dx, double s)
{
    if (s > tooth.length)
        return std::hypot(dx, s - tooth.length);
    return std::fabs(dx) - outerHalfWidth(tooth, s);
}

// Cell pattern: 1 on the thin strands where two cells of about cell mm
// meet, falling off over about width mm.
double cellWalls(double x, double y, double cell, double width, uint32_t salt)
{
    const double u = x / cell;
    const double v = y / cell;
    const int cx = static_cast<int>(std::floor(u));
    const int cy = static_cast<int>(std::floor(v));
    double f1 = 1e9, f2 = 1e9;
    for (int j = -1; j <= 1; ++j) {
        for (int i = -1; i <= 1; ++i) {
            const uint32_t h = mix(static_cast<uint32_t>(cx + i) * 0x8da6b343u
                ^ static_cast<uint32_t>(cy + j) * 0xd8163841u ^ salt);
            const double px = cx + i + (h & 0xFFFF) / 65535.0;
            const double py = cy + j + (h >> 16) / 65535.0;
            const double d = (px - u) * (px - u) + (py - v) * (py - v);
            if (d < f1) {
                f2 = f1;
                f1 = d;
            } else if (d < f2) {
                f2 = d;
            }
        }
    }
    const double gap = (std::sqrt(f2) - std::sqrt(f1)) * cell;
    return std::exp(-gap / width);
}

// Smooth noise of about scale mm, 0 to 1.
double valueNoise(double x, double y, double scale, uint32_t salt)
{
    const double u = x / scale;
    const double v = y / scale;
    const int i = static_cast<int>(std::floor(u));
    const int j = static_cast<int>(std::floor(v));
    auto at = [&](int a, int b) {
        return (mix(static_cast<uint32_t>(a) * 0x9E3779B1u ^ static_cast<uint32_t>(b) * 0x85EBCA77u ^ salt)
                   & 0xFFFF)
            / 65535.0;
    };
    const double fu = smoothstep(0, 1, u - i);
    const double fv = smoothstep(0, 1, v - j);
    const double top = at(i, j) * (1 - fu) + at(i + 1, j) * fu;
    const double bottom = at(i, j + 1) * (1 - fu) + at(i + 1, j + 1) * fu;
    return top * (1 - fv) + bottom * fv;
}

// Trabecular bone: a mesh of strands of two sizes, bent, over marrow spaces
// of varying density; about 0.6 to 1.4.
double trabeculae(double x, double y)
{
    const double bx = x + 0.35 * (valueNoise(x, y, 0.9, 11) - 0.5);
    const double by = y + 0.35 * (valueNoise(x, y, 0.9, 13) - 0.5);
    return 0.75 + 0.3 * cellWalls(bx, by, 0.45, 0.035, 1) + 0.2 * cellWalls(bx, by, 0.8, 0.05, 2)
        + 0.25 * valueNoise(x, y, 0.25, 17);
}

// Fraction of [x0, x1] (mm) covered by the bars of the line-pair pattern.
double barCoverage(double x0, double x1)
{
    double covered = 0;
    for (int f = 1; f <= phantom::kBarGroups; ++f) {
        const double left = phantom::barGroupLeftMm(f);
        const double period = 1.0 / f;
        if (x1 <= left || x0 >= left + phantom::kPairsPerGroup * period)
            continue;
        for (int k = 0; k < phantom::kPairsPerGroup; ++k) {
            const double a = left + k * period;
            const double b = a + period / 2;
            covered += std::max(0.0, std::min(x1, b) - std::max(x0, a));
        }
    }
    return covered / (x1 - x0);
}

struct Scene {
    int width = 0;
    int rows = 0; // of the raw area
    std::vector<float> open; // share of the reference signal per pixel
};

Scene buildScene(int width, int rows)
{
    Scene scene;
    scene.width = width;
    scene.rows = rows;
    scene.open.assign(static_cast<size_t>(width) * rows, 0.0f);
    const double pitch = phantom::kPixelPitchMm;
    const double w = width * pitch;
    const double h = rows * pitch;
    const double middle = w / 2;
    const Tooth teeth[] = {
        { middle - 13.8, kToothTop + 0.3, 19.5, 3.5, false },
        { middle - 4.6, kToothTop, 20.0, 3.6, false },
        { middle + 4.6, kToothTop + 0.3, 19.3, 3.5, true },
        { middle + 13.8, kToothTop + 0.1, 20.0, 3.6, false },
    };
    const double wedgeRight = w - 1.0;
    const double ballX = w - 1.9;
    const double ballY = (phantom::kBarsTopMm + phantom::kBarsBottomMm) / 2;
    constexpr double kBallRadius = 0.5;
    constexpr double kBar = 2.0; // lead foil

    // What depends on the column only: the bars' coverage and the bone's
    // crest, which rises between the teeth.
    std::vector<double> bars(static_cast<size_t>(width));
    std::vector<double> crests(static_cast<size_t>(width));
    for (int i = 0; i < width; ++i) {
        bars[static_cast<size_t>(i)] = barCoverage(i * pitch, (i + 1) * pitch);
        crests[static_cast<size_t>(i)]
            = 15.8 + 0.6 * std::cos(2 * M_PI * ((i + 0.5) * pitch - middle - 4.6) / 9.2);
    }

    std::vector<float> row(static_cast<size_t>(width));
    for (int j = 0; j < rows; ++j) {
        const double y = (j + 0.5) * pitch;
        for (int i = 0; i < width; ++i) {
            const double x = (i + 0.5) * pitch;
            double a = 0;
            // Cheek and gum below the test objects.
            a += 0.35 * smoothstep(6.8, 8.8, y);
            // Step wedge.
            if (y >= phantom::kWedgeTopMm && y < phantom::kWedgeBottomMm && x >= phantom::kWedgeLeftMm
                && x < wedgeRight) {
                const int step = std::min(phantom::kWedgeSteps - 1,
                    static_cast<int>((x - phantom::kWedgeLeftMm) / (wedgeRight - phantom::kWedgeLeftMm)
                        * phantom::kWedgeSteps));
                a += 0.15 + 0.2 * step;
            }
            double through = 1;
            if (y >= phantom::kBarsTopMm && y < phantom::kBarsBottomMm)
                through = 1 - bars[static_cast<size_t>(i)] * (1 - std::exp(-kBar));
            // Metal ball.
            const double ball = (x - ballX) * (x - ballX) + (y - ballY) * (y - ballY);
            if (ball < kBallRadius * kBallRadius)
                a += 6.0 * std::sqrt(1 - ball / (kBallRadius * kBallRadius));

            // Alveolar bone below its crest.
            const double crest = crests[static_cast<size_t>(i)];
            const double bone = smoothstep(crest, crest + 2.0, y);
            double bonePath = kBoneThickness * bone;
            double lamina = 0;
            for (const Tooth& tooth : teeth) {
                const double dx = x - tooth.centre;
                if (std::fabs(dx) > tooth.halfWidth + 0.5)
                    continue;
                const double s = y - tooth.top;
                double root = 0;
                a += toothAttenuation(tooth, dx, s, &root);
                bonePath -= root * bone;
                if (s > kCrownHeight && bone > 0) {
                    const double e = rootDistance(tooth, dx, s);
                    if (e >= 0 && e < 0.18)
                        bonePath -= 1.2 * bone; // periodontal space
                    else if (e >= 0.18 && e < 0.36)
                        lamina += 0.22 * bone; // lamina dura
                }
                if (tooth.filling) {
                    const double fx = (x - tooth.centre - 0.6) / 1.5;
                    const double fy = (y - tooth.top - 1.0) / 1.0;
                    const double q = fx * fx + fy * fy;
                    if (q < 1 && y >= tooth.top + crownTop(tooth, dx))
                        a += 5.0 * std::sqrt(1 - q);
                }
            }
            if (bonePath > 0) {
                const double texture = trabeculae(x, y) * (0.85 + 0.3 * valueNoise(x, y, 2.5, 7));
                a += kBone * texture * bonePath;
            }
            a += lamina;

            // The beam: weaker towards the edges of the cone, and along the
            // tube's axis (heel effect).
            const double rx = (x - middle) / (w / 2);
            const double ry = (y - h / 2) / (h / 2);
            const double field = (1 - 0.05 * (rx * rx + ry * ry)) * (1 + 0.04 * (y / h - 0.5));
            row[static_cast<size_t>(i)] = static_cast<float>(field * through * std::exp(-a));
        }
        std::copy(row.begin(), row.end(), scene.open.begin() + static_cast<ptrdiff_t>(j) * width);
    }

    // The scintillator spreads light over the neighbouring pixels: a 1-2-1
    // blur in both directions.
    std::vector<float> blurred(scene.open.size());
    for (int j = 0; j < rows; ++j) {
        const float* in = &scene.open[static_cast<size_t>(j) * width];
        float* out = &blurred[static_cast<size_t>(j) * width];
        for (int i = 0; i < width; ++i) {
            const float left = in[std::max(0, i - 1)];
            const float right = in[std::min(width - 1, i + 1)];
            out[i] = 0.25f * left + 0.5f * in[i] + 0.25f * right;
        }
    }
    for (int j = 0; j < rows; ++j) {
        const float* up = &blurred[static_cast<size_t>(std::max(0, j - 1)) * width];
        const float* in = &blurred[static_cast<size_t>(j) * width];
        const float* down = &blurred[static_cast<size_t>(std::min(rows - 1, j + 1)) * width];
        float* out = &scene.open[static_cast<size_t>(j) * width];
        for (int i = 0; i < width; ++i)
            out[i] = 0.25f * up[i] + 0.5f * in[i] + 0.25f * down[i];
    }
    return scene;
}

// The scene depends on the size only: built once per size and process. The
// cache is never destroyed: a picture may still be rendering on its own
// thread while the process exits.
std::shared_ptr<const Scene> sceneFor(int width, int rows)
{
    static std::mutex& mutex = *new std::mutex;
    static std::vector<std::shared_ptr<const Scene>>& scenes = *new std::vector<std::shared_ptr<const Scene>>;
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& scene : scenes)
        if (scene->width == width && scene->rows == rows)
            return scene;
    auto scene = std::make_shared<const Scene>(buildScene(width, rows));
    if (scenes.size() >= 4)
        scenes.erase(scenes.begin());
    scenes.push_back(scene);
    return scene;
}

} // namespace

double phantom::barGroupLeftMm(int lpPerMm)
{
    double left = kBarsLeftMm;
    for (int f = 1; f < lpPerMm; ++f)
        left += kPairsPerGroup / static_cast<double>(f) + kBarsGapMm;
    return left;
}

double exposureDose(int photodiodeLevel, uint32_t durationMs)
{
    return std::max(0, photodiodeLevel - kDarkLevel) * static_cast<double>(durationMs);
}

std::vector<uint16_t> renderPhantom(int width, int height, double dose, uint32_t seed, uint32_t shot)
{
    using namespace phantom;
    if (width <= 0 || height <= 0)
        return {};
    std::vector<uint16_t> pixels(static_cast<size_t>(width) * height);
    const int rows = std::max(0, height - kTopCoveredRows - kBottomCoveredRows);
    const std::shared_ptr<const Scene> scene = rows > 0 ? sceneFor(width, rows) : nullptr;
    const double scale = kReferenceSignal * std::max(0.0, dose) / kReferenceDose;
    const uint32_t sensor = mix(seed ^ 0x5EED5EEDu);
    const uint32_t frame = mix(sensor + mix(shot + 0x9E3779B9u));

    // The fixed pattern of the sensor's columns: offset and gain.
    std::vector<int> columnOffset(static_cast<size_t>(width));
    std::vector<double> columnGain(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) {
        const uint32_t h = mix(sensor ^ (static_cast<uint32_t>(x) * 0x85EBCA6Bu));
        columnOffset[static_cast<size_t>(x)] = static_cast<int>(h & 0xFF) * 12 / 255 - 6;
        columnGain[static_cast<size_t>(x)] = 1 + 0.012 * (((h >> 8) & 0xFFF) / 4095.0 - 0.5);
    }

    auto darkAt = [&](int x, uint32_t fixed) {
        return kDarkOffset + columnOffset[static_cast<size_t>(x)] + static_cast<int>(fixed & 0xFF) * 8 / 255
            - 4;
    };
    auto gainAt = [&](int x, uint32_t fixed) {
        return columnGain[static_cast<size_t>(x)] * (1 + 0.02 * (((fixed >> 8) & 0xFFF) / 4095.0 - 0.5));
    };
    auto store = [&](uint32_t index, double value) {
        pixels[index] = static_cast<uint16_t>(std::clamp(value + 0.5, 0.0, double(kFullScale)));
    };
    for (int y = 0; y < height; ++y) {
        const int j = y - kTopCoveredRows;
        const bool covered = j < 0 || j >= rows;
        const float* open = covered ? nullptr : &scene->open[static_cast<size_t>(j) * width];
        for (int x = 0; x < width; ++x) {
            const uint32_t index
                = static_cast<uint32_t>(y) * static_cast<uint32_t>(width) + static_cast<uint32_t>(x);
            const uint32_t fixed = mix(sensor + index * 0x27D4EB2Du);
            const double signal = covered ? 0.0 : scale * open[x] * gainAt(x, fixed);
            // Quantum noise (one digital unit per detected quantum) and read
            // noise.
            const double sigma = std::sqrt(signal + kReadNoise * kReadNoise);
            store(index, darkAt(x, fixed) + signal + sigma * gaussian(mix(frame ^ (index * 0x9E3779B1u))));
        }
    }
    for (const Pixel& p : kDeadPixels) {
        if (p.x >= width || p.y >= height)
            continue;
        const uint32_t index = static_cast<uint32_t>(p.y * width + p.x);
        const uint32_t fixed = mix(sensor + index * 0x27D4EB2Du);
        store(index, darkAt(p.x, fixed) + kReadNoise * gaussian(mix(frame ^ (index * 0x9E3779B1u))));
    }
    for (const Pixel& p : kHotPixels) {
        if (p.x >= width || p.y >= height)
            continue;
        const uint32_t index = static_cast<uint32_t>(p.y * width + p.x);
        const uint32_t fixed = mix(sensor + index * 0x27D4EB2Du);
        const int j = p.y - kTopCoveredRows;
        const double signal = j < 0 || j >= rows ? 0.0 : scale * scene->open[index - kTopCoveredRows * width];
        store(index, darkAt(p.x, fixed) + kHotExcess + signal * gainAt(p.x, fixed));
    }
    return pixels;
}

std::vector<uint16_t> renderTestPattern(
    int width, int height, double dose, uint32_t seed, uint32_t shotNumber)
{
    std::vector<uint16_t> pixels(static_cast<size_t>(std::max(0, width)) * std::max(0, height));
    const int signal = static_cast<int>(dose) / 20;
    const uint32_t shot = seed * 977 + shotNumber;
    size_t index = 0;
    for (int y = 0; y < height; ++y) {
        const int dy = std::abs(2 * y - height) * 256 / height;
        for (int x = 0; x < width; ++x) {
            const int dx = std::abs(2 * x - width) * 256 / width;
            const int shading = 512 - (dx * dx + dy * dy) / 512;
            const bool light = ((x / 100) + (y / 100)) % 2 == 0;
            const int value = 1200 + ((x * 7) & 63) + signal * shading / 512 + (light ? signal / 4 : 0)
                + static_cast<int>(mix(shot ^ static_cast<uint32_t>(y * 4099 + x)) % 17);
            pixels[index++] = static_cast<uint16_t>(std::clamp(value, 0, 0x3FFF));
        }
    }
    return pixels;
}

std::vector<uint16_t> renderFile(const ImageSource& source, int width, int height)
{
    std::vector<uint16_t> pixels(static_cast<size_t>(std::max(0, width)) * std::max(0, height),
        static_cast<uint16_t>(phantom::kDarkOffset));
    if (!source.pixels)
        return pixels;
    const int columns = std::min(width, source.width);
    for (int y = 0; y < std::min(height, source.height); ++y)
        std::copy_n(source.pixels->begin() + static_cast<ptrdiff_t>(y) * source.width, columns,
            pixels.begin() + static_cast<ptrdiff_t>(y) * width);
    return pixels;
}

std::vector<uint16_t> renderSensorImage(
    const ImageSource& source, int width, int height, double dose, uint32_t seed, uint32_t shot)
{
    switch (source.kind) {
    case ImageSource::Kind::Pattern:
        return renderTestPattern(width, height, dose, seed, shot);
    case ImageSource::Kind::File:
        return renderFile(source, width, height);
    case ImageSource::Kind::Phantom:
        break;
    }
    return renderPhantom(width, height, dose, seed, shot);
}

namespace {

struct PngReadState {
    char message[200] = {};
};

void pngError(png_structp png, png_const_charp message)
{
    auto* state = static_cast<PngReadState*>(png_get_error_ptr(png));
    std::snprintf(state->message, sizeof state->message, "%s", message);
    png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp)
{
}

} // namespace

bool readGreyPng(
    const std::string& path, std::vector<uint16_t>* pixels, int* width, int* height, std::string* error)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) {
        *error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    unsigned char signature[8] = {};
    if (std::fread(signature, 1, 8, file) != 8 || png_sig_cmp(signature, 0, 8) != 0) {
        std::fclose(file);
        *error = path + " is not a PNG file";
        return false;
    }
    PngReadState state;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &state, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        std::fclose(file);
        *error = "out of memory reading " + path;
        return false;
    }
    // Everything the jump may skip lives outside this frame.
    std::vector<uint16_t> result;
    std::vector<unsigned char> data;
    std::vector<png_bytep> rowPointers;
    png_uint_32 w = 0, h = 0;
    volatile bool ok = false; // read after the error handler's jump
    if (setjmp(png_jmpbuf(png)) == 0) {
        png_init_io(png, file);
        png_set_sig_bytes(png, 8);
        png_read_info(png, info);
        w = png_get_image_width(png, info);
        h = png_get_image_height(png, info);
        const int colour = png_get_color_type(png, info);
        const int depth = png_get_bit_depth(png, info);
        if (colour != PNG_COLOR_TYPE_GRAY || (depth != 8 && depth != 16)) {
            std::snprintf(state.message, sizeof state.message,
                "is not a grey-scale PNG of 8 or 16 bits (colour type %d, %d bits)", colour, depth);
        } else if (w > 8192 || h > 8192) {
            std::snprintf(state.message, sizeof state.message, "is %ux%u pixels, larger than a sensor",
                static_cast<unsigned>(w), static_cast<unsigned>(h));
        } else {
            png_color_8p significant = nullptr;
            if (png_get_sBIT(png, info, &significant) && significant && significant->gray > 0
                && significant->gray < depth)
                png_set_shift(png, significant);
            if (depth == 16) {
                const uint16_t probe = 1;
                unsigned char first = 0;
                std::memcpy(&first, &probe, 1);
                if (first == 1)
                    png_set_swap(png);
            }
            png_read_update_info(png, info);
            const size_t bytesPerSample = depth == 16 ? 2 : 1;
            data.resize(static_cast<size_t>(w) * h * bytesPerSample);
            rowPointers.resize(h);
            for (png_uint_32 y = 0; y < h; ++y)
                rowPointers[y] = data.data() + static_cast<size_t>(y) * w * bytesPerSample;
            png_read_image(png, rowPointers.data());
            png_read_end(png, nullptr);
            result.resize(static_cast<size_t>(w) * h);
            if (depth == 16)
                std::memcpy(result.data(), data.data(), data.size());
            else
                std::copy(data.begin(), data.end(), result.begin());
            ok = true;
        }
    }
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    if (!ok) {
        *error = path + ": " + (state.message[0] ? state.message : "cannot be read");
        return false;
    }
    *pixels = std::move(result);
    *width = static_cast<int>(w);
    *height = static_cast<int>(h);
    return true;
}

} // namespace vbridge
