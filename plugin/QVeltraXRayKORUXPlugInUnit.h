// One sensor: one FT4222 bridge with its four ports A (sensor logic), B (ADC),
// C (configuration flash) and D (GPIO). Every hardware operation of the
// plug-in is a member of this class; the bodies live in the folder of their
// subsystem (transport/, acquisition/, flash/, fpga/).
#pragma once

#include <QSize>
#include <QString>

#include "host/VeltraXRayHardware.h"
#include "plugin/JsonReport.h"
#include "transport/BridgeApi.h"

class QVeltraXRayKORUXPlugInUnit : public QVeltraHardwareUnit {
    Q_OBJECT

public:
    explicit QVeltraXRayKORUXPlugInUnit(QObject* parent);
    ~QVeltraXRayKORUXPlugInUnit() override;

    bool initializeVeltraHardware() override;
    QSize BINImageSize() override;
    QSize imageSize() override;
    QSize RAWImageSize() override;
    int imageBitPerPixel() override;
    int RAWBitPerPixel() override;
    QSize imageResolution() override;

    void setInfoNode(int port, FT_DEVICE_LIST_INFO_NODE* record);

    // Port management.
    bool openPorts();
    bool closePorts();
    void cleanClose(FT_HANDLE& handle);
    bool initPortA(bool prog_mode);
    bool initPortB();
    bool initPortC(bool prog_mode);
    bool initPortD(bool* solo);

    // SPI primitives.
    bool FT4222_SPI_MRW(uint8* readBuffer, uint8* command, uint16 readLength, uint32* bytesRead);
    bool FT4222_SPI_SRW(uint8* readBuffer, uint8* command, uint16 readLength, uint16* bytesRead);
    bool SPI_SetModeQuad(bool quad);
    bool SPI_SetWriteMode();
    static QString ft4222StatusToString(FT4222_STATUS status);
    static QString ftStatusToString(uint32 status);

    // Sensor status and control.
    bool getStatus(uint8* status, uint8* size, uint8* version, uint16* diode);
    bool getPyrelStatus();
    bool reset(bool prog_mode);

    // Sensor flash.
    bool formatFlash();
    bool readFlashFile(QString fileName, unsigned int address, bool checkOnly, bool overwrite);
    bool readPRDFile(bool overwrite);
    bool readASSFile(bool overwrite);
    bool readFFCFile(bool overwrite);
    bool readBLKFile(bool overwrite);
    bool readDPLFile(bool overwrite);
    bool readBTSFile(bool overwrite);
    bool technicReadFlashPage(unsigned int address);
    QString PRDFileName();
    QString ASSFileName();
    QString FFCFileName();
    QString BLKFileName();
    QString DPLFileName();
    QString BTSFileName();
    bool getShootCounter(unsigned int* value, int* index);
    bool getShootCounter(unsigned int* value);
    // The one member the library exports besides the factory: a host without
    // this header (a service tool) resolves it from the library to set the
    // counter after a board exchange.
    Q_DECL_EXPORT bool setShootCounter(unsigned int value);
    bool readSerialNumber(QString& serial);
    bool readInformation(bool resetFirst);

    // Acquisition.
    bool armSensor(bool acquire, bool oscilloscope);
    bool arm(bool oscilloscope);
    bool readImage(bool black);
    bool hasImage();
    bool getVoltages(long* fpgaHigh, long* fpgaLow, long* usb, long* sensor);
    bool getParameters();

    // FPGA.
    bool flashFPGA(QString fileName);

    // Read access for hosts and tests that look at a unit's bridge ports.
    const FT_DEVICE_LIST_INFO_NODE& portRecord(int port) const { return portInfo[port]; }

protected slots:
    void waitForOscilloscope();
    void waitForImage();
    void waitForStopping();

protected:
    bool readOscilloscope();
    bool fullOscilloscope();
    bool saveAcquisition();
    bool readVoltages(long* fpgaHigh, long* fpgaLow, long* usb, long* sensor);

private:
    FT_HANDLE& theHandleA() { return portInfo[0].ftHandle; }
    FT_HANDLE& theHandleB() { return portInfo[1].ftHandle; }
    FT_HANDLE& theHandleC() { return portInfo[2].ftHandle; }
    FT_HANDLE& theHandleD() { return portInfo[3].ftHandle; }

    int ACECoefficient();
    QVariant familyParameter(const QString& key) const;
    QString familyFilePath(const char* pattern);
    QString familyName() const;
    // Reports a lost sensor on the family's status, not the unit's.
    void setFamilyError();
    // True once an enumeration gave the unit up (or its family is gone).
    bool givenUp() const;
    // One tick of the image or oscilloscope polling.
    void pollAcquisition(bool oscilloscopeMode);
    bool readPollingStatus(const char* slot, uint8* flags);
    bool readImageBlock(uint8* buffer, int block, uint16 length, uint32* bytesRead);
    // Sends one report section as JSON through dataRead and the detailed log.
    void sendReport(const QString& section, const ReportSection& values);

    // Flash primitives on port C.
    bool readFlash(unsigned char* buffer, unsigned short length, unsigned int address);
    bool writeFlash(unsigned char* data, int size, unsigned int address, bool erase, bool initPort);
    bool eraseSector(int address);
    bool eraseFlash(unsigned int address, int size);
    bool resetFlash();
    bool isFlashBusy(bool* busy);
    bool readFlashStatus(uint8* status);
    bool sendFlashCommand(uint8* frame, uint16 size);
    void waitWhileFlashBusy(unsigned long pauseUs);

    // Lattice configuration port, reached through port A in programming mode.
    bool latticeSysConfigSend(unsigned char opcode, bool endTransaction);
    bool latticeSysConfigSendClassA(unsigned char opcode, unsigned int& result);
    bool sendBitStream(QString fileName);
    QString chooseBitstream();

    friend struct KoruxUnitAccess;

    void logUser(const QString& text) { emit logText(text); }
    void logTrace(const QString& text) { emit logAdvancedText(text); }

    FT_DEVICE_LIST_INFO_NODE portInfo[4];
    GPIO_Dir gpioDirections[4];
    int32_t aceValue;
    int32_t samplesAboveThreshold;
    bool imageReady;
    bool stopRequested;
};
