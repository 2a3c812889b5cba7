// One virtual sensor as the USB bus sees it: an FT4222H with four interfaces,
// and the devices on the sensor board behind them (the sensor logic in the
// FPGA on port A, the voltage converter on port B, the NOR flash on port C,
// the GPIO lines on port D).
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "sim/Ft4222Port.h"
#include "sim/GpioBlock.h"
#include "sim/InterfaceClaims.h"
#include "sim/NorFlash.h"
#include "sim/SensorLogic.h"
#include "sim/VirtualBridge.h"
#include "sim/VoltageConverter.h"

namespace vbridge {

// USB vendor and product id of the sensor series' bridge.
constexpr uint32_t kSeriesDeviceId = 0x1CE60003;
constexpr int kPortCount = 4;
constexpr char kPortLetters[] = "ABCD";

class VirtualSensor {
public:
    // config must carry the serial and location already chosen.
    explicit VirtualSensor(const SensorConfig& config);
    ~VirtualSensor();

    VirtualSensor(const VirtualSensor&) = delete;
    VirtualSensor& operator=(const VirtualSensor&) = delete;

    const std::string& serial() const { return config.serial; }
    uint32_t location(int port) const { return config.location + static_cast<uint32_t>(port); }
    std::string interfaceSerial(int port) const { return config.serial + kPortLetters[port]; }

    // The board loses power: interfaces and devices forget their state.
    void powerDown();
    // Powered again: the chip's settings are back to their power-on values,
    // and the FPGA has lost its configuration.
    void powerUp();

    SensorConfig config;
    bool plugged = true;
    // Grows on every unplug: handles of an older generation are dead.
    uint64_t generation = 0;
    // Set when the power failed in the middle of a call (flash power-cut
    // injection); the bridge then unplugs the sensor.
    bool powerFailed = false;
    // Image file that keeps the flash contents between runs, if any.
    std::string flashImage;
    // The interfaces' claims as other processes using that image see them.
    InterfaceClaims claims;

    // Takes the image file for this process (its lock file "<image>.lock"
    // stays locked until the sensor goes), waiting while another process
    // holds it; then loads it when it exists (it must hold exactly the flash
    // size), else writes the present contents into it.
    bool attachFlashImage(const std::string& path, std::string* error);
    // Writes the whole flash into the image: to a temporary file beside it,
    // synced, then renamed over it, so that the image is always the old or
    // the new contents, whatever happens to the process or the machine.
    bool saveFlashImage(std::string* error);
    // Why the last save failed, while the image is behind the flash; empty
    // once a save succeeds.
    const std::string& flashImageFailure() const { return flashImageFailure_; }

    Ft4222Chip chip;
    SensorLogic logic;
    VoltageConverter converter;
    NorFlash flash;
    GpioBlock gpio;

    struct Interface {
        Interface(Ft4222Chip& chip, SpiDevice* device, GpioBlock* gpio)
            : port(chip, device, gpio)
        {
        }
        uintptr_t handle = 0; // 0 while closed
        Ft4222Port port;
    };
    std::array<Interface, kPortCount> interfaces;

private:
    void releaseFlashImage();

    int flashImageLock_ = -1;
    std::string flashImageFailure_;
    bool saveFailureTold_ = false;
};

// How long a sensor waits for the flash image another process holds.
constexpr int kFlashImageWaitSeconds = 120;

// A stable number derived from a serial (noise seed, default unique id).
uint64_t serialHash(const std::string& serial);

// Latin-1 description of a sensor's interface, as the driver gives it.
std::string interfaceDescription(int port);

} // namespace vbridge
