// The USB device list the driver shows: four interfaces per sensor, with the
// identity of the sensor series, foreign devices as they are, in list order.
#include "SimSupport.h"

using namespace simtest;

namespace {

class VbDeviceList : public VbTest { };

} // namespace

TEST_F(VbDeviceList, EachSensorShowsFourInterfaces)
{
    addSensor();
    addSensor();
    EXPECT_EQ(listCount(), 8u);
}

TEST_F(VbDeviceList, EmptyMachineShowsNoInterface)
{
    EXPECT_EQ(listCount(), 0u);
}

TEST_F(VbDeviceList, SensorInterfaceHasSeriesIdTypeAndHighSpeedFlag)
{
    addSensor();
    listCount();
    const Detail d = detail(0);
    ASSERT_EQ(d.status, static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(d.id, 0x1CE60003u);
    EXPECT_EQ(d.type, static_cast<DWORD>(FT_DEVICE_4222H_1_2));
    EXPECT_EQ(d.flags, static_cast<DWORD>(FT_FLAGS_HISPEED));
    EXPECT_EQ(d.handle, nullptr);
}

TEST_F(VbDeviceList, DescriptionIsLatin1WithSuperscriptTwoAndPortLetter)
{
    addSensor();
    listCount();
    const char* letters = "ABCD";
    for (DWORD i = 0; i < 4; ++i) {
        const Detail d = detail(i);
        ASSERT_EQ(d.status, static_cast<FT_STATUS>(FT_OK));
        // "KORUX/KORUX", 0xB2, blank, letter, then the terminating zero.
        const std::string expected = std::string("KORUX/KORUX\xB2 ") + letters[i] + '\0';
        EXPECT_EQ(hex(reinterpret_cast<const uint8_t*>(d.description), expected.size()), hex(expected));
    }
}

TEST_F(VbDeviceList, SerialNumberIsSensorSerialPlusPortLetter)
{
    addSensor("KX0042");
    listCount();
    EXPECT_STREQ(detail(0).serial, "KX0042A");
    EXPECT_STREQ(detail(3).serial, "KX0042D");
}

TEST_F(VbDeviceList, SensorsWithoutSerialAreNumberedFromOne)
{
    addSensor();
    addSensor();
    listCount();
    EXPECT_STREQ(detail(0).serial, "KX0001A");
    EXPECT_STREQ(detail(4).serial, "KX0002A");
}

TEST_F(VbDeviceList, LocationsOfPortsBToDFollowPortA)
{
    vbridge::SensorConfig config;
    config.location = 0x2031;
    config.defaultFlash = false;
    bridge().addSensor(config);
    listCount();
    for (DWORD i = 0; i < 4; ++i)
        EXPECT_EQ(detail(i).location, 0x2031u + i);
}

TEST_F(VbDeviceList, ChosenLocationsDifferBetweenSensors)
{
    addSensor();
    addSensor();
    std::vector<DWORD> locations;
    const DWORD count = listCount();
    for (DWORD i = 0; i < count; ++i)
        locations.push_back(detail(i).location);
    std::sort(locations.begin(), locations.end());
    EXPECT_EQ(std::adjacent_find(locations.begin(), locations.end()), locations.end());
    EXPECT_NE(locations[0], 0u);
}

TEST_F(VbDeviceList, OpenInterfaceShowsOpenedFlagAndItsHandle)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortB);
    listCount();
    const Detail d = detail(1);
    EXPECT_EQ(d.flags, static_cast<DWORD>(FT_FLAGS_HISPEED | FT_FLAGS_OPENED));
    EXPECT_EQ(d.handle, handle);
    EXPECT_EQ(detail(0).flags, static_cast<DWORD>(FT_FLAGS_HISPEED));
}

TEST_F(VbDeviceList, ClosedInterfaceLosesOpenedFlag)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortA);
    ASSERT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
    listCount();
    EXPECT_EQ(detail(0).flags, static_cast<DWORD>(FT_FLAGS_HISPEED));
    EXPECT_EQ(detail(0).handle, nullptr);
}

TEST_F(VbDeviceList, ForeignDeviceShowsItsOwnIdentity)
{
    vbridge::ForeignDevice foreign;
    foreign.id = 0x04036014;
    foreign.description = "Single RS232-HS";
    foreign.serial = "FT9ABCDE";
    foreign.location = 0x9011;
    foreign.type = 8;
    bridge().addForeignDevice(foreign);
    ASSERT_EQ(listCount(), 1u);
    const Detail d = detail(0);
    EXPECT_EQ(d.id, 0x04036014u);
    EXPECT_EQ(d.type, 8u);
    EXPECT_EQ(d.location, 0x9011u);
    EXPECT_STREQ(d.serial, "FT9ABCDE");
    EXPECT_STREQ(d.description, "Single RS232-HS");
}

TEST_F(VbDeviceList, ListFollowsTheOrderGiven)
{
    addSensor();
    bridge().addForeignDevice(vbridge::ForeignDevice());
    bridge().setListOrder({ { 0, 3 }, { -1, 0 }, { 0, 1 }, { 0, 0 }, { 0, 2 } });
    ASSERT_EQ(listCount(), 5u);
    EXPECT_STREQ(detail(0).serial, "KX0001D");
    EXPECT_STREQ(detail(1).serial, "FT000001");
    EXPECT_STREQ(detail(2).serial, "KX0001B");
    EXPECT_STREQ(detail(3).serial, "KX0001A");
    EXPECT_STREQ(detail(4).serial, "KX0001C");
}

TEST_F(VbDeviceList, UnpluggedSensorLeavesTheList)
{
    addSensor("KX0001");
    addSensor("KX0002");
    bridge().unplug(0);
    ASSERT_EQ(listCount(), 4u);
    EXPECT_STREQ(detail(0).serial, "KX0002A");
}

TEST_F(VbDeviceList, PluggedSensorComesBack)
{
    addSensor();
    bridge().unplug(0);
    ASSERT_EQ(listCount(), 0u);
    bridge().plug(0);
    EXPECT_EQ(listCount(), 4u);
}

TEST_F(VbDeviceList, DetailBeyondTheLastCountIsNotFound)
{
    addSensor();
    ASSERT_EQ(listCount(), 4u);
    EXPECT_EQ(detail(4).status, static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
}

TEST_F(VbDeviceList, DetailAnswersFromTheListOfTheLastCount)
{
    addSensor();
    ASSERT_EQ(listCount(), 4u);
    addSensor();
    EXPECT_EQ(detail(4).status, static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
    ASSERT_EQ(listCount(), 8u);
    EXPECT_EQ(detail(4).status, static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbDeviceList, DetailBeforeAnyCountIsNotFound)
{
    addSensor();
    EXPECT_EQ(detail(0).status, static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
}

TEST_F(VbDeviceList, DetailOfSensorUnpluggedSinceTheCountIsNotFound)
{
    addSensor();
    ASSERT_EQ(listCount(), 4u);
    bridge().unplug(0);
    EXPECT_EQ(detail(0).status, static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
}

TEST_F(VbDeviceList, FailDetailFailsThatIndexOnly)
{
    addSensor();
    bridge().failDetail(2);
    ASSERT_EQ(listCount(), 4u);
    EXPECT_EQ(detail(1).status, static_cast<FT_STATUS>(FT_OK));
    EXPECT_NE(detail(2).status, static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(detail(3).status, static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbDeviceList, FailDetailLastsUntilFaultsAreCleared)
{
    addSensor();
    bridge().failDetail(0);
    listCount();
    EXPECT_NE(detail(0).status, static_cast<FT_STATUS>(FT_OK));
    EXPECT_NE(detail(0).status, static_cast<FT_STATUS>(FT_OK));
    bridge().clearFaults();
    EXPECT_EQ(detail(0).status, static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbDeviceList, CountWithoutPointerIsInvalidParameter)
{
    EXPECT_EQ(FT_CreateDeviceInfoList(nullptr), static_cast<FT_STATUS>(FT_INVALID_PARAMETER));
}

TEST_F(VbDeviceList, DefaultMachineIsOneStandAloneSensor)
{
    bridge().resetToDefault();
    ASSERT_EQ(listCount(), 4u);
    EXPECT_STREQ(detail(0).serial, "KX0001A");
    EXPECT_FALSE(bridge().sensorConfig(0).inside);
}
