#include "sim/VirtualSensor.h"

namespace vbridge {

uint64_t serialHash(const std::string& serial)
{
    // FNV-1a: stable per serial, so a sensor keeps its noise and identifier.
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : serial) {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

std::string interfaceDescription(int port)
{
    // Superscript two is the single byte 0xB2 in Latin-1.
    return std::string("KORUX/KORUX\xB2 ") + kPortLetters[port];
}

VirtualSensor::VirtualSensor(const SensorConfig& sensorConfig)
    : config(sensorConfig)
    , logic(static_cast<uint32_t>(serialHash(sensorConfig.serial)))
    , interfaces { { Interface(chip, &logic, nullptr), Interface(chip, &converter, nullptr),
          Interface(chip, &flash, nullptr), Interface(chip, nullptr, &gpio) } }
{
    logic.version = config.version;
    logic.sizeCode = config.sizeCode;
    logic.generator = config.generator;
    logic.autoExposure = config.autoExposure;
    logic.exposure = config.exposure;
    logic.readoutMs = config.readoutMs;
    logic.readyDelayMs = config.readyDelayMs;
    logic.armDelayMs = config.armDelayMs;
    logic.imageLeadMs = config.imageLeadMs;
    logic.powerOn(SensorLogic::Clock::now());
    logic.configured = config.fpgaConfigured;
    logic.fpgaDeviceId = config.fpgaDeviceId;
    converter.raw = config.adcRaw;
    chip.sharedSpi = config.sharedSpiEngine;
    // The sensor logic sits on SS0 and follows the 40 MHz the system runs it
    // at; the flash on SS1 (up to 104 MHz); the converter on SS2, specified
    // up to 3.6 MHz at 5 V. All take SPI mode 0.
    logic.profile.maxClockMHz = 40;
    logic.profile.chipSelect = 0x01;
    flash.profile.maxClockMHz = 104;
    flash.profile.chipSelect = 0x02;
    converter.profile.maxClockMHz = 3.6;
    converter.profile.chipSelect = 0x04;
    if (config.uniqueId == 0)
        config.uniqueId = serialHash(config.serial);
    flash.uniqueId = config.uniqueId;
    flash.seed = static_cast<uint32_t>(serialHash(config.serial) >> 32);
    gpio.setInside(config.inside);
    // PROGRAMN low restarts the FPGA's configuration.
    // PROGRAMN low restarts the FPGA's configuration, if held low long
    // enough (at once when no minimum is set).
    gpio.onProgramPulse = [this] {
        if (logic.programLowMinUs == 0)
            logic.configurationReset();
    };
    gpio.onProgramRelease = [this](std::chrono::steady_clock::duration low) {
        if (logic.programLowMinUs > 0 && low >= std::chrono::microseconds(logic.programLowMinUs))
            logic.configurationReset();
    };
    // Power lost in the middle of a program or erase.
    flash.onPowerCut = [this] { powerFailed = true; };
}

void VirtualSensor::powerDown()
{
    plugged = false;
    ++generation;
    claims.releaseAll();
    for (Interface& interface : interfaces) {
        interface.handle = 0;
        interface.port.dropPower();
    }
    flash.powerDown();
}

void VirtualSensor::powerUp()
{
    plugged = true;
    powerFailed = false;
    chip = Ft4222Chip();
    chip.sharedSpi = config.sharedSpiEngine;
    gpio.powerUp();
    logic.configurationReset();
    flash.powerUp();
}

} // namespace vbridge
