#include "sim/SensorLogic.h"

#include "sim/Noise.h"

#include <algorithm>
#include <cstring>
#include <thread>

#include "sim/FlashContent.h"
#include "sim/Phantom.h"
#include "sim/SpiWire.h"

namespace vbridge {

namespace {

constexpr uint8_t kClassControl = 0xA1;
constexpr uint8_t kClassData = 0xA0;
constexpr uint8_t kCodeStatus = 0x80;
constexpr uint8_t kCodeInside = 0x81;
constexpr uint8_t kCodeArm = 0x00;
constexpr uint8_t kCodeImageBlock = 0x80;
constexpr uint8_t kCodeOscilloscope = 0xE4;
constexpr uint8_t kFrameTail0 = 0xCA;
constexpr uint8_t kFrameTail1 = 0xFE;

constexpr uint8_t kInsideMarker = 0x73; // 's'
constexpr uint8_t kInsideMarkerBroken = 0x53; // 'S', as a damaged block shows it

constexpr uint8_t kLatticeReadId = 0xE0;
constexpr uint8_t kLatticeEnable = 0xC6;
constexpr uint8_t kLatticeBurst = 0x7A;
constexpr uint8_t kLatticeReadStatus = 0x3C;
constexpr uint8_t kLatticeDisable = 0x26;
// Status register (0x3C): DONE, ISC enabled, Busy, Fail, and the error code
// in bits 25-23.
constexpr uint32_t kLatticeDone = 0x100;
constexpr uint32_t kLatticeEnabled = 0x200;
constexpr uint32_t kLatticeBusy = 0x1000;
constexpr uint32_t kLatticeFail = 0x2000;
constexpr int kLatticeErrorShift = 23;

// What an FPGA without configuration puts on the bus: read as a status
// word it is flags 0x22, size 2, version 8, diode 0x88.
constexpr uint8_t kUnconfiguredPattern = 0x22;
// Port A reads zeros while nothing drives the data lines (the FPGA takes a
// bitstream burst without answering).
constexpr uint8_t kIdleBus = 0x00;

constexpr int kRampMs = 5;

void putBigEndian16(uint8_t* bytes, uint16_t value)
{
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

// Pixels as the image blocks send them: 16 bits each, high byte first.
std::vector<uint8_t> wireOrder(const std::vector<uint16_t>& pixels)
{
    std::vector<uint8_t> bytes(pixels.size() * 2);
    for (size_t i = 0; i < pixels.size(); ++i)
        putBigEndian16(&bytes[2 * i], pixels[i]);
    return bytes;
}

} // namespace

SensorLogic::SensorLogic(uint32_t seed)
    : seed_(seed)
{
}

int SensorLogic::width() const
{
    return sizeCode == 2 ? 1300 : 1000;
}

int SensorLogic::height() const
{
    return sizeCode == 2 ? 1706 : 1506;
}

void SensorLogic::configurationReset()
{
    configured = false;
    configMode_ = false;
    done_ = false;
    error_ = ConfigError::None;
    burst_ = false;
    phase_ = Phase::Idle;
    rendering_.reset();
}

void SensorLogic::setImageSizeCode(int code)
{
    imageSizeCodeOverride = code;
    ensureImage();
    imageCode_ = code >= 0 ? code : sizeCode;
    imageBytes_[0] = static_cast<uint8_t>((imageBytes_[0] & 0x3F) | (imageCode_ << 6));
}

void SensorLogic::trigger(const Exposure& exposure, Clock::time_point now)
{
    if (phase_ != Phase::Armed)
        return;
    pendingTrigger_ = true;
    pending_ = exposure;
    pendingAt_ = now;
}

// The ready flag is clear while the logic starts up after power-on or a
// configuration, and while it reads the pixel array out; the armed flag comes
// a while after the arm frame.
uint8_t SensorLogic::flags(Clock::time_point now) const
{
    uint8_t value = 0x40;
    switch (phase_) {
    case Phase::Idle:
        value = now < poweredAt_ + std::chrono::milliseconds(readyDelayMs) ? 0x00 : 0x40;
        break;
    case Phase::Armed:
        value = now < armedAt() ? 0x40 : 0x44;
        break;
    case Phase::Exposing:
        value = 0x45;
        break;
    case Phase::Integrated:
        value = 0x06;
        break;
    case Phase::ImageReady:
        value = 0x48;
        break;
    }
    if (off)
        value |= 0x10;
    if (linkLost)
        value |= 0x20;
    return value;
}

SensorLogic::Clock::time_point SensorLogic::armedAt() const
{
    return armTime_ + std::chrono::milliseconds(armDelayMs);
}

void SensorLogic::powerOn(Clock::time_point now)
{
    poweredAt_ = now;
}

void SensorLogic::startExposure(Clock::time_point start, uint32_t durationMs, uint16_t level)
{
    phase_ = Phase::Exposing;
    exposureStart_ = start;
    exposureMs_ = durationMs;
    exposureEnd_ = start + std::chrono::milliseconds(durationMs);
    exposureLevel_ = level;
    ++exposures;

    // One photodiode sample a millisecond, ramping up and down at the edges.
    samples_.clear();
    samplesRead_ = 0;
    for (uint32_t ms = 0; ms < durationMs; ++ms) {
        const int edge = static_cast<int>(std::min<uint32_t>(ms, durationMs - 1 - ms));
        int value = level;
        if (edge < kRampMs)
            value = kDarkLevel + (level - kDarkLevel) * (edge + 1) / (kRampMs + 1);
        value += static_cast<int>(mix(seed_ + ms * 31 + exposures) % 5) - 2;
        samples_.push_back(static_cast<uint16_t>(std::clamp(value, 0x100, 0x3FF)));
    }
    lastOscilloscope = samples_;
    startRendering();
}

// Everything the picture depends on is known when the exposure starts: it is
// rendered from then on, away from the bridge's lock.
void SensorLogic::startRendering()
{
    auto rendering = std::make_shared<Rendering>();
    rendering_ = rendering;
    std::thread([rendering, source = imageSource, width = width(), height = height(),
                    dose = exposureDose(exposureLevel_, exposureMs_), seed = seed_,
                    shot = static_cast<uint32_t>(exposures)] {
        std::vector<uint8_t> bytes = wireOrder(renderSensorImage(source, width, height, dose, seed, shot));
        std::lock_guard<std::mutex> lock(rendering->mutex);
        rendering->bytes = std::move(bytes);
        rendering->done = true;
        rendering->finished.notify_all();
    }).detach();
}

bool SensorLogic::rendered() const
{
    if (!rendering_)
        return true;
    std::lock_guard<std::mutex> lock(rendering_->mutex);
    return rendering_->done;
}

void SensorLogic::Rendering::wait()
{
    std::unique_lock<std::mutex> lock(mutex);
    finished.wait(lock, [this] { return done; });
}

SensorLogic::Clock::time_point SensorLogic::imageComplete() const
{
    return exposureEnd_ + std::chrono::milliseconds(readoutMs);
}

std::shared_ptr<SensorLogic::Rendering> SensorLogic::pictureToWaitFor(const uint8_t* out, size_t count)
{
    const bool heldFrame = frame_.size() == 4 && target_ == Target::Logic;
    const uint8_t* frame = heldFrame ? frame_.data() : out;
    if (!frame || (!heldFrame && count < 2) || frame[0] != kClassData || frame[1] < kCodeImageBlock
        || frame[1] == kCodeOscilloscope)
        return nullptr;
    return pictureDue();
}

std::shared_ptr<SensorLogic::Rendering> SensorLogic::pictureDue()
{
    const Clock::time_point now = Clock::now();
    update(now);
    if (phase_ != Phase::ImageReady || !imageBytes_.empty() || now < imageComplete() || rendered())
        return nullptr;
    return rendering_;
}

void SensorLogic::settleImage()
{
    if (const auto rendering = pictureDue())
        rendering->wait();
    update(Clock::now());
}

void SensorLogic::update(Clock::time_point now)
{
    if (!configured)
        return;
    if (phase_ == Phase::Armed && now >= armedAt()) {
        const auto armed = armedAt();
        if (pendingTrigger_) {
            pendingTrigger_ = false;
            // What came before the armed flag is lost.
            const auto start = std::max(armed, pendingAt_);
            const auto end = pendingAt_ + std::chrono::milliseconds(pending_.durationMs);
            if (pending_.doseRate > arm.threshold && end > start)
                startExposure(start,
                    static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count()),
                    pending_.doseRate);
        } else if (arm.threshold < kDarkLevel) {
            startExposure(armed, kDummyIntegrationMs, kDarkLevel);
        } else if (autoExposure) {
            const auto beam = std::max(
                armed, armTime_ + std::chrono::milliseconds(std::max(exposure.delayMs, exposureFloorMs)));
            if (now >= beam && exposure.doseRate > arm.threshold)
                startExposure(beam, exposure.durationMs, exposure.doseRate);
        }
    }
    if (phase_ == Phase::Exposing && now >= exposureEnd_)
        phase_ = Phase::Integrated;
    // The image-ready value may be up before the last image data are in.
    // The picture comes from its rendering thread; an image-block read that
    // comes before it is done waits for it (pictureToWaitFor).
    const auto complete = imageComplete();
    const auto announced = complete - std::chrono::milliseconds(std::min(imageLeadMs, readoutMs));
    if (phase_ == Phase::Integrated && now >= announced)
        phase_ = Phase::ImageReady;
    if (phase_ == Phase::ImageReady && imageBytes_.empty() && now >= complete && rendered()) {
        if (!rendering_) {
            finishImage();
            return;
        }
        std::vector<uint8_t> bytes;
        {
            std::lock_guard<std::mutex> lock(rendering_->mutex);
            bytes.swap(rendering_->bytes);
        }
        rendering_.reset();
        installImage(std::move(bytes));
    }
}

void SensorLogic::ensureImage()
{
    if (imageBytes_.empty()) {
        const uint16_t level = exposureLevel_;
        const uint32_t ms = exposureMs_;
        exposureLevel_ = kDarkLevel;
        exposureMs_ = 0;
        finishImage();
        exposureLevel_ = level;
        exposureMs_ = ms;
    }
}

// The picture of the exposure just integrated (sim/Phantom.h), in wire
// order, with the size code in the top bits of the first pixel.
void SensorLogic::finishImage()
{
    installImage(wireOrder(renderSensorImage(imageSource, width(), height(),
        exposureDose(exposureLevel_, exposureMs_), seed_, static_cast<uint32_t>(exposures))));
}

void SensorLogic::installImage(std::vector<uint8_t> bytes)
{
    imageWidth_ = width();
    imageHeight_ = height();
    imageCode_ = imageSizeCodeOverride >= 0 ? imageSizeCodeOverride : sizeCode;
    imageBytes_ = std::move(bytes);
    imageBytes_[0] = static_cast<uint8_t>((imageBytes_[0] & 0x3F) | (imageCode_ << 6));
}

std::vector<uint16_t> SensorLogic::image() const
{
    std::vector<uint16_t> pixels(imageBytes_.size() / 2);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<uint16_t>((imageBytes_[2 * i] << 8) | imageBytes_[2 * i + 1]);
    return pixels;
}

std::array<uint8_t, kStatusWordSize> encodeStatusWord(const StatusWord& word)
{
    const uint16_t diode = word.diode & 0x3FF;
    return { { word.flags, static_cast<uint8_t>(diode >> 2),
        static_cast<uint8_t>(((diode & 3) << 6) | ((word.version & 0x0F) << 2) | (word.sizeCode & 3)) } };
}

std::array<uint8_t, kInsideBlockSize> encodeInsideBlock(const GeneratorSettings& generator)
{
    std::array<uint8_t, kInsideBlockSize> block {};
    block[0] = generator.markerOk ? kInsideMarker : kInsideMarkerBroken;
    block[1] = generator.kV;
    block[2] = generator.mA;
    putBigEndian16(&block[3], generator.timeSet);
    putBigEndian16(&block[5], generator.timeDone);
    putBigEndian16(&block[8], generator.dap);
    block[10] = generator.cone;
    putBigEndian16(&block[11], generator.airDose);
    block[13] = generator.cutMethod;
    block[14] = generator.mode;
    // Byte 15 is not covered by the checksum; the logic leaves a pattern there.
    block[15] = 0x5A;
    unsigned sum = 0;
    for (int i = 1; i <= 14; ++i)
        sum += block[i];
    block[16] = static_cast<uint8_t>(sum + (generator.checksumOk ? 0 : 1));
    return block;
}

std::vector<uint8_t> SensorLogic::statusAnswer()
{
    StatusWord word;
    if (!queued.empty()) {
        word = queued.front();
        queued.pop_front();
    } else if (forcedStatus) {
        word = forced;
    } else {
        word.flags = flags(Clock::now());
        word.diode = phase_ == Phase::Exposing ? exposureLevel_ : kDarkLevel;
        word.version = version;
        word.sizeCode = sizeCode;
    }
    const auto bytes = encodeStatusWord(word);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::vector<uint8_t> SensorLogic::insideAnswer() const
{
    const auto block = encodeInsideBlock(generator);
    return std::vector<uint8_t>(block.begin(), block.end());
}

// The samples not read yet, then an 0xFFFF end mark; the rest reads zero.
std::vector<uint8_t> SensorLogic::oscilloscopeAnswer(Clock::time_point now)
{
    size_t available = samples_.size();
    if (phase_ == Phase::Exposing) {
        const auto elapsed
            = std::chrono::duration_cast<std::chrono::milliseconds>(now - exposureStart_).count();
        available = std::min<size_t>(samples_.size(), static_cast<size_t>(std::max<int64_t>(0, elapsed)));
    }
    std::vector<uint8_t> answer;
    for (size_t i = samplesRead_; i < available; ++i) {
        answer.push_back(static_cast<uint8_t>(samples_[i] >> 8));
        answer.push_back(static_cast<uint8_t>(samples_[i]));
    }
    samplesRead_ = std::max(samplesRead_, available);
    answer.push_back(0xFF);
    answer.push_back(0xFF);
    return answer;
}

void SensorLogic::select()
{
    target_ = Target::None;
    frame_.clear();
    parameters_.clear();
    answer_ = nullptr;
    answerSize_ = 0;
    answerClock_ = 0;
    answerFill_ = 0;
    answerLines_ = Lines::Quad;
}

void SensorLogic::decodeLogicFrame()
{
    // The logic drives its answers on all four data lines.
    target_ = Target::Logic;
    answerLines_ = Lines::Quad;
    const Clock::time_point now = Clock::now();
    update(now);
    if (!configured) {
        answerFill_ = kUnconfiguredPattern;
        return;
    }
    if (frame_[2] != kFrameTail0 || frame_[3] != kFrameTail1)
        return;
    if (frame_[0] == kClassControl && frame_[1] == kCodeStatus) {
        answerStore_ = statusAnswer();
    } else if (frame_[0] == kClassControl && frame_[1] == kCodeInside) {
        answerStore_ = insideAnswer();
    } else if (frame_[0] == kClassData && frame_[1] == kCodeOscilloscope) {
        answerStore_ = oscilloscopeAnswer(now);
    } else if (frame_[0] == kClassData && frame_[1] >= kCodeImageBlock) {
        // No image yet: the blocks read zeros, size code 0 included.
        const size_t offset = static_cast<size_t>(frame_[1] - kCodeImageBlock) * kBlockSize;
        if (offset < imageBytes_.size()) {
            answer_ = imageBytes_.data() + offset;
            answerSize_ = imageBytes_.size() - offset;
        }
        return;
    } else {
        return;
    }
    answer_ = answerStore_.data();
    answerSize_ = answerStore_.size();
}

void SensorLogic::decodeConfigFrame()
{
    target_ = Target::Config;
    answerFill_ = 0xFF;
    const Clock::time_point now = Clock::now();
    // The configuration port is a plain SPI slave: it answers on one line.
    answerLines_ = Lines::Single;
    const bool busy = now < configBusyUntil_;
    // Still settling after entering or leaving configuration: the port takes
    // nothing but a status read, which shows it busy and not done.
    if (busy && frame_[0] != kLatticeReadStatus)
        return;
    switch (frame_[0]) {
    case kLatticeReadId:
        answerStore_ = { static_cast<uint8_t>(fpgaDeviceId >> 24), static_cast<uint8_t>(fpgaDeviceId >> 16),
            static_cast<uint8_t>(fpgaDeviceId >> 8), static_cast<uint8_t>(fpgaDeviceId) };
        break;
    case kLatticeReadStatus: {
        const uint32_t status = (done_ && !busy ? kLatticeDone : 0) | (configMode_ ? kLatticeEnabled : 0)
            | (busy ? kLatticeBusy : 0) | (error_ != ConfigError::None ? kLatticeFail : 0)
            | (static_cast<uint32_t>(error_) << kLatticeErrorShift);
        answerStore_ = { static_cast<uint8_t>(status >> 24), static_cast<uint8_t>(status >> 16),
            static_cast<uint8_t>(status >> 8), static_cast<uint8_t>(status) };
        break;
    }
    case kLatticeEnable:
        // The user logic stops while the device is in configuration mode.
        configMode_ = true;
        configured = false;
        phase_ = Phase::Idle;
        configBusyUntil_ = now + std::chrono::microseconds(configSettleUs);
        return;
    case kLatticeBurst:
        if (configMode_) {
            burst_ = true;
            done_ = false;
            error_ = ConfigError::None;
            burstData_.clear();
            burstTotal_ = 0;
        }
        return;
    case kLatticeDisable:
        if (configMode_) {
            configMode_ = false;
            configBusyUntil_ = now + std::chrono::microseconds(configSettleUs);
            if (done_) {
                configured = true;
                phase_ = Phase::Idle;
                powerOn(Clock::now());
            }
        }
        return;
    default:
        return;
    }
    answer_ = answerStore_.data();
    answerSize_ = answerStore_.size();
}

// Takes bitstream bytes until the bitstream is complete (its length is in its
// own frame); bytes after it are commands again.
size_t SensorLogic::feedBurst(const uint8_t* data, size_t count)
{
    // A header longer than this never came from the tools: the rest of the
    // burst is taken as data until the chip select rises.
    constexpr size_t kLongestHeader = 4096;
    size_t used = 0;
    while (used < count && burst_ && burstTotal_ == 0) {
        burstData_.push_back(data ? data[used] : 0xFF);
        ++used;
        if (burstData_.size() <= kLongestHeader)
            burstTotal_ = bitstreamTotalSize(burstData_.data(), burstData_.size());
    }
    if (burstTotal_ == 0) {
        burstData_.insert(burstData_.end(), data ? data + used : nullptr, data ? data + count : nullptr);
        if (!data)
            burstData_.resize(burstData_.size() + (count - used), 0xFF);
        return count;
    }
    const size_t take = std::min(count - used, burstTotal_ - std::min(burstTotal_, burstData_.size()));
    if (data)
        burstData_.insert(burstData_.end(), data + used, data + used + take);
    else
        burstData_.resize(burstData_.size() + take, 0xFF);
    used += take;
    if (burstData_.size() >= burstTotal_) {
        burst_ = false;
        // A bitstream for another device, or one that fails its check, is
        // refused: DONE stays clear and the status says why.
        if (!bitstreamIntact(burstData_))
            error_ = ConfigError::Crc;
        else if (bitstreamDeviceId(burstData_) != fpgaDeviceId)
            error_ = ConfigError::Id;
        done_ = error_ == ConfigError::None;
        loadedBitstream = burstData_;
    }
    return used;
}

void SensorLogic::exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines)
{
    size_t i = 0;
    while (i < count) {
        if (burst_) {
            const size_t used = feedBurst(out ? out + i : nullptr, count - i);
            if (in)
                std::fill(in + i, in + i + used, kIdleBus);
            i += used;
            if (!burst_) {
                frame_.clear();
                target_ = Target::None;
            }
            continue;
        }
        if (frame_.size() < 4) {
            // Frames are taken on one line; on more the bits are not the
            // ones the master meant.
            frame_.push_back(lines == Lines::Single && out ? out[i] : 0xFF);
            if (in)
                in[i] = configured ? 0x00 : kUnconfiguredPattern;
            ++i;
            if (frame_.size() == 4) {
                const bool lattice = frame_[1] == 0 && frame_[2] == 0 && frame_[3] == 0
                    && (frame_[0] == kLatticeReadId || frame_[0] == kLatticeEnable
                        || frame_[0] == kLatticeBurst || frame_[0] == kLatticeReadStatus
                        || frame_[0] == kLatticeDisable);
                if (lattice)
                    decodeConfigFrame();
                else
                    decodeLogicFrame();
                // The next frame of a held chip select starts a new command.
                if (target_ == Target::Config && frame_[0] != kLatticeReadId
                    && frame_[0] != kLatticeReadStatus && !burst_)
                    frame_.clear();
            }
            continue;
        }
        if (target_ == Target::Logic && configured && frame_[0] == kClassControl && frame_[1] == kCodeArm) {
            if (parameters_.size() < 5) {
                parameters_.push_back(out ? out[i] : 0xFF);
                parameterLines_ = lines;
                if (in)
                    in[i] = 0;
                ++i;
                // Taken only on four lines, in the ready state, and with the
                // acquisition nibble 4 or 5 (5: with oscilloscope).
                const int mode = parameters_.empty() ? 0 : parameters_[0] >> 4;
                if (parameters_.size() == 5 && parameterLines_ == Lines::Quad && (mode == 4 || mode == 5)
                    && (flags(Clock::now()) & 0x40)) {
                    arm.count++;
                    arm.threshold = ((parameters_[0] & 0x0F) << 8) | parameters_[1];
                    arm.oscilloscope = (parameters_[0] & 0xF0) == 0x50;
                    arm.ace
                        = (uint32_t(parameters_[2]) << 16) | (uint32_t(parameters_[3]) << 8) | parameters_[4];
                    phase_ = Phase::Armed;
                    armTime_ = Clock::now();
                    // A new acquisition: the last image is gone.
                    imageBytes_.clear();
                    rendering_.reset();
                    samples_.clear();
                    samplesRead_ = 0;
                }
                continue;
            }
        }
        // Answer bytes; the master's bytes in this phase are not looked at.
        // Read on other lines than the ones the answer is driven on, the
        // master samples bits of the answer that do not make its bytes.
        const size_t n = count - i;
        const int clocksPerByte = wire::clocksPerByte(answerLines_);
        if (lines == answerLines_ && answerClock_ % static_cast<uint64_t>(clocksPerByte) == 0) {
            const size_t position = static_cast<size_t>(answerClock_ / static_cast<uint64_t>(clocksPerByte));
            if (in) {
                const size_t fromAnswer = position < answerSize_ ? std::min(n, answerSize_ - position) : 0;
                if (fromAnswer)
                    std::memcpy(in + i, answer_ + position, fromAnswer);
                std::fill(in + i + fromAnswer, in + count, answerFill_);
            }
            answerClock_ += static_cast<uint64_t>(n) * static_cast<uint64_t>(clocksPerByte);
        } else {
            const auto byteAt = [this](size_t k) { return k < answerSize_ ? answer_[k] : answerFill_; };
            wire::readAcross(byteAt, answerLines_, lines, answerClock_, in ? in + i : nullptr, n);
        }
        i = count;
    }
}

void SensorLogic::deselect()
{
    if (burst_) {
        // The chip select rose in the middle of the bitstream.
        burst_ = false;
        done_ = false;
        error_ = ConfigError::Abort;
        loadedBitstream = burstData_;
    }
    frame_.clear();
}

} // namespace vbridge
