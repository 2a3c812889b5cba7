// The unit base: its family, its generator, its values and the way its
// status reaches the family.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPointer>
#include <QThread>

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/VeltraXRayHardware.h"
#include "tests/host/QtPrinters.h"

namespace {

// Records every status forwarded to it and the thread it arrived on.
class RecordingFamily : public QVeltraHardwareFamily {
public:
    void forwardToStatusChanged(hardwareStatus status) override
    {
        forwarded.push_back(status);
        threads.push_back(QThread::currentThread());
        QVeltraHardwareFamily::forwardToStatusChanged(status);
    }

    std::vector<int> forwarded;
    std::vector<QThread*> threads;
};

bool processUntil(const std::function<bool()>& done, int timeoutMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    return done();
}

TEST(Unit, FamilyIsTakenFromTheParent)
{
    QVeltraHardwareFamily family;
    auto* unit = new QVeltraHardwareUnit(&family);
    EXPECT_EQ(unit->family(), &family);
    EXPECT_EQ(unit->parent(), &family);
}

TEST(Unit, OtherParentsGiveNoFamily)
{
    QObject owner;
    auto* unit = new QVeltraHardwareUnit(&owner);
    EXPECT_EQ(unit->family(), nullptr);
    QVeltraHardwareUnit orphan;
    EXPECT_EQ(orphan.family(), nullptr);
}

TEST(Unit, SetAndResetFamily)
{
    QVeltraHardwareFamily family;
    QVeltraHardwareUnit unit;
    unit.setFamily(&family);
    EXPECT_EQ(unit.family(), &family);
    unit.resetFamily();
    EXPECT_EQ(unit.family(), nullptr);
}

TEST(Unit, NewUnitHasAGeneratorOfItsOwn)
{
    QVeltraHardwareUnit unit;
    ASSERT_NE(unit.generator(), nullptr);
    EXPECT_EQ(unit.generator()->parent(), &unit);
    EXPECT_FALSE(unit.generator()->isInside);
    EXPECT_EQ(unit.generator()->kV, 0);
    EXPECT_TRUE(unit.generator()->manufacturer().isEmpty());
}

TEST(Unit, ResetGeneratorGivesAFreshDefaultGenerator)
{
    QVeltraHardwareUnit unit;
    unit.generator()->isInside = true;
    unit.generator()->setModel(QStringLiteral("G1"));
    unit.resetGenerator();
    ASSERT_NE(unit.generator(), nullptr);
    EXPECT_FALSE(unit.generator()->isInside);
    EXPECT_TRUE(unit.generator()->model().isEmpty());
}

TEST(Unit, SetGeneratorUsesTheGivenOne)
{
    QVeltraGenerator generator;
    QVeltraHardwareUnit unit;
    unit.setGenerator(&generator);
    EXPECT_EQ(unit.generator(), &generator);
}

TEST(Unit, GeneratorKeepsItsTexts)
{
    QVeltraGenerator generator;
    generator.setManufacturer(QStringLiteral("Maker"));
    generator.setModel(QStringLiteral("Model"));
    generator.setSerial(QStringLiteral("123"));
    EXPECT_EQ(generator.manufacturer(), "Maker");
    EXPECT_EQ(generator.model(), "Model");
    EXPECT_EQ(generator.serial(), "123");
}

// Every property of a unit holds its empty default.
void expectDefaultProperties(const QVeltraHardwareUnit& unit)
{
    EXPECT_EQ(unit.size(), sizeUnknown);
    EXPECT_EQ(unit.technology(), technologyUnknown);
    EXPECT_EQ(unit.protocol(), protocolUnknown);
    EXPECT_TRUE(unit.model().isEmpty());
    EXPECT_TRUE(unit.serial().isEmpty());
    EXPECT_TRUE(unit.sensorSerial().isEmpty());
    EXPECT_TRUE(unit.boardSerial().isEmpty());
    EXPECT_TRUE(unit.firmware().isEmpty());
    EXPECT_TRUE(unit.oscilloscope().isEmpty());
    EXPECT_TRUE(unit.binaryImage().isNull());
    EXPECT_TRUE(unit.blackImage().isNull());
}

TEST(Unit, StartsWithDefaults)
{
    QVeltraHardwareUnit unit;
    EXPECT_TRUE(unit.initializeVeltraHardware());
    expectDefaultProperties(unit);
    EXPECT_EQ(unit.status(), statusUnknown);
}

TEST(Unit, SettersStoreAndResettersRestoreTheDefaults)
{
    QVeltraHardwareUnit unit;
    QImage image(4, 3, QImage::Format_Grayscale16);
    image.fill(0);
    unit.setSize(size1_5);
    unit.setTechnology(technologyCsI);
    unit.setProtocol(protocolUSB);
    unit.setModel(QStringLiteral("model"));
    unit.setSerial(QStringLiteral("serial"));
    unit.setSensorSerial(QStringLiteral("sensor"));
    unit.setBoardSerial(QStringLiteral("board"));
    unit.setFirmware(QStringLiteral("firmware"));
    unit.setOscilloscope(QStringLiteral("1,2,3"));
    unit.setBinaryImage(image);
    unit.setBlackImage(image);

    EXPECT_EQ(unit.size(), size1_5);
    EXPECT_EQ(unit.technology(), technologyCsI);
    EXPECT_EQ(unit.protocol(), protocolUSB);
    EXPECT_EQ(unit.model(), "model");
    EXPECT_EQ(unit.serial(), "serial");
    EXPECT_EQ(unit.sensorSerial(), "sensor");
    EXPECT_EQ(unit.boardSerial(), "board");
    EXPECT_EQ(unit.firmware(), "firmware");
    EXPECT_EQ(unit.oscilloscope(), "1,2,3");
    EXPECT_EQ(unit.binaryImage().size(), QSize(4, 3));
    EXPECT_EQ(unit.blackImage().size(), QSize(4, 3));

    unit.resetSize();
    unit.resetTechnology();
    unit.resetProtocol();
    unit.resetModel();
    unit.resetSerial();
    unit.resetSensorSerial();
    unit.resetBoardSerial();
    unit.resetFirmware();
    unit.resetOscilloscope();
    unit.resetBinaryImage();
    unit.resetBlackImage();
    expectDefaultProperties(unit);
}

TEST(Unit, SetStatusStoresThenEmits)
{
    QVeltraHardwareUnit unit;
    std::vector<int> seen;
    QObject::connect(&unit, &QVeltraHardwareUnit::statusChanged, [&](hardwareStatus status) {
        EXPECT_EQ(unit.status(), status);
        seen.push_back(status);
    });
    unit.setStatus(statusOpeningPorts);
    unit.setStatus(statusReady);
    EXPECT_EQ(seen, (std::vector<int> { statusOpeningPorts, statusReady }));
    unit.resetStatus();
    EXPECT_EQ(unit.status(), statusUnknown);
}

TEST(Unit, StatusReachesTheFamilyDirectlyOnItsThread)
{
    RecordingFamily family;
    auto* unit = new QVeltraHardwareUnit(&family);
    unit->setStatus(statusIntegrating);
    // No event loop turn needed: the call is direct.
    EXPECT_EQ(family.forwarded, (std::vector<int> { statusIntegrating }));
    EXPECT_EQ(family.threads.front(), QThread::currentThread());
    EXPECT_EQ(family.status(), statusIntegrating);
}

TEST(Unit, StatusSetOnAnotherThreadIsQueuedOntoTheFamilysThread)
{
    RecordingFamily family;
    QVeltraHardwareUnit unit;
    unit.setFamily(&family);
    std::thread worker([&unit] {
        unit.setStatus(statusIntegrated);
        unit.setStatus(statusAcquiring);
    });
    worker.join();
    EXPECT_TRUE(family.forwarded.empty());
    ASSERT_TRUE(processUntil([&] { return family.forwarded.size() == 2; }));
    EXPECT_EQ(family.forwarded, (std::vector<int> { statusIntegrated, statusAcquiring }));
    for (QThread* thread : family.threads)
        EXPECT_EQ(thread, family.thread());
}

TEST(Unit, StatusWithoutFamilyOnlyEmits)
{
    QVeltraHardwareUnit unit;
    int emitted = 0;
    QObject::connect(&unit, &QVeltraHardwareUnit::statusChanged, [&emitted] { ++emitted; });
    unit.setStatus(statusError);
    EXPECT_EQ(emitted, 1);
    EXPECT_EQ(unit.status(), statusError);
}

TEST(Unit, BaseGotoStatusChangesNothing)
{
    QVeltraHardwareUnit unit;
    unit.gotoStatus(commandArm);
    EXPECT_EQ(unit.status(), statusUnknown);
}

TEST(Unit, GoesWithItsFamily)
{
    QPointer<QVeltraHardwareUnit> unit;
    {
        QVeltraHardwareFamily family;
        unit = new QVeltraHardwareUnit(&family);
    }
    EXPECT_TRUE(unit.isNull());
}

} // namespace
