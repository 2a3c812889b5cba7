#include "support/PluginHarness.h"

#include <QMetaMethod>

#include <cstring>

using namespace testing_support;

namespace {

class UnitTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;

    void SetUp() override
    {
        host.addSensors(1);
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        unit = host.unit();
    }
};

}  // namespace

TEST_F(UnitTest, FirmwareOfZeroEmptyOrNotHexUsesTheFamilyCoefficient)
{
    for (const char* firmware : {"0", "", "xyz"}) {
        unit->setFirmware(firmware);
        EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 4) << firmware;
    }
}

TEST_F(UnitTest, NonZeroHexFirmwareUsesOne)
{
    unit->setFirmware("1A");
    host.family().setParameter("ACECoeff", 9);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 1);
}

TEST_F(UnitTest, CoefficientOutsideOneToNineFallsBackToSeven)
{
    host.family().setParameter("ACECoeff", 0);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 7);
    host.family().setParameter("ACECoeff", 10);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 7);
    host.family().setParameter("ACECoeff", 9);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 9);
}

TEST_F(UnitTest, CsiTechnologyUsesItsOwnCoefficient)
{
    unit->setTechnology(technologyCsI);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 7);
    host.family().setParameter("ACECoeffCSI", 3);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 3);
    host.family().setParameter("ACECoeffCSI", 12);
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 7);
}

TEST_F(UnitTest, MissingCoefficientParameterFallsBackToSeven)
{
    host.family().setParameter("ACECoeff", QVariant());
    EXPECT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 7);
}

TEST_F(UnitTest, SetInfoNodeCopiesTheWholeRecord)
{
    FT_DEVICE_LIST_INFO_NODE record = {};
    record.Flags = 2;
    record.Type = 10;
    record.ID = 0x1CE60003;
    record.LocId = 0x4242;
    std::strcpy(record.SerialNumber, "ZZ9A");
    std::strcpy(record.Description, "whatever");
    record.ftHandle = reinterpret_cast<FT_HANDLE>(0x1234);
    unit->setInfoNode(1, &record);
    EXPECT_EQ(std::memcmp(&unit->portRecord(1), &record, sizeof(record)), 0);
    record.ftHandle = nullptr;
    unit->setInfoNode(1, &record);
}

TEST_F(UnitTest, MetaObjectChainsToTheFrameworkUnit)
{
    const QMetaObject* meta = unit->metaObject();
    EXPECT_STREQ(meta->className(), "QVeltraXRayKORUXPlugInUnit");
    EXPECT_EQ(meta->superClass(), &QVeltraHardwareUnit::staticMetaObject);
    EXPECT_EQ(unit->qt_metacast("QVeltraXRayKORUXPlugInUnit"), unit);
    EXPECT_EQ(unit->qt_metacast("QVeltraHardwareUnit"), static_cast<QVeltraHardwareUnit*>(unit));
}

// A host that reads the unit's meta-object sees the three polling slots, in
// this order, protected, and nothing else of the plug-in's own.
TEST_F(UnitTest, MetaObjectHasOnlyTheThreeProtectedPollingSlotsInOrder)
{
    const QMetaObject* meta = unit->metaObject();
    const int offset = meta->methodOffset();
    ASSERT_EQ(meta->methodCount() - offset, 3);
    const char* const names[] = { "waitForOscilloscope()", "waitForImage()", "waitForStopping()" };
    for (int i = 0; i < 3; ++i) {
        const QMetaMethod method = meta->method(offset + i);
        EXPECT_EQ(method.methodSignature(), QByteArray(names[i])) << i;
        EXPECT_EQ(method.methodType(), QMetaMethod::Slot) << i;
        EXPECT_EQ(method.access(), QMetaMethod::Protected) << i;
        EXPECT_EQ(method.parameterCount(), 0) << i;
    }
    EXPECT_EQ(meta->indexOfMethod("setShootCounter(uint)"), -1);
    EXPECT_EQ(meta->propertyCount(), meta->propertyOffset());
    EXPECT_EQ(meta->enumeratorCount(), meta->enumeratorOffset());
    EXPECT_EQ(meta->classInfoCount(), meta->classInfoOffset());
    EXPECT_EQ(meta->constructorCount(), 0);
}
