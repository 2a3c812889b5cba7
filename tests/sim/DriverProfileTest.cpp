// The driver of the host's system: on Linux it lists and opens only its
// maker's own USB ids and the one pair a host registers, gives no location
// for an open interface, and a USB interface belongs to one process at a
// time. Some installations hand non-ASCII text bytes as '?'.
#include "SimSupport.h"

#include <QTemporaryDir>

#include <fcntl.h>
#include <unistd.h>

using namespace simtest;

namespace {

FT_STATUS openBySerial(const char* serial, FT_HANDLE* handle)
{
    return FT_OpenEx(const_cast<char*>(serial), FT_OPEN_BY_SERIAL_NUMBER, handle);
}

class VbLinuxDriver : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        bridge().setDriverProfile(vbridge::DriverProfile::Linux);
    }
};

class VbWindowsDriver : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        bridge().setDriverProfile(vbridge::DriverProfile::Windows);
        bridge().setRegisteredIds(0);
    }
};

// Another process's claim of one interface: a lock on its byte of the claim
// file through a file description of its own.
class ForeignClaim {
public:
    ForeignClaim(const std::string& claimFile, int port)
        : fd_(::open(claimFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644))
    {
        struct flock range {};
        range.l_type = F_WRLCK;
        range.l_whence = SEEK_SET;
        range.l_start = port;
        range.l_len = 1;
        held_ = fd_ >= 0 && ::fcntl(fd_, F_OFD_SETLK, &range) == 0;
    }
    ~ForeignClaim()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    bool held() const { return held_; }

private:
    int fd_ = -1;
    bool held_ = false;
};

} // namespace

TEST(VbDriverDefault, LinuxIsTheProfileOnLinux)
{
    vbridge::VirtualBridge::instance().reset();
    EXPECT_EQ(vbridge::VirtualBridge::instance().driverProfile(), vbridge::DriverProfile::Linux);
}

TEST_F(VbLinuxDriver, SensorIsInvisibleUntilItsIdsAreRegistered)
{
    bridge().setRegisteredIds(0);
    addSensor();
    EXPECT_EQ(listCount(), 0u);
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(openBySerial("KX0001A", &handle), static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));

    ASSERT_EQ(FT_SetVIDPID(0x1CE6, 0x0003), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(listCount(), 4u);
    EXPECT_EQ(openBySerial("KX0001A", &handle), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbLinuxDriver, RegistrationIsTracedWithItsIds)
{
    FT_SetVIDPID(0x1CE6, 0x0003);
    const auto entries = bridge().trace("FT_SetVIDPID");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].toString(), std::to_string(entries[0].seq) + " FT_SetVIDPID 7398 3 = 0");
}

TEST_F(VbLinuxDriver, RegisteredPairIsReadBack)
{
    bridge().setRegisteredIds(0);
    DWORD vid = 1, pid = 1;
    ASSERT_EQ(FT_GetVIDPID(&vid, &pid), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(vid, 0u);
    EXPECT_EQ(pid, 0u);
    FT_SetVIDPID(0x1CE6, 0x0003);
    ASSERT_EQ(FT_GetVIDPID(&vid, &pid), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(vid, 0x1CE6u);
    EXPECT_EQ(pid, 0x0003u);
    EXPECT_EQ(bridge().registeredIds(), 0x1CE60003u);
    EXPECT_EQ(bridge().trace("FT_GetVIDPID").size(), 2u);
}

TEST_F(VbLinuxDriver, RegistrationOutlivesAReset)
{
    FT_SetVIDPID(0x1CE6, 0x0003);
    bridge().resetToDefault();
    EXPECT_EQ(listCount(), 4u);
}

TEST_F(VbLinuxDriver, MakersOwnDevicesNeedNoRegistration)
{
    bridge().setRegisteredIds(0);
    bridge().addForeignDevice(vbridge::ForeignDevice()); // 0x0403:0x6001
    vbridge::ForeignDevice other;
    other.id = 0x10C4EA60;
    other.serial = "CP000001";
    other.location = 0x9100;
    bridge().addForeignDevice(other);
    ASSERT_EQ(listCount(), 1u);
    EXPECT_EQ(detail(0).id, 0x04036001u);
}

TEST_F(VbLinuxDriver, AnotherRegistrationReplacesTheFirst)
{
    addSensor();
    vbridge::ForeignDevice other;
    other.id = 0x10C4EA60;
    bridge().addForeignDevice(other);
    FT_SetVIDPID(0x10C4, 0xEA60);
    ASSERT_EQ(listCount(), 1u);
    EXPECT_EQ(detail(0).id, 0x10C4EA60u);
}

TEST_F(VbLinuxDriver, FourInterfaceBridgeIsOfTypeFourTwoTwoTwoModeOneOrTwo)
{
    addSensor();
    listCount();
    EXPECT_EQ(detail(0).type, static_cast<DWORD>(FT_DEVICE_4222H_1_2));
}

TEST_F(VbLinuxDriver, OpenInterfaceListsLocationZero)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortB);
    listCount();
    const Detail open = detail(1);
    EXPECT_EQ(open.flags, static_cast<DWORD>(FT_FLAGS_HISPEED | FT_FLAGS_OPENED));
    EXPECT_EQ(open.location, 0u);
    EXPECT_EQ(open.handle, handle);
    EXPECT_STREQ(open.serial, "KX0001B");
    EXPECT_EQ(detail(0).location, bridge().interfaceLocation(0, kPortA));
}

TEST_F(VbLinuxDriver, LocationIsTheOneOfTheMomentTheListWasMade)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortA);
    listCount();
    ASSERT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(detail(0).location, 0u);
    listCount();
    EXPECT_EQ(detail(0).location, bridge().interfaceLocation(0, kPortA));
}

TEST_F(VbLinuxDriver, OpeningByLocationZeroFindsNothing)
{
    addSensor();
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(FT_OpenEx(nullptr, FT_OPEN_BY_LOCATION, &handle), static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
}

TEST_F(VbLinuxDriver, SecondOpenIsRefusedAsNotOpened)
{
    addSensor();
    openPort(0, kPortC);
    FT_HANDLE second = nullptr;
    EXPECT_EQ(openBySerial("KX0001C", &second), static_cast<FT_STATUS>(FT_DEVICE_NOT_OPENED));
    const DWORD location = bridge().interfaceLocation(0, kPortC);
    EXPECT_EQ(FT_OpenEx(reinterpret_cast<void*>(static_cast<uintptr_t>(location)), FT_OPEN_BY_LOCATION, &second),
        static_cast<FT_STATUS>(FT_DEVICE_NOT_OPENED));
}

TEST_F(VbLinuxDriver, InterfaceHeldByAnotherProcessIsRefusedAndListedBare)
{
    QTemporaryDir directory;
    addSensor();
    const std::string image = directory.filePath("KX0001.flash").toStdString();
    std::string error;
    ASSERT_TRUE(bridge().setFlashImage(0, image, &error)) << error;
    {
        ForeignClaim other(image + ".claim", kPortA);
        ASSERT_TRUE(other.held());
        FT_HANDLE handle = nullptr;
        EXPECT_EQ(openBySerial("KX0001A", &handle), static_cast<FT_STATUS>(FT_DEVICE_NOT_OPENED));
        EXPECT_EQ(openBySerial("KX0001B", &handle), static_cast<FT_STATUS>(FT_OK));

        // The driver knows only that the interface is open.
        ASSERT_EQ(listCount(), 4u);
        const Detail held = detail(0);
        EXPECT_EQ(held.flags, static_cast<DWORD>(FT_FLAGS_OPENED));
        EXPECT_EQ(held.id, 0u);
        EXPECT_EQ(held.location, 0u);
        EXPECT_STREQ(held.serial, "");
        EXPECT_STREQ(held.description, "");
    }
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(openBySerial("KX0001A", &handle), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbLinuxDriver, OpenInterfaceIsHeldAgainstOtherProcessesUntilClosed)
{
    QTemporaryDir directory;
    addSensor();
    const std::string image = directory.filePath("KX0001.flash").toStdString();
    std::string error;
    ASSERT_TRUE(bridge().setFlashImage(0, image, &error)) << error;
    FT_HANDLE handle = openPort(0, kPortD);
    EXPECT_FALSE(ForeignClaim(image + ".claim", kPortD).held());
    EXPECT_TRUE(ForeignClaim(image + ".claim", kPortA).held());
    ASSERT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_TRUE(ForeignClaim(image + ".claim", kPortD).held());
}

TEST_F(VbLinuxDriver, UnplugReleasesTheClaims)
{
    QTemporaryDir directory;
    addSensor();
    const std::string image = directory.filePath("KX0001.flash").toStdString();
    std::string error;
    ASSERT_TRUE(bridge().setFlashImage(0, image, &error)) << error;
    openPort(0, kPortA);
    bridge().unplug(0);
    EXPECT_TRUE(ForeignClaim(image + ".claim", kPortA).held());
}

TEST_F(VbLinuxDriver, NonAsciiBytesCanComeAsQuestionMarks)
{
    bridge().setNonAsciiAsQuestionMark(true);
    addSensor("KX\xE9" "01");
    listCount();
    const Detail a = detail(0);
    EXPECT_STREQ(a.description, "KORUX/KORUX? A");
    EXPECT_STREQ(a.serial, "KX?01A");
    // The driver compares an open's text with its own.
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(openBySerial("KX?01A", &handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("KORUX/KORUX? B"), FT_OPEN_BY_DESCRIPTION, &handle),
        static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbLinuxDriver, TextsAreLatin1WhenNotAskedOtherwise)
{
    addSensor();
    listCount();
    EXPECT_STREQ(detail(0).description, "KORUX/KORUX\xB2 A");
}

TEST_F(VbWindowsDriver, EveryInterfaceIsListedWithoutRegistration)
{
    addSensor();
    vbridge::ForeignDevice other;
    other.id = 0x10C4EA60;
    bridge().addForeignDevice(other);
    EXPECT_EQ(listCount(), 5u);
}

TEST_F(VbWindowsDriver, RegistrationIsNotSupported)
{
    EXPECT_EQ(FT_SetVIDPID(0x1CE6, 0x0003), static_cast<FT_STATUS>(FT_NOT_SUPPORTED));
    DWORD vid = 0, pid = 0;
    EXPECT_EQ(FT_GetVIDPID(&vid, &pid), static_cast<FT_STATUS>(FT_NOT_SUPPORTED));
    EXPECT_EQ(bridge().registeredIds(), 0u);
}

TEST_F(VbWindowsDriver, OpenInterfaceKeepsItsLocation)
{
    addSensor();
    openPort(0, kPortA);
    listCount();
    EXPECT_EQ(detail(0).location, bridge().interfaceLocation(0, kPortA));
}
