// Control API of the virtual FT4222 bridge.
//
// The library that carries this API also exports the D2XX and LibFT4222 C
// functions of transport/BridgeApi.h, and answers them from emulated devices:
// the USB device list, the four interfaces of every virtual sensor, the sensor
// logic and the FPGA configuration port behind port A, the voltage converter
// on port B, the NOR flash on port C and the GPIO lines of port D. Tests and
// tools configure the devices here (or through a scenario file) and read back
// a trace of every bridge call.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vbridge {

// Generator settings that an "Inside" sensor reports in its information block.
struct GeneratorSettings {
    uint8_t kV = 70;
    uint8_t mA = 7;
    uint16_t timeSet = 125;
    uint16_t timeDone = 124;
    uint16_t dap = 310;
    uint8_t cone = 2;
    uint16_t airDose = 1520;
    uint8_t cutMethod = 1;
    uint8_t mode = 0;
    bool markerOk = true; // byte 0 is 0x73 ('s') when true
    bool checksumOk = true; // byte 16 is the sum of bytes 1 to 14 when true
};

// The 3-byte status word fields of a sensor, for answers forced by a test.
struct StatusWord {
    uint8_t flags = 0x40; // ready
    uint16_t diode = 428; // 10 bits
    uint8_t version = 2; // 4 bits
    uint8_t sizeCode = 1; // 2 bits: 1 = 1000 x 1506, 2 = 1300 x 1706
};

// An X-ray exposure as the sensor's photodiode sees it.
struct Exposure {
    uint32_t delayMs = 150; // from arming (automatic exposures only)
    uint32_t durationMs = 120; // intra-oral exposures last 50 to 200 ms
    uint16_t doseRate = 700; // photodiode level while exposed (dark is 428)
};

// Where a sensor's pictures come from: the intra-oral phantom, the older
// synthetic pattern, or the pixels of a PNG file (sim/Phantom.h).
struct ImageSource {
    enum class Kind { Phantom, Pattern, File };
    Kind kind = Kind::Phantom;
    std::string file; // File: its name, as given
    // File: its pixels (host order, row by row) and its size.
    std::shared_ptr<const std::vector<uint16_t>> pixels;
    int width = 0;
    int height = 0;
};

// How long the NOR flash is busy. Instant timing: no time passes, but the
// first busyPolls status reads after a program, erase or status write still
// see the busy bit. Realistic timing: each cycle takes a time drawn between
// the datasheet's typical and largest figure (from the chip's seed, so a run
// repeats); a figure whose largest equals its typical is taken as it is.
struct FlashTiming {
    uint32_t busyPolls = 2; // status reads that see the busy bit after a program or erase
    uint32_t programUs = 0; // and at least this long after a page program
    uint32_t programMaxUs = 0;
    uint32_t eraseUs = 0; // after a sector erase
    uint32_t eraseMaxUs = 0;
    uint32_t chipEraseUs = 0; // after a chip erase
    uint32_t chipEraseMaxUs = 0;
    uint32_t writeStatusUs = 0; // after a write of the status registers (tW)
    uint32_t writeStatusMaxUs = 0;
    uint32_t resetUs = 0; // after a software reset, before the chip takes a command
    // After power-up the chip refuses write instructions for tPUW, a time
    // between these two.
    uint32_t powerUpWriteUs = 0;
    uint32_t powerUpWriteMaxUs = 0;
    // Deep power-down: entering (tDP) and leaving it (tRES1).
    uint32_t powerDownUs = 0;
    uint32_t releaseUs = 0;

    // Typical and largest figures of the datasheet (25Q128 class).
    static constexpr uint32_t kProgramTypicalUs = 700;
    static constexpr uint32_t kProgramMaxUs = 3000;
    static constexpr uint32_t kEraseTypicalUs = 45000;
    static constexpr uint32_t kEraseMaxUs = 400000;
    static constexpr uint32_t kChipEraseTypicalUs = 25000000;
    static constexpr uint32_t kChipEraseMaxUs = 200000000;
    static constexpr uint32_t kWriteStatusTypicalUs = 10000;
    static constexpr uint32_t kWriteStatusMaxUs = 15000;
    static constexpr uint32_t kResetUs = 30;
    static constexpr uint32_t kPowerUpWriteMinUs = 1000;
    static constexpr uint32_t kPowerUpWriteMaxUs = 10000;
    static constexpr uint32_t kPowerDownUs = 3;
    static constexpr uint32_t kReleaseUs = 3;

    static FlashTiming instant() { return FlashTiming(); }
    static FlashTiming realistic()
    {
        FlashTiming t;
        t.busyPolls = 0;
        t.programUs = kProgramTypicalUs;
        t.programMaxUs = kProgramMaxUs;
        t.eraseUs = kEraseTypicalUs;
        t.eraseMaxUs = kEraseMaxUs;
        t.chipEraseUs = kChipEraseTypicalUs;
        t.chipEraseMaxUs = kChipEraseMaxUs;
        t.writeStatusUs = kWriteStatusTypicalUs;
        t.writeStatusMaxUs = kWriteStatusMaxUs;
        t.resetUs = kResetUs;
        t.powerUpWriteUs = kPowerUpWriteMinUs;
        t.powerUpWriteMaxUs = kPowerUpWriteMaxUs;
        t.powerDownUs = kPowerDownUs;
        t.releaseUs = kReleaseUs;
        return t;
    }
};

struct FlashStats {
    std::vector<uint32_t> sectorErases; // erase count of each 4096-byte sector
    uint64_t pagePrograms = 0;
    uint64_t sectorEraseCommands = 0; // executed sector erases
    uint64_t chipErases = 0;
    uint64_t zeroToOneAttempts = 0; // programs that asked a 0 bit to become 1
    uint64_t ignoredWhileBusy = 0;
    uint64_t ignoredWithoutWriteEnable = 0;
    uint64_t ignoredInexactFrames = 0; // chip select not released right after the frame's last bit
    uint64_t interrupted = 0; // programs and erases cut short by a reset or a power loss
    uint64_t ignoredProtected = 0; // programs and erases of protected areas
    uint64_t statusWrites = 0; // executed writes of the status registers
    uint64_t ignoredPoweredDown = 0; // instructions in deep power-down
    uint64_t ignoredBeforePowerUpWrite = 0; // write instructions within tPUW of power-up
};

struct SensorConfig {
    // Serial number of the bridge; interface serials are this plus A to D.
    // Empty: "KX0001", "KX0002", ... by sensor index.
    std::string serial;
    // Location id of port A; ports B to D follow at +1, +2, +3. 0: chosen.
    uint32_t location = 0;
    // GPIO 3 of port D reads 0 for a sensor built into a generator.
    bool inside = false;
    uint8_t sizeCode = 1; // 1 = small (1000 x 1506), 2 = large (1300 x 1706)
    uint8_t version = 2;
    uint64_t uniqueId = 0; // 0: derived from the serial
    GeneratorSettings generator;
    // Raw 10-bit converter values of channels 0 to 3.
    std::array<uint16_t, 4> adcRaw { { 620, 310, 775, 560 } };
    // Exposure started by itself after every arming for an acquisition.
    bool autoExposure = true;
    Exposure exposure;
    // From the end of an integration to the image being ready to read.
    uint32_t readoutMs = 300;
    ImageSource image;
    // The ready flag stays clear this long after power-on and after a
    // configuration; the armed flag comes this long after the arm frame; the
    // image-ready value comes this long before the image data are complete.
    uint32_t readyDelayMs = 0;
    uint32_t armDelayMs = 0;
    uint32_t imageLeadMs = 0;
    bool fpgaConfigured = true;
    uint32_t fpgaDeviceId = 0x412B4043;
    // The bridge's SPI interfaces are one SPI master with a chip select each
    // (settings made through one are the others' too) when true; false
    // gives each interface a master of its own.
    bool sharedSpiEngine = true;
    // Flash holds a realistic set of files and a counter when true;
    // otherwise it starts erased.
    bool defaultFlash = true;
};

// An interface of another product on the same machine.
struct ForeignDevice {
    uint32_t id = 0x04036001;
    std::string description = "USB <-> Serial";
    std::string serial = "FT000001";
    uint32_t location = 0x9000;
    uint32_t type = 8;
};

// One bridge call as the trace records it.
struct TraceEntry {
    uint64_t seq = 0;
    std::string function; // C name, e.g. "FT4222_SPIMaster_MultiReadWrite"
    std::string device; // interface serial ("KX0001A"), empty for list calls
    char port = 0; // 'A' to 'D', 0 for list calls and foreign devices
    std::vector<int64_t> args; // scalar arguments in call order (no handle, no buffers)
    std::string text; // string argument (serial for FT_OpenEx), if any
    std::vector<uint8_t> written;
    std::vector<uint8_t> read;
    uint32_t status = 0;
    // A transfer clocked faster than the bridge's rated 30 MHz.
    bool aboveRatedClock = false;

    // One line: "seq function device args "text" [written] -> [read] = status",
    // bytes in lower-case hex; parts that are empty are left out; a failure
    // status is followed by its name ("= 1003 IS_NOT_SPI_MODE"); data longer
    // than 32 bytes shows its first 32 bytes and its length.
    std::string toString() const;
};

// LibFT4222 and D2XX state of one interface as the calls so far left it.
struct PortSettings {
    bool open = false;
    uint32_t readTimeoutMs = 0;
    uint32_t writeTimeoutMs = 0;
    bool spiMaster = false;
    int lines = 0; // FT4222_SPIMode
    int clockDivider = 0; // FT4222_SPIClock
    int cpol = 0;
    int cpha = 0;
    int ssoMap = 0;
    std::array<int, 3> drivingStrength { { 0, 0, 0 } }; // clock, data, chip select
    bool chipSelectAsserted = false; // a transaction is held open
    // What this interface's transfers get from the SPI engine (the shared
    // one's settings, whichever interface made them).
    int engineLines = 0;
    int engineClockDivider = 0;
    bool gpio = false; // GPIO_Init done
    std::array<int, 4> gpioDirections { { 1, 1, 1, 1 } };
    // Settings of the whole chip, shared by the sensor's four interfaces.
    int systemClock = 0; // FT4222_ClockRate
    bool suspendOut = true;
    bool wakeUpInterrupt = true;
};

// Where a device-list entry comes from: sensor interface or foreign device.
struct ListEntry {
    int sensor = -1; // sensor index, or -1 for a foreign device
    int port = 0; // 0..3 for A..D, or the foreign device index
};

// How the driver of the host's system lists and opens the interfaces.
enum class DriverProfile {
    // Every interface is listed, whatever its USB ids.
    Windows,
    // (macOS alike.) Only the driver maker's own vendor id (0x0403) and the
    // one vendor/product pair registered with FT_SetVIDPID are listed or
    // opened; an interface open in this process lists location 0.
    Linux,
};

#ifdef _WIN32
constexpr DriverProfile kHostDriverProfile = DriverProfile::Windows;
#else
constexpr DriverProfile kHostDriverProfile = DriverProfile::Linux;
#endif

// What the sensor logic last received in an arm frame.
struct ArmRecord {
    int count = 0; // arm frames received since the sensor was added
    int threshold = 0; // photodiode threshold, 12 bits
    bool oscilloscope = false;
    uint32_t ace = 0; // 24 bits
};

// How fast the machine is. Instant: busy times and delays are 0 (the rules
// still hold: a busy flash still ignores commands until a status read has
// seen it busy). Realistic: the parts' typical figures, and transfers take as
// long as on the wire (40 MHz, four lines, a USB transaction each).
enum class Timing { Instant, Realistic };

// Typical delays of the sensor logic in realistic timing.
constexpr uint32_t kRealisticReadyDelayMs = 300; // start-up after power-on or configuration
constexpr uint32_t kRealisticArmDelayMs = 50; // arm frame to armed flag
// An operator (or a generator) does not fire sooner than this after arming.
constexpr uint32_t kRealisticExposureFloorMs = 500;
// The FPGA's configuration port settles this long after entering or leaving
// configuration; PROGRAMN must be low at least this long.
constexpr uint32_t kRealisticConfigSettleUs = 200;
constexpr uint32_t kRealisticProgramLowUs = 1;

class VirtualBridge {
public:
    // The process-wide bridge that the exported C functions answer from.
    static VirtualBridge& instance();

    // No device, no fault, empty trace, link timing off.
    void reset();
    // The default machine: one stand-alone sensor "KX0001" (as a host gets
    // when no scenario is named).
    void resetToDefault();
    // The machine a host gets on first use: the scenario file named by the
    // environment variable KORUX_SCENARIO, or the default machine when it is
    // unset or empty. A scenario that cannot be loaded leaves the default
    // machine; the result is then false and *error says why. The default
    // machine takes the parts' own time (realistic timing) unless
    // KORUX_TIMING=instant.
    bool resetFromEnvironment(std::string* error = nullptr);

    // Adds a sensor; its four interfaces are appended to the device list in
    // the order A, B, C, D. Returns the sensor index.
    int addSensor(const SensorConfig& config);
    // Appends a foreign interface to the device list. Returns its index.
    int addForeignDevice(const ForeignDevice& device);
    // Replaces the order of the device list (interfaces of unplugged sensors
    // are left out when the list is read).
    void setListOrder(const std::vector<ListEntry>& order);
    std::vector<ListEntry> listOrder() const;

    int sensorCount() const;
    SensorConfig sensorConfig(int sensor) const;
    std::string interfaceSerial(int sensor, int port) const;
    uint32_t interfaceLocation(int sensor, int port) const;

    // Sensor logic (port A).
    // Every status request answers this word until cleared (flags, diode,
    // version and size as given), whatever the sensor is doing.
    void setStatusWord(int sensor, const StatusWord& status);
    void clearStatusWord(int sensor);
    // Status words answered by the next status requests, one each, before the
    // sensor answers from its state again.
    void queueStatusWords(int sensor, const std::vector<StatusWord>& words);
    void setGenerator(int sensor, const GeneratorSettings& generator);
    void setInside(int sensor, bool inside);
    void setAutoExposure(int sensor, bool automatic, const Exposure& exposure = Exposure());
    // What the next images show (the image held stays as it is).
    void setImageSource(int sensor, const ImageSource& source);
    // X-rays reach the sensor now, for the exposure's duration. An armed
    // sensor integrates them; one still arming integrates what comes after
    // its armed flag; one not armed sees nothing.
    void triggerExposure(int sensor, const Exposure& exposure = Exposure());
    // The sensor reports itself off (flag 0x10) or its link lost (0x20).
    void switchOff(int sensor, bool off = true);
    void loseLink(int sensor, bool lost = true);
    // The sensor holds an image as after an exposure without X-rays (until
    // then the image blocks read zeros), for read-out tests without arming.
    void holdDarkImage(int sensor);
    // Size code put into the images (0 to 3), or -1 for the sensor's own.
    void setImageSizeCode(int sensor, int code);
    ArmRecord lastArm(int sensor) const;
    // The last image the sensor produced, in pixel values (host order), and
    // its size; empty before the first exposure.
    std::vector<uint16_t> lastImage(int sensor) const;
    int imageWidth(int sensor) const;
    int imageHeight(int sensor) const;
    // Oscilloscope samples of the last exposure.
    std::vector<uint16_t> lastOscilloscope(int sensor) const;
    int exposureCount(int sensor) const;

    // Voltage converter (port B): raw 10-bit values of channels 0 to 3.
    void setAdcRaw(int sensor, const std::array<uint16_t, 4>& raw);

    // NOR flash (port C). Factory writes bypass the chip's rules.
    void setFlashContents(int sensor, uint32_t address, const std::vector<uint8_t>& bytes);
    std::vector<uint8_t> flashContents(int sensor, uint32_t address, uint32_t length) const;
    void eraseFlashContents(int sensor);
    void setUniqueId(int sensor, uint64_t id);
    uint64_t uniqueId(int sensor) const;
    void setFlashTiming(int sensor, const FlashTiming& timing);
    // The quad-enable bit of the flash's status register 2 (set at the
    // factory); clear, the chip refuses its quad commands (0x32, 0xEB).
    void setFlashQuadEnable(int sensor, bool enabled);
    // The status register 1 as a read would give it now (without counting as
    // a read).
    uint8_t flashStatus(int sensor) const;
    FlashStats flashStats(int sensor) const;
    void clearFlashStats(int sensor);
    // Power fails during the nth program or erase from now: the page or
    // sector is left partly written and the sensor unplugged.
    void cutPowerAt(int sensor, int nthProgramOrErase);
    // Keeps the flash contents in this file: loaded now if it exists, saved
    // after every program or erase that reaches the chip, and when the port
    // closes and the bridge is reset or unloaded. Each save replaces the file
    // whole (temporary file, sync, rename). The file is this process's until
    // the sensor goes: "<path>.lock" stays locked, and a second process
    // waits for it (saying who holds it), up to kFlashImageWaitSeconds.
    bool setFlashImage(int sensor, const std::string& path, std::string* error);
    void saveFlashImages();
    // Why a flash image could not be saved and is behind its sensor's
    // flash (the first such sensor); empty when every image is up to date.
    std::string flashImageFailure() const;

    // FPGA.
    bool fpgaConfigured(int sensor) const;
    void setFpgaConfigured(int sensor, bool configured);
    void setFpgaDeviceId(int sensor, uint32_t id);
    // Bitstream bytes the configuration port received in its last load.
    std::vector<uint8_t> loadedBitstream(int sensor) const;

    // Port D GPIO output levels (GPIO 0 to 2) as last written.
    std::array<bool, 3> gpioOutputs(int sensor) const;

    // State of one interface (port 0 to 3 for A to D).
    PortSettings portSettings(int sensor, int port) const;

    // Unplug: every call on the sensor's handles fails as on a real unplug and
    // its interfaces leave the device list. Plug: it is listed again; handles
    // from before stay dead, and the FPGA has lost its configuration.
    void unplug(int sensor);
    void plug(int sensor);
    bool isPlugged(int sensor) const;

    // The nth call (1 = the next) of the named C function fails with status.
    void failCall(const std::string& function, int nth, uint32_t status);
    // The nth call (1 = the next) of the named SPI transfer function moves
    // only `bytes` bytes and reports that count, without an error.
    void shortTransfer(const std::string& function, int nth, uint16_t bytes);
    // The nth call of the named SPI transfer function hangs until the port's
    // time-out (FT_SetTimeouts; 10 s when none is set) and then fails
    // (FAILED_TO_READ_DEVICE, or FAILED_TO_WRITE_DEVICE for a write only).
    void stickTransfer(const std::string& function, int nth);
    // The nth bridge call of any function (1 = the next) fails with status.
    void failCallNumber(uint64_t nth, uint32_t status);
    // The sensor is unplugged just before the nth bridge call (1 = the next).
    void unplugAtCall(int sensor, uint64_t nth);
    // FT_GetDeviceInfoDetail fails for this list index until cleared.
    void failDetail(int listIndex);
    void clearFaults();

    // The driver profile (the host system's by default, and after reset).
    void setDriverProfile(DriverProfile profile);
    DriverProfile driverProfile() const;
    // The vendor/product pair FT_SetVIDPID registered (vendor in the high 16
    // bits), 0 when none was. It stays registered for the process, through
    // resets and scenarios, as in the driver; setting 0 gives the driver of a
    // process that registered nothing yet.
    uint32_t registeredIds() const;
    void setRegisteredIds(uint32_t ids);
    // The driver hands each non-ASCII byte of its texts (descriptions and
    // serials) as '?', as the Linux driver is reported to do for serials.
    void setNonAsciiAsQuestionMark(bool on);
    // The machine's speed, for every sensor now and for those added later.
    void setTiming(Timing timing);
    Timing timing() const;
    // The sensor logic's delays (SensorConfig's readyDelayMs, armDelayMs,
    // imageLeadMs and readoutMs), 0 included. The start-up delay counts from
    // the sensor's last power-on or configuration.
    void setSensorDelays(
        int sensor, uint32_t readyDelayMs, uint32_t armDelayMs, uint32_t imageLeadMs, uint32_t readoutMs);
    // The FPGA's settling time after 0xC6 and 0x26, and the shortest
    // PROGRAMN pulse that restarts its configuration.
    void setFpgaDelays(int sensor, uint32_t settleUs, uint32_t programLowMinUs);

    // Wire time: quad SPI at 40 MHz over USB 2.0 (transfers take as long as
    // on the bus) when on; everything answers at once when off (default).
    void setLinkTiming(bool on);

    // Handles opened and not closed (on devices plugged or not).
    int openHandleCount() const;

    std::vector<TraceEntry> trace() const;
    // The trace entries of one function only.
    std::vector<TraceEntry> trace(const std::string& function) const;
    void clearTrace();
    // Bytes kept per trace entry and direction (longer data is cut); the
    // trace can be switched off for long runs.
    void setTraceDataLimit(size_t bytes);
    void setTraceEnabled(bool enabled);
    // Bridge calls since the last reset.
    uint64_t callCount() const;

    // Loads a scenario file (JSON, see docs/scenario.md), replacing the whole
    // machine. On error returns false, says why in *error (naming the file),
    // and changes nothing.
    bool loadScenario(const std::string& path, std::string* error);
    // The same from text; name is used in error messages.
    bool loadScenarioText(const std::string& text, const std::string& name, std::string* error);
};

} // namespace vbridge

// The controls below leave the library with the bridge's C functions; the
// library hides everything else.
#define VBRIDGE_EXPORT __attribute__((visibility("default")))

// C entry point for hosts that load the virtual bridge at run time.
// Returns 0 on success; otherwise writes the reason into error.
extern "C" VBRIDGE_EXPORT int vbridge_load_scenario(const char* path, char* error, unsigned long errorSize);

// Returns 1 and writes the reason into error when a flash image could not be
// saved (VirtualBridge::flashImageFailure), 0 when every image is up to date.
extern "C" VBRIDGE_EXPORT int vbridge_flash_image_failure(char* error, unsigned long errorSize);

// What the pictures of the sensor with board serial boardSerial (its flash's
// unique ID, 16 hexadecimal digits) show: returns 1 and writes the phantom's
// anatomy (phantom::kAnatomy) into text for a sensor showing the phantom, 0
// for a pattern, a file's pixels or no such sensor.
extern "C" VBRIDGE_EXPORT int vbridge_picture_anatomy(const char* boardSerial, char* text, unsigned long textSize);

// Ends a wait for a flash image that another process holds: the load that
// waits fails with "interrupted". Safe to call from a signal handler (it only
// sets a flag); a call while nothing waits makes the next wait end at once.
extern "C" VBRIDGE_EXPORT void vbridge_interrupt_wait(void);
