// The virtual sensor's pictures: the intra-oral phantom as a pure renderer
// (deterministic, its test objects measurable, the dose, the defects and the
// covered rows as documented), and the image sources a scenario chooses.
#include <QDir>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <chrono>
#include <cmath>
#include <numeric>
#include <thread>

#include "SimSupport.h"

#include "sim/Phantom.h"

using namespace simtest;
namespace ph = vbridge::phantom;

namespace {

constexpr int kWidth = 1000;
constexpr int kHeight = 1506;

// One rendering per dose, shared by the tests of this file (a phantom of the
// small size takes a moment).
const std::vector<uint16_t>& phantomAt(double share)
{
    static std::map<double, std::vector<uint16_t>> cache;
    auto found = cache.find(share);
    if (found == cache.end())
        found
            = cache.emplace(share, vbridge::renderPhantom(kWidth, kHeight, share * ph::kReferenceDose, 7, 1))
                  .first;
    return found->second;
}

// Read-out row of a position in millimetres from the raw area's top.
int rowAt(double mm)
{
    return ph::kTopCoveredRows + static_cast<int>(mm / ph::kPixelPitchMm);
}

int columnAt(double mm)
{
    return static_cast<int>(mm / ph::kPixelPitchMm);
}

double mean(const std::vector<uint16_t>& pixels, int x0, int y0, int x1, int y1)
{
    double sum = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            sum += pixels[static_cast<size_t>(y) * kWidth + x];
    return sum / ((x1 - x0) * double(y1 - y0));
}

uint16_t at(const std::vector<uint16_t>& pixels, int x, int y)
{
    return pixels[static_cast<size_t>(y) * kWidth + x];
}

class VbImageSource : public VbTest {
protected:
    // A dark frame taken: armed under the dark level, the sensor runs its
    // dummy integration (300 ms) at once, with no dose; without a read-out
    // delay the image is there as soon as the status says so (before any
    // image the blocks read zeros).
    static void takeDarkFrame(FT_HANDLE handle)
    {
        bridge().setSensorDelays(0, 0, 0, 0, 0);
        // A1 00 CA FE on one line, then mode 4 with threshold 0 and an ACE
        // value on four lines.
        std::vector<uint8_t> arm = bytes({ 0xA1, 0x00, 0xCA, 0xFE, 0x40, 0x00, 0x00, 0x61, 0xA8 });
        uint32_t read = 0;
        ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, nullptr, arm.data(), 4, 5, 0, &read), FT4222_OK);
        const std::vector<uint8_t> status = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
        for (int i = 0; i < 2000 && command(handle, status, 3)[0] != 0x48; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(command(handle, status, 3)[0], 0x48);
    }

    // The first pixels of the image the sensor holds (wire order turned
    // into host order).
    static std::vector<uint16_t> firstPixels(FT_HANDLE handle, int count)
    {
        const std::vector<uint8_t> block
            = command(handle, bytes({ 0xA0, 0x80, 0xCA, 0xFE }), static_cast<uint16_t>(2 * count));
        std::vector<uint16_t> pixels;
        for (int i = 0; i < count; ++i)
            pixels.push_back(static_cast<uint16_t>(block[2 * i] << 8 | block[2 * i + 1]));
        return pixels;
    }

    bool load(const std::string& json, std::string* error)
    {
        return bridge().loadScenarioText(json, "image.json", error);
    }
};

} // namespace

TEST(VbPhantom, SameSeedAndShotGiveTheSamePixels)
{
    const auto a = vbridge::renderPhantom(kWidth, kHeight, ph::kReferenceDose, 7, 1);
    EXPECT_EQ(a, phantomAt(1.0));
    EXPECT_NE(a, vbridge::renderPhantom(kWidth, kHeight, ph::kReferenceDose, 7, 2)); // new noise
    EXPECT_NE(a, vbridge::renderPhantom(kWidth, kHeight, ph::kReferenceDose, 8, 1)); // another sensor
}

TEST(VbPhantom, ValuesStayWithinFourteenBitsAndSaturate)
{
    const auto bright = vbridge::renderPhantom(kWidth, kHeight, 4 * ph::kReferenceDose, 7, 1);
    EXPECT_EQ(*std::max_element(bright.begin(), bright.end()), ph::kFullScale);
    const auto& normal = phantomAt(1.0);
    EXPECT_LE(*std::max_element(normal.begin(), normal.end()), ph::kFullScale);
    EXPECT_GT(*std::min_element(normal.begin(), normal.end()), ph::kDarkOffset - 50);
}

TEST(VbPhantom, StepWedgeDarkensStepByStep)
{
    const auto& pixels = phantomAt(1.0);
    const double left = ph::kWedgeLeftMm;
    const double step = (kWidth * ph::kPixelPitchMm - 1.0 - left) / ph::kWedgeSteps;
    const int top = rowAt(ph::kWedgeTopMm + 0.3);
    const int bottom = rowAt(ph::kWedgeBottomMm - 0.3);
    double previous = 1e9;
    for (int k = 0; k < ph::kWedgeSteps; ++k) {
        const double level = mean(
            pixels, columnAt(left + k * step + 0.3), top, columnAt(left + (k + 1) * step - 0.3), bottom);
        EXPECT_LT(level, previous - 100) << "step " << k;
        previous = level;
    }
    EXPECT_GE(ph::kWedgeSteps, 8);
}

TEST(VbPhantom, LinePairsUpToTenPerMillimetreShowModulation)
{
    const auto& pixels = phantomAt(1.0);
    const int top = rowAt(ph::kBarsTopMm + 0.2);
    const int bottom = rowAt(ph::kBarsBottomMm - 0.2);
    for (int f = 1; f <= ph::kBarGroups; ++f) {
        // The column profile across the group, averaged over its rows.
        const int x0 = columnAt(ph::barGroupLeftMm(f));
        const int x1 = columnAt(ph::barGroupLeftMm(f) + double(ph::kPairsPerGroup) / f);
        std::vector<double> profile;
        for (int x = x0; x <= x1; ++x)
            profile.push_back(mean(pixels, x, top, x + 1, bottom) - ph::kDarkOffset);
        const double high = *std::max_element(profile.begin(), profile.end());
        const double low = *std::min_element(profile.begin(), profile.end());
        EXPECT_GT((high - low) / (high + low), 0.2) << f << " lp/mm";
    }
}

TEST(VbPhantom, TwiceTheDoseTwiceTheSignalAboveTheDarkOffset)
{
    // Below saturation: a quarter and a half of the default dose.
    const auto& quarter = phantomAt(0.25);
    const auto& half = phantomAt(0.5);
    const auto& dark = phantomAt(0.0);
    const int x0 = 100, x1 = 900, y0 = 300, y1 = 1400;
    const double a = mean(quarter, x0, y0, x1, y1) - mean(dark, x0, y0, x1, y1);
    const double b = mean(half, x0, y0, x1, y1) - mean(dark, x0, y0, x1, y1);
    EXPECT_GT(a, 300);
    EXPECT_NEAR(b / a, 2.0, 0.01);
}

TEST(VbPhantom, DarkFrameIsTheOffsetWithReadNoise)
{
    const auto& dark = phantomAt(0.0);
    double sum = 0, squares = 0;
    int count = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const double v = at(dark, x, y);
            if (v > ph::kDarkOffset + 1000)
                continue; // the hot pixels
            sum += v;
            squares += v * v;
            ++count;
        }
    }
    const double average = sum / count;
    const double spread = std::sqrt(squares / count - average * average);
    EXPECT_NEAR(average, ph::kDarkOffset, 5);
    EXPECT_GT(spread, 2.0);
    EXPECT_LT(spread, 8.0);
    EXPECT_EQ(count, kWidth * kHeight - static_cast<int>(ph::kHotPixels.size()));
}

TEST(VbPhantom, DeadAndHotPixelsWhereDocumented)
{
    const auto& pixels = phantomAt(1.0);
    const auto& dark = phantomAt(0.0);
    for (const ph::Pixel& p : ph::kDeadPixels) {
        EXPECT_NEAR(at(pixels, p.x, p.y), ph::kDarkOffset, 30) << p.x << "," << p.y;
        const double around = (at(pixels, p.x - 1, p.y) + at(pixels, p.x + 1, p.y) + at(pixels, p.x, p.y - 1)
                                  + at(pixels, p.x, p.y + 1))
            / 4.0;
        EXPECT_GT(around, ph::kDarkOffset + 150) << p.x << "," << p.y;
    }
    for (const ph::Pixel& p : ph::kHotPixels) {
        EXPECT_GE(at(dark, p.x, p.y), ph::kDarkOffset - 20 + ph::kHotExcess) << p.x << "," << p.y;
        EXPECT_GE(at(pixels, p.x, p.y), at(dark, p.x, p.y)) << p.x << "," << p.y;
    }
}

TEST(VbPhantom, CoveredRowsReadTheDarkOffsetWhateverTheDose)
{
    const auto& pixels = phantomAt(1.0);
    for (int y = 0; y < ph::kTopCoveredRows; ++y)
        EXPECT_NEAR(mean(pixels, 0, y, kWidth, y + 1), ph::kDarkOffset, 3) << "row " << y;
    for (int y = kHeight - ph::kBottomCoveredRows; y < kHeight; ++y)
        EXPECT_NEAR(mean(pixels, 0, y, kWidth, y + 1), ph::kDarkOffset, 3) << "row " << y;
    // The first uncovered rows see the beam.
    EXPECT_GT(mean(pixels, 0, ph::kTopCoveredRows, kWidth, ph::kTopCoveredRows + 1), ph::kDarkOffset + 2000);
}

TEST(VbPhantom, LargeSensorShowsTheSamePhantom)
{
    const auto pixels = vbridge::renderPhantom(1300, 1706, ph::kReferenceDose, 7, 1);
    ASSERT_EQ(pixels.size(), 1300u * 1706u);
    // The metal ball sits 1.9 mm from the right edge, in the bars' rows.
    const int x = 1300 - columnAt(1.9);
    const int y = rowAt((ph::kBarsTopMm + ph::kBarsBottomMm) / 2);
    EXPECT_LT(pixels[static_cast<size_t>(y) * 1300 + x], ph::kDarkOffset + 300);
    EXPECT_GT(pixels[static_cast<size_t>(y) * 1300 + x - columnAt(1.0)], ph::kDarkOffset + 5000);
}

TEST(VbPhantom, DoseOfAnExposureIsTheLevelAboveDarkTimesItsLength)
{
    EXPECT_DOUBLE_EQ(vbridge::exposureDose(700, 120), ph::kReferenceDose);
    EXPECT_DOUBLE_EQ(vbridge::exposureDose(428, 300), 0.0);
    EXPECT_DOUBLE_EQ(vbridge::exposureDose(400, 300), 0.0);
}

TEST_F(VbImageSource, PhantomIsTheDefaultAndTheOldPatternCanBeChosen)
{
    addSensor();
    // A dark frame of the phantom.
    FT_HANDLE handle = openPortA();
    takeDarkFrame(handle);
    std::vector<uint16_t> first = firstPixels(handle, 200);
    EXPECT_EQ(first[0] >> 14, 1); // the size code
    for (size_t i = 1; i < first.size(); ++i)
        EXPECT_NEAR(first[i], ph::kDarkOffset, 30) << i;

    std::string error;
    ASSERT_TRUE(load(R"({"sensors": [{"image": {"source": "pattern"}}]})", &error)) << error;
    handle = openPortA();
    takeDarkFrame(handle);
    first = firstPixels(handle, 200);
    for (size_t i = 1; i < first.size(); ++i) {
        EXPECT_GE(first[i], 1200) << i;
        EXPECT_LT(first[i], 1200 + 64 + 17) << i;
    }
}

TEST_F(VbImageSource, FilePixelsAreReadOutExactly)
{
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    QImage picture(kWidth, kHeight, QImage::Format_Grayscale16);
    for (int y = 0; y < kHeight; ++y) {
        auto* row = reinterpret_cast<quint16*>(picture.scanLine(y));
        for (int x = 0; x < kWidth; ++x)
            row[x] = static_cast<quint16>((x * 37 + y * 11) & 0x3FFF);
    }
    ASSERT_TRUE(picture.save(directory.filePath(QStringLiteral("picture.png"))));
    std::string error;
    ASSERT_TRUE(
        load(R"({"sensors": [{"image": {"file": ")" + directory.path().toStdString() + R"(/picture.png"}}]})",
            &error))
        << error;
    FT_HANDLE handle = openPortA();
    takeDarkFrame(handle);
    const std::vector<uint16_t> first = firstPixels(handle, 300);
    EXPECT_EQ(first[0], 1 << 14); // pixel 0 is 0, with the size code over it
    for (int x = 1; x < 300; ++x)
        ASSERT_EQ(first[static_cast<size_t>(x)], (x * 37) & 0x3FFF) << x;

    // A relative name is taken from the scenario file's folder.
    QFile scenario(directory.filePath(QStringLiteral("scenario.json")));
    ASSERT_TRUE(scenario.open(QIODevice::WriteOnly));
    scenario.write(R"({"sensors": [{"image": {"source": "file", "file": "picture.png"}}]})");
    scenario.close();
    ASSERT_TRUE(bridge().loadScenario(scenario.fileName().toStdString(), &error)) << error;
    handle = openPortA();
    takeDarkFrame(handle);
    EXPECT_EQ(firstPixels(handle, 2)[1], 37);
}

TEST_F(VbImageSource, BadImageSourcesAreRefusedWithTheReason)
{
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    QImage small(20, 10, QImage::Format_Grayscale16);
    small.fill(0);
    ASSERT_TRUE(small.save(directory.filePath(QStringLiteral("small.png"))));
    QImage colour(kWidth, kHeight, QImage::Format_RGB32);
    colour.fill(Qt::red);
    ASSERT_TRUE(colour.save(directory.filePath(QStringLiteral("colour.png"))));
    const std::string base = directory.path().toStdString() + "/";
    const struct {
        std::string image;
        std::string says;
    } cases[] = {
        { R"({"source": "photo"})", "sensors[0].image.source must be \"phantom\", \"pattern\" or \"file\"" },
        { R"({"source": "file"})", "sensors[0].image needs a \"file\"" },
        { R"({"source": "pattern", "file": "x.png"})", "sensors[0].image.file is for \"source\": \"file\"" },
        { R"({"file": ")" + base + R"(none.png"})", "cannot open" },
        { R"({"file": ")" + base + R"(small.png"})", "is 20x10 pixels; a sensor of size 1 reads 1000x1506" },
        { R"({"file": ")" + base + R"(colour.png"})", "is not a grey-scale PNG" },
        { R"({"colour": 1})", "unknown key \"colour\" in sensors[0].image" },
        { R"({"file": "/dev/zero"})", "/dev/zero is not a regular file" },
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(load(R"({"sensors": [{"image": )" + c.image + "}]}", &error)) << c.image;
        EXPECT_NE(error.find(c.says), std::string::npos) << error;
    }
}
