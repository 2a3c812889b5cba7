// The family base: parameters, directory, unit vector and status hand-over.
#include <QCoreApplication>
#include <QDir>
#include <QPointer>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "host/VeltraXRayHardware.h"
#include "tests/host/QtPrinters.h"

namespace {

// A family as a plug-in derives it, with the protected parts in reach.
class TestFamily : public QVeltraHardwareFamily {
public:
    void addUnit(QVeltraHardwareUnit* unit) { hardwareUnitVector_.append(unit); }
    void clearUnits() { clearHardwareUnitVector(); }
};

TEST(Family, StartsUnknownWithoutParametersOrUnits)
{
    QVeltraHardwareFamily family;
    EXPECT_EQ(family.status(), statusUnknown);
    EXPECT_TRUE(family.parameters().isEmpty());
    EXPECT_TRUE(family.hardwareUnitVector().isEmpty());
    EXPECT_TRUE(family.codeName().isEmpty());
    EXPECT_TRUE(family.manufacturer().isEmpty());
}

TEST(Family, BaseOperationsSucceedAndSayNothing)
{
    QTemporaryDir root;
    QVeltraHardwareFamily family;
    family.setDirectory(QDir(root.filePath("family")));
    EXPECT_TRUE(family.initializeVeltraHardwareFamily());
    EXPECT_TRUE(family.deleteFromVector());
    EXPECT_TRUE(family.sensorFamily().isEmpty());
    int emitted = 0;
    QObject::connect(&family, &QVeltraHardwareFamily::statusChanged, [&emitted] { ++emitted; });
    family.gotoStatus(commandEnumerate);
    family.gotoUnitStatus(QStringLiteral("KX0001"), commandGetParameters);
    EXPECT_EQ(emitted, 0);
    EXPECT_EQ(family.status(), statusUnknown);
}

TEST(Family, SetParameterStoresUnderTheKey)
{
    QVeltraHardwareFamily family;
    family.setParameter(QStringLiteral("ACEValue"), 25000);
    family.setParameter(QStringLiteral("Oscilloscope"), true);
    EXPECT_EQ(family.getParameter(QStringLiteral("ACEValue")).toInt(), 25000);
    EXPECT_TRUE(family.getParameter(QStringLiteral("Oscilloscope")).toBool());
    EXPECT_EQ(family.parameters().size(), 2);
    family.setParameter(QStringLiteral("ACEValue"), 100);
    EXPECT_EQ(family.getParameter(QStringLiteral("ACEValue")).toInt(), 100);
}

TEST(Family, AbsentParameterIsAnInvalidVariant)
{
    QVeltraHardwareFamily family;
    const QVariant value = family.getParameter(QStringLiteral("FlashAddress"));
    EXPECT_FALSE(value.isValid());
    EXPECT_EQ(value.toUInt(), 0u);
}

TEST(Family, DirectoryDefaultsToThePerUserDataDirectory)
{
    QVeltraHardwareFamily family;
    const QString expected = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
        + QStringLiteral("/VeltraXRayHardware");
    EXPECT_EQ(family.directory().absolutePath(), QDir(expected).absolutePath());
}

TEST(Family, SetDirectoryIsWhereInitializationCreatesIt)
{
    QTemporaryDir root;
    const QString path = root.filePath(QStringLiteral("a/b/VeltraXRayHardware"));
    QVeltraHardwareFamily family;
    family.setDirectory(QDir(path));
    EXPECT_EQ(family.directory().absolutePath(), QDir(path).absolutePath());
    EXPECT_FALSE(QDir(path).exists());
    EXPECT_TRUE(family.initializeVeltraHardwareFamily());
    EXPECT_TRUE(QDir(path).exists());
}

TEST(Family, ForwardToStatusChangedStoresThenEmits)
{
    QVeltraHardwareFamily family;
    std::vector<int> seen;
    QObject::connect(&family, &QVeltraHardwareFamily::statusChanged, [&](hardwareStatus status) {
        EXPECT_EQ(family.status(), status);
        seen.push_back(status);
    });
    family.forwardToStatusChanged(statusIntegrating);
    family.forwardToStatusChanged(statusAcquired);
    EXPECT_EQ(seen, (std::vector<int> { statusIntegrating, statusAcquired }));
    EXPECT_EQ(family.status(), statusAcquired);
}

TEST(Family, ClearHardwareUnitVectorEmptiesAndGivesUpTheUnits)
{
    TestFamily family;
    QPointer<QVeltraHardwareUnit> first = new QVeltraHardwareUnit(&family);
    QPointer<QVeltraHardwareUnit> second = new QVeltraHardwareUnit(&family);
    family.addUnit(first);
    family.addUnit(second);
    ASSERT_EQ(family.hardwareUnitVector().size(), 2);

    family.clearUnits();
    EXPECT_TRUE(family.hardwareUnitVector().isEmpty());
    // Deleted later, not under a caller that may still be using them.
    EXPECT_FALSE(first.isNull());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(first.isNull());
    EXPECT_TRUE(second.isNull());
}

TEST(Family, ClearOfAnEmptyVectorIsHarmless)
{
    TestFamily family;
    family.clearUnits();
    EXPECT_TRUE(family.hardwareUnitVector().isEmpty());
}

} // namespace
