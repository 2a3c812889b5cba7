// The sensor board's side of the bridge's four GPIO lines (port D). GPIO 3 is
// a strap: pulled high on a stand-alone sensor, tied low when the sensor is
// built into an "Inside" generator. GPIO 0 to 2 are inputs of the board that
// the bridge drives as outputs; GPIO 2 is the FPGA's PROGRAMN, whose falling
// edge clears the FPGA's configuration.
#pragma once

#include <array>
#include <chrono>
#include <functional>

namespace vbridge {

class GpioBlock {
public:
    static constexpr int kLineCount = 4;
    static constexpr int kProgramLine = 2;
    static constexpr int kStrapLine = 3;

    // Level the board puts on a line that the bridge does not drive.
    bool boardLevel(int line) const;

    // The bridge drives a line; the board sees the level at once.
    void drive(int line, bool level);
    // The level last driven on a line (its power-on level before that).
    bool driven(int line) const { return driven_[static_cast<size_t>(line)]; }
    // Levels driven on GPIO 0 to 2.
    std::array<bool, 3> outputs() const { return { { driven_[0], driven_[1], driven_[2] } }; }

    void setInside(bool inside) { inside_ = inside; }
    bool inside() const { return inside_; }

    // Power cycle: every line back to its power-on level.
    void powerUp();

    // Called on a falling edge of PROGRAMN, and on its rising edge with how
    // long it was low.
    std::function<void()> onProgramPulse;
    std::function<void(std::chrono::steady_clock::duration)> onProgramRelease;

private:
    // PROGRAMN idles high (pulled up on the board).
    static constexpr std::array<bool, 4> kPowerOnLevels { { false, false, true, true } };

    std::array<bool, 4> driven_ = kPowerOnLevels;
    std::chrono::steady_clock::time_point programLowSince_ {};
    bool inside_ = false;
};

} // namespace vbridge
