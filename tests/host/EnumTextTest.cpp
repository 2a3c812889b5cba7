// The status vocabulary and the display texts of the framework's enums.
#include <QMetaType>
#include <QVariant>

#include <gtest/gtest.h>

#include "host/VeltraXRayHardware.h"
#include "tests/host/QtPrinters.h"

namespace {

TEST(EnumValues, StatusesKeepTheirNumbers)
{
    EXPECT_EQ(statusUnknown, 0);
    EXPECT_EQ(statusEnumerating, 1);
    EXPECT_EQ(statusNoSensor, 3);
    EXPECT_EQ(statusSensorFound, 4);
    EXPECT_EQ(statusAborted, 6);
    EXPECT_EQ(statusError, 7);
    EXPECT_EQ(statusReady, 9);
    EXPECT_EQ(statusOpeningPorts, 10);
    EXPECT_EQ(statusFpgaUpdating, 11);
    EXPECT_EQ(statusFpgaUpdated, 12);
    EXPECT_EQ(statusNoOpBegin, 13);
    EXPECT_EQ(statusNoOpEnd, 14);
    EXPECT_EQ(commandEnumerate, 15);
    EXPECT_EQ(statusStopping, 18);
    EXPECT_EQ(statusStopped, 19);
    EXPECT_EQ(statusArming, 20);
    EXPECT_EQ(statusArmed, 21);
    EXPECT_EQ(commandArm, 22);
    EXPECT_EQ(statusIntegrating, 24);
    EXPECT_EQ(statusIntegrated, 25);
    EXPECT_EQ(statusAcquiring, 26);
    EXPECT_EQ(statusAcquired, 27);
}

TEST(EnumValues, CommandsKeepTheirNumbers)
{
    EXPECT_EQ(commandGetParameters, 1000);
    EXPECT_EQ(commandGetVoltages, 1001);
    EXPECT_EQ(commandReadSerialNumber, 1002);
    EXPECT_EQ(commandReadFlashFiles, 1003);
    EXPECT_EQ(commandReadAllFlashFiles, 1004);
    EXPECT_EQ(commandRewriteFlashFiles, 1005);
    EXPECT_EQ(commandRewriteAllFlashFiles, 1006);
    EXPECT_EQ(commandGetShootCounter, 1007);
    EXPECT_EQ(commandSetShootCounter, 1008);
    EXPECT_EQ(commandIncreaseShootCounter, 1009);
    EXPECT_EQ(commandFamilyReport, 1010);
    EXPECT_EQ(commandFormatFlash, 2000);
    EXPECT_EQ(commandReadFlashPage, 3001);
}

TEST(EnumValues, SizeTechnologyAndProtocolKeepTheirNumbers)
{
    EXPECT_EQ(sizeUnknown, 0);
    EXPECT_EQ(size0, 1);
    EXPECT_EQ(size1, 2);
    EXPECT_EQ(size1_5, 3);
    EXPECT_EQ(size2, 4);
    EXPECT_EQ(technologyUnknown, 0);
    EXPECT_EQ(technologyCCD, 1);
    EXPECT_EQ(technologyGadox, 2);
    EXPECT_EQ(technologyCsI, 3);
    EXPECT_EQ(protocolUnknown, 0);
    EXPECT_EQ(protocolUSB, 1);
    EXPECT_EQ(protocolEthernet, 2);
    EXPECT_EQ(protocolWireless, 3);
}

TEST(StatusText, IsTheEnumeratorName)
{
    EXPECT_EQ(QVeltraHardwareUnit::hardwareStatusToString(statusUnknown), "statusUnknown");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareStatusToString(statusSensorFound), "statusSensorFound");
    EXPECT_EQ(
        QVeltraHardwareUnit::hardwareStatusToString(statusWaitingForExposure), "statusWaitingForExposure");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareStatusToString(statusAcquired), "statusAcquired");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareStatusToString(commandGetParameters), "commandGetParameters");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareStatusToString(commandFormatFlash), "commandFormatFlash");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareStatusToString(commandReadFlashPage), "commandReadFlashPage");
}

TEST(StatusText, EveryStatusFromZeroToTwentySevenHasAName)
{
    for (int value = 0; value <= 27; ++value) {
        const QString text = QVeltraHardwareUnit::hardwareStatusToString(static_cast<hardwareStatus>(value));
        EXPECT_FALSE(text.startsWith("hardwareStatus(")) << value;
    }
}

TEST(StatusText, UnknownValueShowsItsNumber)
{
    EXPECT_EQ(
        QVeltraHardwareUnit::hardwareStatusToString(static_cast<hardwareStatus>(999)), "hardwareStatus(999)");
    EXPECT_EQ(
        QVeltraHardwareUnit::hardwareStatusToString(static_cast<hardwareStatus>(-1)), "hardwareStatus(-1)");
}

TEST(SizeText, NamesEverySize)
{
    EXPECT_EQ(QVeltraHardwareUnit::hardwareSizeToString(sizeUnknown), "Unknown");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareSizeToString(size0), "Size 0");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareSizeToString(size1), "Size 1");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareSizeToString(size1_5), "Size 1.5");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareSizeToString(size2), "Size 2");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareSizeToString(static_cast<hardwareSize>(9)), "hardwareSize(9)");
}

TEST(TechnologyText, NamesEveryTechnology)
{
    EXPECT_EQ(QVeltraHardwareUnit::hardwareTechnologyToString(technologyUnknown), "Unknown");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareTechnologyToString(technologyCCD), "CCD");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareTechnologyToString(technologyGadox), "Gadox");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareTechnologyToString(technologyCsI), "CsI");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareTechnologyToString(static_cast<hardwareTechnology>(7)),
        "hardwareTechnology(7)");
}

TEST(ProtocolText, NamesEveryProtocol)
{
    EXPECT_EQ(QVeltraHardwareUnit::hardwareProtocolToString(protocolUnknown), "Unknown");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareProtocolToString(protocolUSB), "USB");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareProtocolToString(protocolEthernet), "Ethernet");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareProtocolToString(protocolWireless), "Wireless");
    EXPECT_EQ(QVeltraHardwareUnit::hardwareProtocolToString(static_cast<hardwareProtocol>(4)),
        "hardwareProtocol(4)");
}

TEST(StatusMetaType, IsRegisteredForQueuedCalls)
{
    EXPECT_NE(QMetaType::type("hardwareStatus"), int(QMetaType::UnknownType));
    const QVariant value = QVariant::fromValue(statusArmed);
    EXPECT_EQ(value.value<hardwareStatus>(), statusArmed);
}

} // namespace
