// Configuring the sensor's FPGA: it loses its configuration with power, so
// the plug-in checks it and, when needed, sends the newer of the bitstream
// kept in the sensor's flash and the one shipped beside the application.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include "fpga/Bitstream.h"
#include "transport/SensorProtocol.h"

using namespace korux;

namespace {

constexpr unsigned int kBitstreamFlashAddress = 0xF00000;
constexpr uint8 kLatticeReadId = 0xE0;
constexpr uint8 kLatticeEnableConfig = 0xC6;
constexpr uint8 kLatticeReadStatus = 0x3C;
constexpr uint8 kLatticeDisableConfig = 0x26;
constexpr uint32_t kLatticeStatusDone = 0x100;
constexpr uint32_t kFpgaId4300E = 0x412B4043;
constexpr uint32_t kFpgaId2100E = 0x412B3043;

constexpr int kGpioConfigReset = 2;
constexpr unsigned long kResetLowMs = 10;
constexpr unsigned long kResetSettleMs = 50;
constexpr unsigned long kAfterConfigUs = 400;
constexpr unsigned long kAfterDisableUs = 500;

// Shared by every unit: a failed programming is tried once more, not once
// per unit.
bool fpgaRetried = false;

// Every way out of a programming run, the early ones included, ends the
// retry it may have been: one failed retry must not take the retry away
// from the next update of any unit. Only the run that starts the retry
// sets the flag again, for the time of the retry.
struct RetryRunEnd {
    ~RetryRunEnd() { fpgaRetried = false; }
};

}  // namespace

// The default is the flash's copy; the application's bitstream is taken when
// its header matches and its date is later.
QString QVeltraXRayKORUXPlugInUnit::chooseBitstream()
{
    const QString flashCopy = BTSFileName();
    const QDir directory(applicationBitstreamDirectory(QCoreApplication::applicationDirPath()));
    const QFileInfo application(
        directory.filePath(applicationBitstreamName(QString::fromLatin1(portInfo[0].SerialNumber))));
    if (!application.exists()) {
        logUser(QStringLiteral("NIVO bitstream doesn't exist : %1").arg(application.absoluteFilePath()));
        return flashCopy;
    }
    logUser(QStringLiteral("We have an NIVO bitstream"));

    const QByteArray flashHeader = readBitstreamHeader(flashCopy);
    const QByteArray applicationHeader = readBitstreamHeader(application.absoluteFilePath());
    const auto flashFirst = static_cast<uint8_t>(flashHeader[0]);
    const auto applicationFirst = static_cast<uint8_t>(applicationHeader[0]);
    if (flashFirst != kBitstreamFirstByte || applicationFirst != kBitstreamFirstByte) {
        logUser(QStringLiteral("The NIVO bitstream doesn't start with xFF (%1)!")
                    .arg(static_cast<int>(static_cast<signed char>(applicationHeader[0])), 16));
        logUser(QStringLiteral("The flash bitstream doesn't start with xFF (%1)!")
                    .arg(static_cast<int>(static_cast<signed char>(flashHeader[0])), 16));
        return flashCopy;
    }

    const QStringList flashTexts = bitstreamTexts(flashHeader);
    const QStringList applicationTexts = bitstreamTexts(applicationHeader);
    if (flashTexts[0].compare(applicationTexts[0], Qt::CaseInsensitive) != 0) {
        logUser(QStringLiteral("Lattice strings are different : %1 vs %2").arg(flashTexts[0], applicationTexts[0]));
        return flashCopy;
    }
    logUser(QStringLiteral("The two bitstreams start with: %1").arg(flashTexts[0]));
    // Texts 3 and 4 are both logged as the design, deliberately.
    const char* const labels[] = {nullptr, "version", "status", "design", "design", "parts", "date"};
    for (int i = 1; i < kBitstreamTexts; ++i) {
        logUser(QStringLiteral("The flash bitstream %1 is: %2").arg(QLatin1String(labels[i]), flashTexts[i]));
        logUser(QStringLiteral("The NIVO bitstream %1 is: %2").arg(QLatin1String(labels[i]), applicationTexts[i]));
    }

    const QDateTime flashDate = bitstreamDate(flashTexts[6]);
    const QDateTime applicationDate = bitstreamDate(applicationTexts[6]);
    logUser(QStringLiteral("The flash bitstream date read is: %1").arg(flashDate.toString(Qt::TextDate)));
    logUser(QStringLiteral("The NIVO bitstream date read is: %1").arg(applicationDate.toString(Qt::TextDate)));
    if (flashDate < applicationDate) {
        logUser(QStringLiteral("The NIVO bitstream is more recent than flash bitstream!"));
        return application.absoluteFilePath();
    }
    return flashCopy;
}

bool QVeltraXRayKORUXPlugInUnit::flashFPGA(QString fileName)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("flashKorux3FPGA with %1").arg(fileName));
    const RetryRunEnd runEnd;
    QString scratch;
    readSerialNumber(scratch);
    readFlashFile(BTSFileName(), kBitstreamFlashAddress, false, false);
    reset(false);
    if (!openPorts())
        return false;

    uint8 flags = 0, size = 0, version = 0;
    uint16 diode = 0;
    if (getStatus(&flags, &size, &version, &diode)) {
        logTrace(QStringLiteral("flashKorux3FPGA status is %1 %2 %3 %4")
                     .arg(QString::number(flags), QString::number(size), QString::number(version),
                         QString::number(diode)));
        const bool unconfigured = isUnconfiguredFpga(flags, size, version, diode);
        if (!unconfigured) {
            logUser(QStringLiteral("The FPGA is already flashed"));
            return true;
        }
    }

    // A low pulse on GPIO 2 resets the FPGA's configuration logic.
    FT4222_STATUS status = FT4222_GPIO_Write(theHandleD(), static_cast<GPIO_Port>(kGpioConfigReset), 0);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to write first GPIO port D2 %1").arg(ft4222StatusToString(status)));
    Sleep_ms(kResetLowMs);
    status = FT4222_GPIO_Write(theHandleD(), static_cast<GPIO_Port>(kGpioConfigReset), 1);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to write second GPIO port D2 %1").arg(ft4222StatusToString(status)));
    Sleep_ms(kResetSettleMs);

    if (!initPortA(true)) {
        logUser(QStringLiteral("[red]Unable to initialize Port A!"));
        setStatus(statusError);
        return false;
    }
    logUser(QStringLiteral("Port A initialized."));
    bool solo = true;
    if (!initPortD(&solo)) {
        logUser(QStringLiteral("[red]Unable to initialize Port D!"));
        setStatus(statusError);
        return false;
    }
    logUser(QStringLiteral("Port D initialized."));
    if (QVeltraGenerator* owner = generator()) {
        owner->isInside = !solo;
        emit owner->isInsideChanged(owner->isInside);
    }

    unsigned int id = 0;
    if (!latticeSysConfigSendClassA(kLatticeReadId, id)) {
        logUser(QStringLiteral("[red]Unable to send config class A!"));
        id = 0;
    }
    const QString idText = QString::number(id, 16);
    if (id == kFpgaId4300E)
        logUser(QStringLiteral("FPGA ID %1 - 4300E").arg(idText));
    else if (id == kFpgaId2100E)
        logUser(QStringLiteral("FPGA ID %1 - 2100E").arg(idText));
    else
        logUser(QStringLiteral("[red]Unknown FPGA ID %1!").arg(idText));

    if (!initPortA(true)) {
        logUser(QStringLiteral("[red]Unable to initialize Port A!"));
        setStatus(statusError);
        return false;
    }
    if (!latticeSysConfigSend(kLatticeEnableConfig, true)) {
        logUser(QStringLiteral("[red]Unable to enter programmation mode!"));
        setStatus(statusError);
        return false;
    }
    Sleep_us(kAfterConfigUs);
    logUser(QStringLiteral("flashKorux3FPGA LatticeConfigSend OK."));

    const QString path = chooseBitstream();
    logUser(QStringLiteral("Use bitstream %1").arg(path));
    if (!sendBitStream(path)) {
        logUser(QStringLiteral("[red]Unable to program the FPGA!"));
        setStatus(statusError);
        return false;
    }

    logUser(QStringLiteral("Program sent to FPGA!"));
    Sleep_us(kAfterConfigUs);
    unsigned int configStatus = 0;
    if (!latticeSysConfigSendClassA(kLatticeReadStatus, configStatus)) {
        logUser(QStringLiteral("[red]Unable to send config class A!"));
        setStatus(statusError);
        return false;
    }
    latticeSysConfigSend(kLatticeDisableConfig, true);
    Sleep_us(kAfterDisableUs);
    closePorts();

    if (configStatus & kLatticeStatusDone) {
        logUser(QStringLiteral("[green]KORUX3 is now flashed!"));
        return true;
    }
    if (!fpgaRetried) {
        fpgaRetried = true;
        return flashFPGA(fileName);
    }
    logUser(QStringLiteral("[red]Unexpected status %1!").arg(configStatus, 0, 16));
    return false;
}
