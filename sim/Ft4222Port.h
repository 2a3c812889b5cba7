// One USB interface of an FT4222H as LibFT4222 drives it: its SPI master (or
// GPIO) set-up, its chip select and the checks the vendor library makes before
// it moves a byte. Transfers go in bulk to the SPI device wired behind the
// interface; GPIO goes to the board's lines.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "sim/GpioBlock.h"
#include "sim/SpiDevice.h"
#include "transport/BridgeApi.h"

namespace vbridge {

// The clocking of the chip's one SPI master: in the modes with several SPI
// interfaces, they are that one master with a chip select each, so a clock,
// line or mode setting made through one interface is the others' too.
struct SpiEngine {
    FT4222_SPIMode lines = SPI_IO_NONE;
    FT4222_SPIClock divider = CLK_NONE;
    FT4222_SPICPOL cpol = CLK_IDLE_LOW;
    FT4222_SPICPHA cpha = CLK_LEADING;
};

// Settings of the whole chip, shared by its four interfaces.
struct Ft4222Chip {
    // One SPI engine for all interfaces (true), or one each.
    bool sharedSpi = true;
    SpiEngine spi;
    FT4222_ClockRate clock = SYS_CLK_60;
    // GPIO 2 doubles as the suspend output and GPIO 3 as the wake-up input;
    // both are on after power-up.
    bool suspendOut = true;
    bool wakeUpInterrupt = true;
};

class Ft4222Port {
public:
    // Largest single-line transfer, and largest multi-line write or read.
    static constexpr size_t kMaxTransfer = 65535;
    // Largest single-line part of a multi-line transfer.
    static constexpr size_t kMaxSingleBytesInMulti = 15;

    struct SpiSettings {
        bool master = false;
        FT4222_SPIMode lines = SPI_IO_NONE;
        FT4222_SPIClock divider = CLK_NONE;
        FT4222_SPICPOL cpol = CLK_IDLE_LOW;
        FT4222_SPICPHA cpha = CLK_LEADING;
        uint8_t ssoMap = 0;
        std::array<SPI_DrivingStrength, 3> strength { { DS_4MA, DS_4MA,
            DS_4MA } }; // clock, data, chip select
    };

    // device: the chip behind the SPI master (null: nothing, the data lines
    // float high); gpio: the board's GPIO lines (null on interfaces that have
    // none).
    Ft4222Port(Ft4222Chip& chip, SpiDevice* device, GpioBlock* gpio);

    Ft4222Port(const Ft4222Port&) = delete;
    Ft4222Port& operator=(const Ft4222Port&) = delete;

    // D2XX time-outs, kept for the record.
    void setTimeouts(uint32_t readMs, uint32_t writeMs);
    uint32_t readTimeout() const { return readTimeoutMs_; }
    uint32_t writeTimeout() const { return writeTimeoutMs_; }

    FT4222_STATUS unInitialize();
    // Enumerations are taken as the ints the C ABI passes: a C caller may
    // pass any value, which the vendor library checks.
    FT4222_STATUS setClock(int clock);
    FT4222_STATUS getClock(FT4222_ClockRate* clock) const;
    FT4222_STATUS setSuspendOut(bool enable);
    FT4222_STATUS setWakeUpInterrupt(bool enable);

    FT4222_STATUS spiMasterInit(int ioLine, int clock, int cpol, int cpha, uint8_t ssoMap);
    FT4222_STATUS setLines(int mode);
    FT4222_STATUS singleRead(uint8_t* buffer, uint16_t size, uint16_t* sizeOfRead, bool endTransaction);
    FT4222_STATUS singleWrite(
        const uint8_t* buffer, uint16_t size, uint16_t* sizeTransferred, bool endTransaction);
    FT4222_STATUS singleReadWrite(uint8_t* readBuffer, const uint8_t* writeBuffer, uint16_t size,
        uint16_t* sizeTransferred, bool endTransaction);
    // Single-line bytes, then multi-line bytes written, then multi-line bytes
    // read, in one transaction that the call always ends.
    FT4222_STATUS multiReadWrite(uint8_t* readBuffer, const uint8_t* writeBuffer, uint8_t singleWriteBytes,
        uint16_t multiWriteBytes, uint16_t multiReadBytes, uint32_t* sizeOfRead);
    FT4222_STATUS spiReset();
    FT4222_STATUS spiResetTransaction(uint8_t spiIndex);
    FT4222_STATUS setDrivingStrength(int clock, int io, int sso);

    FT4222_STATUS gpioInit(const int* directions);
    FT4222_STATUS gpioRead(int line, BOOL* value) const;
    FT4222_STATUS gpioWrite(int line, BOOL value);

    // The interface is closed: its LibFT4222 state goes and an open
    // transaction ends (the chip select rises).
    void clear();
    // Power is gone: the state goes without the device seeing the chip
    // select rise.
    void dropPower();

    // The settings made through this interface.
    const SpiSettings& spi() const { return spi_; }
    // The clocking this interface's transfers get: the shared engine's, or
    // its own.
    SpiEngine engine() const;
    bool gpioMode() const { return gpioMode_; }
    const std::array<GPIO_Dir, 4>& gpioDirections() const { return directions_; }
    bool inTransaction() const { return selected_; }

    // How long the data of a transfer of these sizes take at the current
    // clock and line mode: no less than on the wire, and no faster than the
    // chip's rated SPI master throughput (the USB transaction is extra).
    double wireMicroseconds(size_t singleBytes, size_t multiBytes) const;
    // The SPI clock the master drives now, and the bridge's rated maximum.
    double spiClockMHz() const;
    static constexpr double kRatedSpiClockMHz = 30;
    // "Up to 53.8Mbps data transfer rate in SPI master with quad mode".
    static constexpr double kRatedThroughputMbps = 53.8;

private:
    FT4222_STATUS spiReady(bool single) const;
    void setEngine(const SpiEngine& engine);
    FT4222_STATUS gpioReady(int line) const;
    void select();
    void release();
    void exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines);
    Lines multiLines() const;

    // The device behind the port, if its chip select is the one the master
    // drives.
    SpiDevice* selectedDevice() const;

    Ft4222Chip& chip_;
    SpiDevice* device_;
    uint32_t garble_ = 0; // noise of answers clocked too fast
    GpioBlock* gpio_;

    uint32_t readTimeoutMs_ = 0;
    uint32_t writeTimeoutMs_ = 0;
    SpiSettings spi_;
    bool selected_ = false;
    bool gpioMode_ = false;
    std::array<GPIO_Dir, 4> directions_ { { GPIO_INPUT, GPIO_INPUT, GPIO_INPUT, GPIO_INPUT } };
};

} // namespace vbridge
