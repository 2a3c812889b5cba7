#include "sim/VirtualSensor.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

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
    logic.imageSource = config.image;
    logic.readyDelayMs = config.readyDelayMs;
    logic.armDelayMs = config.armDelayMs;
    logic.imageLeadMs = config.imageLeadMs;
    logic.powerOn(SensorLogic::Clock::now());
    logic.configured = config.fpgaConfigured;
    logic.fpgaDeviceId = config.fpgaDeviceId;
    converter.raw = config.adcRaw;
    chip.sharedSpi = config.sharedSpiEngine;
    // The sensor logic sits on SS0 and follows the 40 MHz the system runs it
    // at; the flash on SS1 (up to 104 MHz); the converter on SS2, whose
    // datasheet gives 3.6 MHz at 5 V and 1.35 MHz at 2.7 V: on the board's
    // 3.3 V only the lower figure is assured. All take SPI mode 0.
    logic.profile.maxClockMHz = 40;
    logic.profile.chipSelect = 0x01;
    flash.profile.maxClockMHz = 104;
    flash.profile.chipSelect = 0x02;
    converter.profile.maxClockMHz = 1.35;
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
    // What reaches the flash is kept at once: a process that is killed next
    // must not lose a counter step the sensor has taken.
    flash.onMemoryChanged = [this] {
        if (flashImage.empty())
            return;
        std::string error;
        if (saveFlashImage(&error)) {
            saveFailureTold_ = false;
        } else if (!saveFailureTold_) {
            saveFailureTold_ = true;
            std::fprintf(stderr, "virtual bridge: %s\n", error.c_str());
        }
    };
}

VirtualSensor::~VirtualSensor()
{
    releaseFlashImage();
}

namespace {

// Set by vbridge_interrupt_wait, possibly from a signal handler: a lock-free
// atomic flag is all such a handler may touch.
std::atomic<bool> waitInterrupted { false };
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets the flag");

bool takeWaitInterrupt()
{
    return waitInterrupted.exchange(false);
}

std::string systemError(int error)
{
    return std::strerror(error);
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The process that holds a lock file, as it wrote itself there: "1234 korux".
std::string lockHolder(int fd)
{
    char text[128] = {};
    const ssize_t size = pread(fd, text, sizeof text - 1, 0);
    std::string holder = size > 0 ? std::string(text, static_cast<size_t>(size)) : std::string();
    while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' '))
        holder.pop_back();
    if (holder.empty())
        return "another process";
    const size_t space = holder.find(' ');
    if (space == std::string::npos)
        return "process " + holder;
    return "process " + holder.substr(0, space) + " (" + holder.substr(space + 1) + ")";
}

std::string processName()
{
    std::ifstream comm("/proc/self/comm");
    std::string name;
    std::getline(comm, name);
    return name.empty() ? "unknown" : name;
}

} // namespace

bool VirtualSensor::attachFlashImage(const std::string& path, std::string* error)
{
    auto fail = [&](const std::string& reason) {
        if (error)
            *error = reason;
        return false;
    };
    releaseFlashImage();
    // The image itself is replaced on every save, so the lock lives in a
    // file of its own that is never replaced.
    const std::string lockPath = path + ".lock";
    const int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return fail("cannot open the lock file " + lockPath + ": " + systemError(errno));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kFlashImageWaitSeconds);
    bool told = false;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (takeWaitInterrupt()) {
            close(fd);
            return fail("interrupted while waiting for the flash image " + path);
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            const int lockError = errno;
            close(fd);
            return fail("cannot lock " + lockPath + ": " + systemError(lockError));
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            const std::string holder = lockHolder(fd);
            close(fd);
            return fail("the flash image " + path + " is in use by " + holder + " (waited "
                + std::to_string(kFlashImageWaitSeconds) + " s)");
        }
        if (!told) {
            told = true;
            std::fprintf(stderr, "virtual bridge: the flash image %s is in use by %s; waiting for it\n",
                path.c_str(), lockHolder(fd).c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::string holder = std::to_string(getpid()) + " " + processName() + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, holder.data(), holder.size(), 0) < 0) {
        // Only the waiting message of another process would miss it.
    }
    flashImageLock_ = fd;

    std::ifstream file(path, std::ios::binary);
    if (file) {
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (bytes.size() != NorFlash::kSize) {
            releaseFlashImage();
            return fail("the flash image " + path + " holds " + std::to_string(bytes.size()) + " bytes, not "
                + std::to_string(NorFlash::kSize));
        }
        flash.memory() = std::move(bytes);
        flashImage = path;
        flash.dirty = false;
        return true;
    }
    flashImage = path;
    return saveFlashImage(error);
}

void VirtualSensor::releaseFlashImage()
{
    if (flashImageLock_ < 0)
        return;
    // Unlocked by the close.
    close(flashImageLock_);
    flashImageLock_ = -1;
}

bool VirtualSensor::saveFlashImage(std::string* error)
{
    auto fail = [&](const std::string& reason, int code) {
        flashImageFailure_
            = "cannot write the flash image " + flashImage + ": " + reason + ": " + systemError(code);
        if (error)
            *error = flashImageFailure_;
        return false;
    };
    const std::string directory = directoryOf(flashImage);
    const size_t slash = flashImage.rfind('/');
    std::string temporary
        = directory + "/." + flashImage.substr(slash == std::string::npos ? 0 : slash + 1) + ".tmp-XXXXXX";
    const int fd = mkostemp(&temporary[0], O_CLOEXEC);
    if (fd < 0)
        return fail("cannot create a temporary file in " + directory, errno);
    fchmod(fd, 0644);
    const auto& memory = flash.memory();
    const uint8_t* data = memory.data();
    size_t left = memory.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0) {
            const int code = errno;
            close(fd);
            unlink(temporary.c_str());
            return fail("writing", code);
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
    if (fsync(fd) != 0 || close(fd) != 0) {
        const int code = errno;
        unlink(temporary.c_str());
        return fail("syncing", code);
    }
    if (rename(temporary.c_str(), flashImage.c_str()) != 0) {
        const int code = errno;
        unlink(temporary.c_str());
        return fail("renaming", code);
    }
    const int directoryFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd >= 0) {
        fsync(directoryFd);
        close(directoryFd);
    }
    flash.dirty = false;
    flashImageFailure_.clear();
    return true;
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

extern "C" void vbridge_interrupt_wait(void)
{
    vbridge::waitInterrupted.store(true);
}
