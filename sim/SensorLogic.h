// Port A of a virtual sensor: the sensor logic in its FPGA (status word,
// arming, the photodiode and the exposure, image blocks, oscilloscope, the
// generator block of an "Inside" sensor), and the FPGA's configuration port,
// which answers Lattice opcodes and comes alive only on a good bitstream.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/SpiDevice.h"
#include "sim/VirtualBridge.h"

namespace vbridge {

constexpr size_t kStatusWordSize = 3;
constexpr size_t kInsideBlockSize = 17;

// Status word: flags; diode bits 9-2; diode bits 1-0, version, size code.
std::array<uint8_t, kStatusWordSize> encodeStatusWord(const StatusWord& word);
// Inside block: marker 's', the generator's settings (16-bit fields
// big-endian), and the sum of bytes 1 to 14 in byte 16.
std::array<uint8_t, kInsideBlockSize> encodeInsideBlock(const GeneratorSettings& generator);

class SensorLogic : public SpiDevice {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kDarkLevel = 428;
    // A threshold under the dark level (a stop arms with 400) is crossed by
    // the dark signal itself: the exposure starts with the armed flag and
    // the logic integrates for this long before it reads out a dark image.
    // Our figure, on the safe side of a stop's polling: the armed flag is
    // looked for every 250 ms and the first poll follows 100 ms later, so
    // the integration must still be seen then.
    static constexpr uint32_t kDummyIntegrationMs = 600;
    static constexpr uint32_t kBlockSize = 0xFF80;

    explicit SensorLogic(uint32_t seed);

    void select() override;
    void exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines) override;
    void deselect() override;

    // Configuration.
    uint8_t version = 2;
    uint8_t sizeCode = 1;
    GeneratorSettings generator;
    bool autoExposure = true;
    Exposure exposure;
    uint32_t readoutMs = 300;
    ImageSource imageSource;
    // Phases: the ready flag stays clear this long after power-on and after
    // a configuration; the armed flag comes this long after the arm frame;
    // the image-ready value comes this long before the image data are in.
    uint32_t readyDelayMs = 0;
    uint32_t armDelayMs = 0;
    uint32_t imageLeadMs = 0;
    // No automatic exposure starts sooner than this after the arm frame.
    uint32_t exposureFloorMs = 0;
    // The configuration port takes no command this long after 0xC6 (enter
    // configuration) and 0x26 (leave it); PROGRAMN must stay low this long
    // to restart the configuration.
    uint32_t configSettleUs = 0;
    uint32_t programLowMinUs = 0;
    void powerOn(Clock::time_point now);
    bool off = false;
    bool linkLost = false;
    int imageSizeCodeOverride = -1;
    bool forcedStatus = false;
    StatusWord forced;
    std::deque<StatusWord> queued;
    uint32_t fpgaDeviceId = 0x412B4043;

    // FPGA configuration state.
    bool configured = true;
    void configurationReset(); // PROGRAMN pulse or power cycle
    std::vector<uint8_t> loadedBitstream;

    // X-rays reach the sensor at `now` for the exposure's duration. A sensor
    // that has taken an arm frame integrates what comes after its armed
    // flag; one that has not sees nothing.
    void trigger(const Exposure& exposure, Clock::time_point now);
    // Size code written into images from now on, and into the one held.
    void setImageSizeCode(int code);
    // Holds a dark image unless an image is there already.
    void holdDarkImage() { ensureImage(); }

    // A picture rendered on a thread of its own while the exposure and the
    // read-out run, so that no bridge call holds the bridge while it renders.
    struct Rendering {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
        std::vector<uint8_t> bytes; // in wire order
        void wait();
    };
    // The picture an image-block read (the frame of `out`, or the frame the
    // held chip select carries) must wait for: its read-out is over but it
    // is still rendering. The caller waits for it away from the bridge's
    // lock; null when nothing is to be waited for. Status and other reads
    // never wait.
    std::shared_ptr<Rendering> pictureToWaitFor(const uint8_t* out, size_t count);
    // The image as complete as the clock says, waiting for its picture if
    // need be (for the control API).
    void settleImage();

    ArmRecord arm;
    int exposures = 0;
    std::vector<uint16_t> lastOscilloscope;
    std::vector<uint16_t> image() const;
    int width() const;
    int height() const;

private:
    enum class Phase { Idle, Armed, Exposing, Integrated, ImageReady };
    enum class Target { None, Logic, Config };

    void update(Clock::time_point now);
    Clock::time_point imageComplete() const;
    std::shared_ptr<Rendering> pictureDue();
    void startExposure(Clock::time_point now, uint32_t durationMs, uint16_t level);
    void startRendering();
    // The picture of the exposure is rendered (or none is on its way).
    bool rendered() const;
    void finishImage();
    void installImage(std::vector<uint8_t> bytes);
    void decodeLogicFrame();
    void decodeConfigFrame();
    uint8_t flags(Clock::time_point now) const;
    Clock::time_point armedAt() const;
    std::vector<uint8_t> statusAnswer();
    std::vector<uint8_t> insideAnswer() const;
    std::vector<uint8_t> oscilloscopeAnswer(Clock::time_point now);
    size_t feedBurst(const uint8_t* data, size_t count);
    void ensureImage();

    uint32_t seed_;
    Phase phase_ = Phase::Idle;
    Clock::time_point armTime_ {};
    Clock::time_point poweredAt_ {};
    Clock::time_point exposureStart_ {};
    Clock::time_point exposureEnd_ {};
    uint32_t exposureMs_ = 0;
    uint16_t exposureLevel_ = kDarkLevel;
    bool pendingTrigger_ = false;
    Exposure pending_;
    Clock::time_point pendingAt_ {};

    std::shared_ptr<Rendering> rendering_;

    // Image in wire order (big-endian pixels) and its size code.
    std::vector<uint8_t> imageBytes_;
    int imageWidth_ = 0;
    int imageHeight_ = 0;
    int imageCode_ = 0;

    // Samples recorded during the exposure, and how many were read.
    std::vector<uint16_t> samples_;
    size_t samplesRead_ = 0;

    // One transaction.
    Target target_ = Target::None;
    std::vector<uint8_t> frame_;
    std::vector<uint8_t> parameters_;
    Lines parameterLines_ = Lines::Single;
    const uint8_t* answer_ = nullptr;
    size_t answerSize_ = 0;
    uint64_t answerClock_ = 0; // clocks of the answer so far
    Lines answerLines_ = Lines::Quad;
    std::vector<uint8_t> answerStore_;
    uint8_t answerFill_ = 0;

    // Configuration port.
    // Error codes of the status register.
    enum class ConfigError : uint32_t { None = 0, Id = 1, Crc = 3, Abort = 5 };
    Clock::time_point configBusyUntil_ {};
    bool configMode_ = false;
    bool done_ = false;
    ConfigError error_ = ConfigError::None;
    bool burst_ = false;
    std::vector<uint8_t> burstData_;
    size_t burstTotal_ = 0;
};

} // namespace vbridge
