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
    current = level;
    if (line == kProgramLine && falling && onProgramPulse)
        onProgramPulse();
}

void GpioBlock::powerUp()
{
    driven_ = kPowerOnLevels;
}

} // namespace vbridge
