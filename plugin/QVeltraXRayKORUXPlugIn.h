// The plug-in's family object: one per process, made by getVeltraHardware().
#pragma once

#include "host/VeltraXRayHardware.h"
#include "plugin/JsonReport.h"

class QVeltraXRayKORUXPlugInUnit;

class QVeltraXRayKORUXPlugIn : public QVeltraHardwareFamily {
    Q_OBJECT

public:
    QVeltraXRayKORUXPlugIn();
    ~QVeltraXRayKORUXPlugIn() override;

    bool initializeVeltraHardwareFamily() override;
    bool deleteFromVector() override;
    QString sensorFamily() override;

public slots:
    void forwardToStatusChanged(hardwareStatus status) override;
    void gotoStatus(hardwareStatus command) override;
    void gotoUnitStatus(QString serial, hardwareStatus command) override;

public:
    bool readFlashFiles(long index, bool withProductionFiles, bool overwrite);
    bool readFlashFiles(QVeltraXRayKORUXPlugInUnit* unit, bool withProductionFiles, bool overwrite);

    void initDeviceList();
    int numberOfKorux3();
    QVeltraXRayKORUXPlugInUnit* deviceUnit(long index);

    // Stores the family's status and tells the host.
    void setFamilyStatus(hardwareStatus status);

private:
    void enumKORUXPlugIn(QString argument);
    void sendFamilyReport();

    // Per-unit wrappers: each forwards to the unit of that index.
    bool flashKorux3FPGA(long index, QString fileName);
    bool formatFlash(long index);
    bool getParameters(long index);
    bool getShootCounter(long index, unsigned int* value);
    bool getVoltages(long index, long* fpgaHigh, long* fpgaLow, long* usb, long* sensor);
    bool increaseShootCounter(long index);
    bool readInformation(long index);
    bool readSerialNumber(long index, QString& serial);
    bool setShootCounter(long index, unsigned int value);
    bool technicReadFlashPage(long index, unsigned int address);

    friend struct KoruxFamilyAccess;
};

// The family name in reports and the base's code name; the superscript form
// is only used in log texts.
inline constexpr const char kSensorFamilyName[] = "KORUX-KORUX2 Series";
inline constexpr const char kManufacturerName[] = "TAVEN";
