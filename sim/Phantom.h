// What a virtual sensor's pixels show: an intra-oral phantom (two premolars
// in textured bone, a step wedge, a line-pair pattern and a metal ball) seen
// through the sensor's dark offset, gain pattern, defects and noise; or the
// older synthetic test pattern; or the pixels of a 16-bit PNG file.
//
// The renderers are pure: the same arguments give the same pixels. They
// return the whole read-out (the raw area and the covered rows above and
// below it), row by row, in host order; the sensor logic adds its size code.
// docs/scenario.md describes the values.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/VirtualBridge.h"

namespace vbridge {

namespace phantom {

// The converter gives 14 bits; the sensor logic uses the top two bits of
// the first pixel for its size code.
constexpr int kBits = 14;
constexpr int kFullScale = (1 << kBits) - 1;
// Mean dark offset of a pixel, and the spread of the fixed offset pattern
// around it (columns and pixels).
constexpr int kDarkOffset = 1000;
// Temporal read noise (standard deviation, digital units).
constexpr double kReadNoise = 3.0;
// Rows above and below the raw area that see no light: they read the dark
// offset with read noise.
constexpr int kTopCoveredRows = 4;
constexpr int kBottomCoveredRows = 6;
constexpr double kPixelPitchMm = 0.020;
// The dose of the default exposure (photodiode level 700 for 120 ms, dark
// level 428): the unit of the dose argument below.
// What the phantom shows, in the anatomy text korux keeps with a shot: the
// right lower first and second premolars (ISO 3950 44 and 45).
constexpr const char* kAnatomy = "teeth=44,45;region=mandible;laterality=R";
constexpr double kReferenceDose = (700 - 428) * 120.0;
// Signal above the dark offset of an uncovered pixel in the middle of the
// field at the reference dose; it grows in proportion to the dose and
// saturates at kFullScale.
constexpr double kReferenceSignal = 11000.0;
// A hot pixel reads at least this much above its dark offset, in every
// frame, dark frames included.
constexpr int kHotExcess = 9000;

struct Pixel {
    int x;
    int y; // read-out row (covered rows counted)
};
// Defects, the same on every virtual sensor and in both sizes: dead pixels
// read their dark offset whatever the dose; hot pixels read high always.
constexpr std::array<Pixel, 4> kDeadPixels { { { 157, 423 }, { 612, 988 }, { 903, 1377 }, { 333, 1100 } } };
constexpr std::array<Pixel, 3> kHotPixels { { { 288, 1204 }, { 745, 67 }, { 51, 733 } } };

// Where the test objects lie, in millimetres from the top left corner of
// the raw area (the first uncovered row); tests look at them.
constexpr int kWedgeSteps = 10;
constexpr double kWedgeTopMm = 0.8;
constexpr double kWedgeBottomMm = 3.0;
constexpr double kWedgeLeftMm = 1.0; // the wedge ends 1 mm before the right edge
constexpr double kBarsTopMm = 3.8;
constexpr double kBarsBottomMm = 6.4;
constexpr double kBarsLeftMm = 1.0;
constexpr double kBarsGapMm = 0.6; // between groups
constexpr int kBarGroups = 10; // 1 to 10 line pairs per millimetre
constexpr int kPairsPerGroup = 3;

// Left edge, in millimetres, of the group of lpPerMm line pairs per mm.
double barGroupLeftMm(int lpPerMm);

} // namespace phantom

// The dose an exposure gives: photodiode level above the dark level of 428,
// times its length in milliseconds.
double exposureDose(int photodiodeLevel, uint32_t durationMs);

// The phantom for sensor seed and exposure number shot (the noise), at a
// dose (0: a dark frame).
std::vector<uint16_t> renderPhantom(int width, int height, double dose, uint32_t seed, uint32_t shot);

// The synthetic pattern of earlier versions: dark offset, a fixed column
// pattern, the signal in a checkerboard of 100-pixel squares with shading
// towards the edges, and noise.
std::vector<uint16_t> renderTestPattern(int width, int height, double dose, uint32_t seed, uint32_t shot);

// The file's pixels as they are, whatever the dose; rows or columns the file
// does not have read the phantom's mean dark offset.
std::vector<uint16_t> renderFile(const ImageSource& source, int width, int height);

// One of the three by source.
std::vector<uint16_t> renderSensorImage(
    const ImageSource& source, int width, int height, double dose, uint32_t seed, uint32_t shot);

// Reads a grey-scale PNG (8 or 16 bits); a significant-bits chunk scales the
// samples back to their original depth. False with the reason in *error.
bool readGreyPng(
    const std::string& path, std::vector<uint16_t>* pixels, int* width, int* height, std::string* error);

} // namespace vbridge
