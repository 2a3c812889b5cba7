#include "sim/Ft4222Port.h"

#include <algorithm>
#include <vector>

namespace vbridge {

namespace {

// System clock of each FT4222_ClockRate value (not in order of frequency).
constexpr double kSystemClockMHz[] = { 60, 24, 48, 80 };
// What a master reads from data lines that nothing drives.
constexpr uint8_t kFloatingBus = 0xFF;

bool validLineMode(int mode)
{
    return mode == SPI_IO_SINGLE || mode == SPI_IO_DUAL || mode == SPI_IO_QUAD;
}

bool validStrength(int strength)
{
    return strength >= DS_4MA && strength <= DS_16MA;
}

} // namespace

Ft4222Port::Ft4222Port(Ft4222Chip& chip, SpiDevice* device, GpioBlock* gpio)
    : chip_(chip)
    , device_(device)
    , gpio_(gpio)
{
}

void Ft4222Port::setTimeouts(uint32_t readMs, uint32_t writeMs)
{
    readTimeoutMs_ = readMs;
    writeTimeoutMs_ = writeMs;
}

FT4222_STATUS Ft4222Port::unInitialize()
{
    release();
    spi_ = SpiSettings();
    gpioMode_ = false;
    directions_.fill(GPIO_INPUT);
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::setClock(int clock)
{
    if (clock < SYS_CLK_60 || clock > SYS_CLK_80)
        return FT4222_INVALID_PARAMETER;
    chip_.clock = static_cast<FT4222_ClockRate>(clock);
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::getClock(FT4222_ClockRate* clock) const
{
    if (!clock)
        return FT4222_INVALID_POINTER;
    *clock = chip_.clock;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::setSuspendOut(bool enable)
{
    chip_.suspendOut = enable;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::setWakeUpInterrupt(bool enable)
{
    chip_.wakeUpInterrupt = enable;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::spiMasterInit(int ioLine, int clock, int cpol, int cpha, uint8_t ssoMap)
{
    if (!validLineMode(ioLine) || clock < CLK_DIV_2 || clock > CLK_DIV_512
        || (cpol != CLK_IDLE_LOW && cpol != CLK_IDLE_HIGH) || (cpha != CLK_LEADING && cpha != CLK_TRAILING)
        || ssoMap == 0 || ssoMap > 0x0F)
        return FT4222_INVALID_PARAMETER;
    release();
    spi_ = SpiSettings();
    spi_.master = true;
    spi_.lines = static_cast<FT4222_SPIMode>(ioLine);
    spi_.divider = static_cast<FT4222_SPIClock>(clock);
    spi_.cpol = static_cast<FT4222_SPICPOL>(cpol);
    spi_.cpha = static_cast<FT4222_SPICPHA>(cpha);
    spi_.ssoMap = ssoMap;
    setEngine(SpiEngine { spi_.lines, spi_.divider, spi_.cpol, spi_.cpha });
    gpioMode_ = false;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::setLines(int mode)
{
    if (!spi_.master)
        return FT4222_IS_NOT_SPI_MODE;
    if (!validLineMode(mode))
        return FT4222_INVALID_PARAMETER;
    spi_.lines = static_cast<FT4222_SPIMode>(mode);
    SpiEngine engine = this->engine();
    engine.lines = spi_.lines;
    setEngine(engine);
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::spiReady(bool single) const
{
    if (!spi_.master)
        return FT4222_IS_NOT_SPI_MODE;
    const FT4222_SPIMode lines = engine().lines;
    if (single && lines != SPI_IO_SINGLE)
        return FT4222_IS_NOT_SPI_SINGLE_MODE;
    if (!single && lines != SPI_IO_DUAL && lines != SPI_IO_QUAD)
        return FT4222_IS_NOT_SPI_MULTI_MODE;
    return FT4222_OK;
}

// The sizes are 16-bit, so a single-line transfer cannot pass kMaxTransfer.
FT4222_STATUS Ft4222Port::singleRead(
    uint8_t* buffer, uint16_t size, uint16_t* sizeOfRead, bool endTransaction)
{
    if (const FT4222_STATUS status = spiReady(true))
        return status;
    if (!buffer || !sizeOfRead)
        return FT4222_INVALID_POINTER;
    if (size == 0)
        return FT4222_INVALID_PARAMETER;
    select();
    exchange(nullptr, buffer, size, Lines::Single);
    if (endTransaction)
        release();
    *sizeOfRead = size;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::singleWrite(
    const uint8_t* buffer, uint16_t size, uint16_t* sizeTransferred, bool endTransaction)
{
    if (const FT4222_STATUS status = spiReady(true))
        return status;
    if (!buffer || !sizeTransferred)
        return FT4222_INVALID_POINTER;
    if (size == 0)
        return FT4222_INVALID_PARAMETER;
    select();
    exchange(buffer, nullptr, size, Lines::Single);
    if (endTransaction)
        release();
    *sizeTransferred = size;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::singleReadWrite(uint8_t* readBuffer, const uint8_t* writeBuffer, uint16_t size,
    uint16_t* sizeTransferred, bool endTransaction)
{
    if (const FT4222_STATUS status = spiReady(true))
        return status;
    if (!readBuffer || !writeBuffer || !sizeTransferred)
        return FT4222_INVALID_POINTER;
    if (size == 0)
        return FT4222_INVALID_PARAMETER;
    select();
    exchange(writeBuffer, readBuffer, size, Lines::Single);
    if (endTransaction)
        release();
    *sizeTransferred = size;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::multiReadWrite(uint8_t* readBuffer, const uint8_t* writeBuffer,
    uint8_t singleWriteBytes, uint16_t multiWriteBytes, uint16_t multiReadBytes, uint32_t* sizeOfRead)
{
    if (const FT4222_STATUS status = spiReady(false))
        return status;
    if (singleWriteBytes > kMaxSingleBytesInMulti)
        return FT4222_EXCEEDED_MAX_TRANSFER_SIZE;
    if ((!writeBuffer && singleWriteBytes + multiWriteBytes > 0) || (!readBuffer && multiReadBytes > 0)
        || !sizeOfRead)
        return FT4222_INVALID_POINTER;
    const Lines lines = multiLines();
    select();
    if (singleWriteBytes)
        exchange(writeBuffer, nullptr, singleWriteBytes, Lines::Single);
    if (multiWriteBytes)
        exchange(writeBuffer + singleWriteBytes, nullptr, multiWriteBytes, lines);
    if (multiReadBytes)
        exchange(nullptr, readBuffer, multiReadBytes, lines);
    release();
    *sizeOfRead = multiReadBytes;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::spiReset()
{
    if (!spi_.master)
        return FT4222_IS_NOT_SPI_MODE;
    release();
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::spiResetTransaction(uint8_t spiIndex)
{
    if (!spi_.master)
        return FT4222_IS_NOT_SPI_MODE;
    if (spiIndex > 3)
        return FT4222_INVALID_PARAMETER;
    release();
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::setDrivingStrength(int clock, int io, int sso)
{
    if (!spi_.master)
        return FT4222_IS_NOT_SPI_MODE;
    if (!validStrength(clock) || !validStrength(io) || !validStrength(sso))
        return FT4222_INVALID_PARAMETER;
    spi_.strength = { { static_cast<SPI_DrivingStrength>(clock), static_cast<SPI_DrivingStrength>(io),
        static_cast<SPI_DrivingStrength>(sso) } };
    return FT4222_OK;
}

// The GPIO lines belong to the chip's last interface; the others have none.
FT4222_STATUS Ft4222Port::gpioInit(const int* directions)
{
    if (!directions)
        return FT4222_INVALID_POINTER;
    if (!gpio_ || spi_.master)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    for (int line = 0; line < GpioBlock::kLineCount; ++line)
        if (directions[line] != GPIO_OUTPUT && directions[line] != GPIO_INPUT)
            return FT4222_INVALID_PARAMETER;
    for (int line = 0; line < GpioBlock::kLineCount; ++line)
        directions_[static_cast<size_t>(line)] = static_cast<GPIO_Dir>(directions[line]);
    gpioMode_ = true;
    return FT4222_OK;
}

// GPIO 2 is a GPIO only once the suspend output is off, GPIO 3 only once the
// wake-up interrupt is off.
FT4222_STATUS Ft4222Port::gpioReady(int line) const
{
    if (!gpioMode_)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    if (line < GPIO_PORT0 || line > GPIO_PORT3)
        return FT4222_GPIO_EXCEEDED_MAX_PORTNUM;
    if (line == GPIO_PORT2 && chip_.suspendOut)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    if (line == GPIO_PORT3 && chip_.wakeUpInterrupt)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::gpioRead(int line, BOOL* value) const
{
    if (const FT4222_STATUS status = gpioReady(line))
        return status;
    if (!value)
        return FT4222_INVALID_POINTER;
    // An output reads back the level it drives.
    const bool level = directions_[static_cast<size_t>(line)] == GPIO_OUTPUT ? gpio_->driven(line)
                                                                             : gpio_->boardLevel(line);
    *value = level ? 1 : 0;
    return FT4222_OK;
}

FT4222_STATUS Ft4222Port::gpioWrite(int line, BOOL value)
{
    if (const FT4222_STATUS status = gpioReady(line))
        return status;
    if (directions_[static_cast<size_t>(line)] != GPIO_OUTPUT)
        return FT4222_GPIO_WRITE_NOT_SUPPORTED;
    gpio_->drive(line, value != 0);
    return FT4222_OK;
}

void Ft4222Port::clear()
{
    unInitialize();
    readTimeoutMs_ = 0;
    writeTimeoutMs_ = 0;
}

void Ft4222Port::dropPower()
{
    selected_ = false;
    clear();
}

// The clock moves one bit a line; the chip's data path moves no more than its
// rated throughput, whatever the clock and the lines.
double Ft4222Port::wireMicroseconds(size_t singleBytes, size_t multiBytes) const
{
    const double clockMHz = spiClockMHz();
    const double onWire = (singleBytes * 8.0 + multiBytes * 8.0 / static_cast<int>(multiLines())) / clockMHz;
    const double throughput = (singleBytes + multiBytes) * 8.0 / kRatedThroughputMbps;
    return std::max(onWire, throughput);
}

SpiEngine Ft4222Port::engine() const
{
    if (chip_.sharedSpi)
        return chip_.spi;
    return SpiEngine { spi_.lines, spi_.divider, spi_.cpol, spi_.cpha };
}

void Ft4222Port::setEngine(const SpiEngine& engine)
{
    if (chip_.sharedSpi)
        chip_.spi = engine;
}

double Ft4222Port::spiClockMHz() const
{
    return kSystemClockMHz[chip_.clock & 3] / (1 << std::max<int>(1, engine().divider));
}

SpiDevice* Ft4222Port::selectedDevice() const
{
    return device_ && (spi_.ssoMap & device_->profile.chipSelect) ? device_ : nullptr;
}

void Ft4222Port::select()
{
    if (selected_)
        return; // an earlier transfer left the chip select asserted
    selected_ = true;
    if (SpiDevice* device = selectedDevice())
        device->select();
}

void Ft4222Port::release()
{
    if (!selected_)
        return;
    selected_ = false;
    if (SpiDevice* device = selectedDevice())
        device->deselect();
}

// Bits through a device clocked in another SPI mode: it takes each bit one
// edge late and drives its own one edge early, so both streams are shifted
// by one bit; the line idles high at the ends.
void Ft4222Port::exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines)
{
    SpiDevice* device = selectedDevice();
    if (!device) {
        if (in)
            std::fill(in, in + count, kFloatingBus);
        return;
    }
    // Modes 0 and 3 both take data on the rising edge, modes 1 and 2 on the
    // falling one: only the edge matters to the device.
    const SpiEngine clocking = engine();
    const bool otherMode = (device->profile.cpol ^ device->profile.cpha) != (clocking.cpol ^ clocking.cpha);
    std::vector<uint8_t> shifted;
    if (otherMode && out) {
        shifted.resize(count);
        for (size_t i = 0; i < count; ++i)
            shifted[i] = static_cast<uint8_t>((out[i] << 1) | (i + 1 < count ? out[i + 1] >> 7 : 1));
        out = shifted.data();
    }
    device->exchange(out, in, count, lines);
    if (!in)
        return;
    if (otherMode)
        for (size_t i = count; i-- > 0;)
            in[i] = static_cast<uint8_t>((in[i] >> 1) | (i > 0 ? (in[i - 1] & 1) << 7 : 0x80));
    // Faster than the device follows: its answers come out garbled.
    if (spiClockMHz() > device->profile.maxClockMHz)
        for (size_t i = 0; i < count; ++i) {
            garble_ = garble_ * 1103515245u + 12345u;
            in[i] = static_cast<uint8_t>(in[i] ^ (0x01 | (garble_ >> 16)));
        }
}

Lines Ft4222Port::multiLines() const
{
    return engine().lines == SPI_IO_DUAL ? Lines::Dual : Lines::Quad;
}

} // namespace vbridge
