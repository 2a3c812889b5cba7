// The host framework library as a hardware plug-in sees it: the family and
// unit base classes, the generator description, the status vocabulary and the
// framework's sleep functions.
//
// The virtual operations are declared in the order a host built against the
// framework expects them in the virtual table; new virtual operations may only
// ever be appended after the existing ones.
#pragma once

#include <QDir>
#include <QImage>
#include <QMap>
#include <QObject>
#include <QSize>
#include <QString>
#include <QVariant>
#include <QVector>

#if defined(VELTRAXRAYHARDWARE_LIBRARY)
#define VELTRA_EXPORT Q_DECL_EXPORT
#else
#define VELTRA_EXPORT Q_DECL_IMPORT
#endif

// Statuses of a family or unit, and the commands a host gives with gotoStatus.
enum hardwareStatus {
    statusUnknown = 0,
    statusEnumerating = 1,
    statusInitialized = 2,
    statusNoSensor = 3,
    statusSensorFound = 4,
    statusSensorLost = 5,
    statusAborted = 6,
    statusError = 7,
    statusWarning = 8,
    statusReady = 9,
    statusOpeningPorts = 10,
    statusFpgaUpdating = 11,
    statusFpgaUpdated = 12,
    statusNoOpBegin = 13,
    statusNoOpEnd = 14,
    commandEnumerate = 15,
    statusCalibrating = 16,
    statusCalibrated = 17,
    statusStopping = 18,
    statusStopped = 19,
    statusArming = 20,
    statusArmed = 21,
    commandArm = 22,
    statusWaitingForExposure = 23,
    statusIntegrating = 24,
    statusIntegrated = 25,
    statusAcquiring = 26,
    statusAcquired = 27,

    commandGetParameters = 1000,
    commandGetVoltages = 1001,
    commandReadSerialNumber = 1002,
    commandReadFlashFiles = 1003,
    commandReadAllFlashFiles = 1004,
    commandRewriteFlashFiles = 1005,
    commandRewriteAllFlashFiles = 1006,
    commandGetShootCounter = 1007,
    commandSetShootCounter = 1008,
    commandIncreaseShootCounter = 1009,
    commandFamilyReport = 1010,

    commandFormatFlash = 2000,

    commandReadFlashPage = 3001,
};

enum hardwareSize {
    sizeUnknown = 0,
    size0 = 1,
    size1 = 2,
    size1_5 = 3,
    size2 = 4,
};

enum hardwareTechnology {
    technologyUnknown = 0,
    technologyCCD = 1,
    technologyGadox = 2,
    technologyCsI = 3,
};

enum hardwareProtocol {
    protocolUnknown = 0,
    protocolUSB = 1,
    protocolEthernet = 2,
    protocolWireless = 3,
};

Q_DECLARE_METATYPE(hardwareStatus)

// Blocks the calling thread for ms milliseconds.
VELTRA_EXPORT void Sleep_ms(unsigned long ms);
// Blocks the calling thread for us microseconds: the bulk is slept, the last
// stretch is spun against the calibrated cycle counter.
VELTRA_EXPORT void Sleep_us(unsigned long us);
// Cycles of the fine-sleep counter per hundred microseconds; with reset, the
// counter is calibrated anew first.
VELTRA_EXPORT quint64 resetSleepCounter(bool reset);
// Development aid of this framework build: every Sleep_ms/Sleep_us is
// stretched by this factor (0 makes them return at once). Default 1.
VELTRA_EXPORT void setSleepTimeScale(double scale);
VELTRA_EXPORT double sleepTimeScale();
// Development aid of this framework build: told the length of every
// Sleep_ms/Sleep_us asked for, in microseconds and before any scaling, so
// that a test can see the pauses an operation makes. Null: none.
using SleepObserver = void (*)(unsigned long long requestedUs, void* context);
VELTRA_EXPORT void setSleepObserver(SleepObserver observer, void* context);

class QVeltraHardwareUnit;

// The X-ray generator that a unit may be built into ("Inside") or work with.
class VELTRA_EXPORT QVeltraGenerator : public QObject {
    Q_OBJECT

public:
    explicit QVeltraGenerator(QObject* parent = nullptr);
    ~QVeltraGenerator() override;

    bool isInside = false;
    long energy = 0;
    long threshold = 0;
    long cone = 0;
    long DAP = 0;
    long airDose = 0;
    long kV = 0;
    long mA = 0;
    long timeSet = 0;
    long timeDone = 0;
    long cutMethod = 0;
    long mode = 0;

    QString manufacturer() const;
    QString model() const;
    QString serial() const;
    void setManufacturer(const QString& manufacturer);
    void setModel(const QString& model);
    void setSerial(const QString& serial);

signals:
    void isInsideChanged(bool inside);
    void energyChanged(long value);
    void thresholdChanged(long value);
    void coneChanged(long value);
    void DAPChanged(long value);
    void airDoseChanged(long value);
    void kVChanged(long value);
    void mAChanged(long value);
    void timeSetChanged(long value);
    void timeDoneChanged(long value);
    void cutMethodChanged(long value);
    void modeChanged(long value);

private:
    QString manufacturer_;
    QString model_;
    QString serial_;
};

// Base of a hardware family: one object per plug-in, owning its units.
class VELTRA_EXPORT QVeltraHardwareFamily : public QObject {
    Q_OBJECT

public:
    explicit QVeltraHardwareFamily(QObject* parent = nullptr);
    ~QVeltraHardwareFamily() override;

    virtual bool initializeVeltraHardwareFamily();
    virtual bool deleteFromVector();
    virtual QString sensorFamily();
    virtual const QVector<QVeltraHardwareUnit*>& hardwareUnitVector() const;

public slots:
    virtual void gotoStatus(hardwareStatus command);
    virtual void gotoUnitStatus(QString serial, hardwareStatus command);
    virtual void setParameter(QString key, QVariant value);
    virtual void forwardToStatusChanged(hardwareStatus status);

public:
    QVariant getParameter(QString key) const;
    QString codeName() const;
    QString manufacturer() const;
    hardwareStatus status() const;
    QMap<QString, QVariant> parameters() const;

    // Where the family keeps its files (the per-user data directory unless the
    // host chooses another).
    QDir directory() const;
    void setDirectory(const QDir& directory);

signals:
    void statusChanged(hardwareStatus status);
    void gotoStatusRejected();
    void logText(QString text);
    void logAdvancedText(QString text);
    void dataRead(QString json);

protected:
    // Empties the unit vector. The units given up are disposed of with
    // deleteLater, never at once: the event loop of their thread deletes them,
    // by a deferred-delete event, once control is back there. A plug-in may
    // still be running an operation on such a unit, and may hold that event
    // back until the operation has returned (an event filter on the unit).
    // This is part of the framework's contract with plug-ins.
    void clearHardwareUnitVector();

    QMap<QString, QVariant> parameters_;
    hardwareStatus status_ = statusUnknown;
    QString codeName_;
    QString manufacturer_;
    QDir directory_;
    QVector<QVeltraHardwareUnit*> hardwareUnitVector_;
};

// Base of one hardware unit (one sensor).
class VELTRA_EXPORT QVeltraHardwareUnit : public QObject {
    Q_OBJECT

public:
    explicit QVeltraHardwareUnit(QObject* parent = nullptr);
    ~QVeltraHardwareUnit() override;

    virtual bool initializeVeltraHardware();
    virtual QSize BINImageSize();
    virtual QSize imageSize();
    virtual QSize RAWImageSize();
    virtual int imageBitPerPixel();
    virtual int RAWBitPerPixel();
    virtual QSize imageResolution();

    virtual void setFamily(QVeltraHardwareFamily* family);
    virtual void resetFamily();
    virtual QVeltraHardwareFamily* family() const;
    virtual void setGenerator(QVeltraGenerator* generator);
    virtual void resetGenerator();
    virtual QVeltraGenerator* generator() const;
    virtual void setSize(hardwareSize size);
    virtual void resetSize();
    virtual hardwareSize size() const;
    virtual void setTechnology(hardwareTechnology technology);
    virtual void resetTechnology();
    virtual hardwareTechnology technology() const;
    virtual void setProtocol(hardwareProtocol protocol);
    virtual void resetProtocol();
    virtual hardwareProtocol protocol() const;
    virtual void setStatus(hardwareStatus status);
    virtual void resetStatus();
    virtual hardwareStatus status() const;
    virtual void setModel(QString model);
    virtual void resetModel();
    virtual QString model() const;
    virtual void setSerial(QString serial);
    virtual void resetSerial();
    virtual QString serial() const;
    virtual void setSensorSerial(QString serial);
    virtual void resetSensorSerial();
    virtual QString sensorSerial() const;
    virtual void setBoardSerial(QString serial);
    virtual void resetBoardSerial();
    virtual QString boardSerial() const;
    virtual void setFirmware(QString firmware);
    virtual void resetFirmware();
    virtual QString firmware() const;
    virtual void setOscilloscope(QString oscilloscope);
    virtual void resetOscilloscope();
    virtual QString oscilloscope() const;
    virtual void setBinaryImage(QImage image);
    virtual void resetBinaryImage();
    virtual QImage binaryImage() const;
    virtual void setBlackImage(QImage image);
    virtual void resetBlackImage();
    virtual QImage blackImage() const;

public slots:
    virtual void gotoStatus(hardwareStatus command);

public:
    static QString hardwareStatusToString(hardwareStatus status);
    static QString hardwareSizeToString(hardwareSize size);
    static QString hardwareTechnologyToString(hardwareTechnology technology);
    static QString hardwareProtocolToString(hardwareProtocol protocol);

signals:
    void statusChanged(hardwareStatus status);
    void logText(QString text);
    void logAdvancedText(QString text);
    void dataRead(QString json);
    void imageAcquired(const QImage& image, const QString& description);
    void imageAndBlackAcquired(const QImage& image, const QImage& black,
                               const QString& description);

protected:
    hardwareSize size_ = sizeUnknown;
    hardwareTechnology technology_ = technologyUnknown;
    hardwareProtocol protocol_ = protocolUnknown;
    hardwareStatus status_ = statusUnknown;
    QString model_;
    QString serial_;
    QString sensorSerial_;

    QVeltraHardwareFamily* family_ = nullptr;
    QVeltraGenerator* generator_ = nullptr;
    QString boardSerial_;
    QString firmware_;
    QString oscilloscope_;
    QImage binaryImage_;
    QImage blackImage_;
};
