#include "sim/GpioBlock.h"

namespace vbridge {

bool GpioBlock::boardLevel(int line) const
{
    if (line == kStrapLine)
        return !inside_;
    // GPIO 0 to 2 have pull-ups.
    return true;
}

void GpioBlock::drive(int line, bool level)
{
    bool& current = driven_[static_cast<size_t>(line)];
    const bool falling = current && !level;
    const bool rising = !current && level;
    current = level;
    if (line != kProgramLine)
        return;
    if (falling) {
        programLowSince_ = std::chrono::steady_clock::now();
        if (onProgramPulse)
            onProgramPulse();
    } else if (rising && onProgramRelease) {
        onProgramRelease(std::chrono::steady_clock::now() - programLowSince_);
    }
}

void GpioBlock::powerUp()
{
    driven_ = kPowerOnLevels;
}

} // namespace vbridge
