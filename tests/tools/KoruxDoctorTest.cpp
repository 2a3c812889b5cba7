// korux doctor against fake sysfs, /dev and udev rule trees, and the checks
// it is made of.
#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "tests/tools/KoruxRunner.h"
#include "tools/Doctor.h"

using namespace korux_test;
using namespace korux::doctor;

namespace {

const QString kNoSensors = QStringLiteral(R"({ "sensors": [] })");

class KoruxDoctor : public Korux {
protected:
    void SetUp() override
    {
        Korux::SetUp();
        ASSERT_TRUE(QDir().mkpath(path(QStringLiteral("sys/bus/usb/devices"))));
        ASSERT_TRUE(QDir().mkpath(path(QStringLiteral("sys/bus/usb/drivers/ftdi_sio"))));
        ASSERT_TRUE(QDir().mkpath(path(QStringLiteral("dev/bus/usb"))));
        ASSERT_TRUE(QDir().mkpath(path(QStringLiteral("rules/etc"))));
        ASSERT_TRUE(QDir().mkpath(path(QStringLiteral("rules/lib"))));
        // A root hub beside the sensor, as on every machine.
        addUsbDevice(QStringLiteral("usb1"), QStringLiteral("1d6b"), QStringLiteral("0002"), 1, 1);
    }

    // A USB device in the fake sysfs with one interface, and its node with
    // the given mode; returns the node's path.
    QString addUsbDevice(const QString& name, const QString& vendor, const QString& product, int bus,
        int address, mode_t nodeMode = 0660)
    {
        const QString directory = path(QStringLiteral("sys/bus/usb/devices/") + name);
        EXPECT_TRUE(QDir().mkpath(directory + QLatin1Char('/') + name + QStringLiteral(":1.0")));
        writeAttribute(directory, QStringLiteral("idVendor"), vendor);
        writeAttribute(directory, QStringLiteral("idProduct"), product);
        writeAttribute(directory, QStringLiteral("serial"), QStringLiteral("KX0001"));
        writeAttribute(directory, QStringLiteral("busnum"), QString::number(bus));
        writeAttribute(directory, QStringLiteral("devnum"), QString::number(address));
        const QString nodeDirectory
            = path(QStringLiteral("dev/bus/usb/%1").arg(bus, 3, 10, QLatin1Char('0')));
        EXPECT_TRUE(QDir().mkpath(nodeDirectory));
        const QString node = nodeDirectory + QStringLiteral("/%1").arg(address, 3, 10, QLatin1Char('0'));
        writeAttribute(node, QString(), QString());
        EXPECT_EQ(chmod(QFile::encodeName(node).constData(), nodeMode), 0);
        return node;
    }

    void addSensor(mode_t nodeMode = 0660)
    {
        addUsbDevice(QStringLiteral("1-2"), QStringLiteral("1ce6"), QStringLiteral("0003"), 1, 5, nodeMode);
    }

    void bindDriver(const QString& interface, const QString& driver)
    {
        const QString link
            = path(QStringLiteral("sys/bus/usb/devices/1-2/") + interface + QStringLiteral("/driver"));
        ASSERT_TRUE(QFile::link(path(QStringLiteral("sys/bus/usb/drivers/") + driver), link));
    }

    void installRule(const QString& directory = QStringLiteral("rules/etc"))
    {
        ASSERT_TRUE(QFile::copy(ruleInTree(), path(directory + QStringLiteral("/60-korux.rules"))));
    }

    static QString ruleInTree() { return QStringLiteral(KORUX_SOURCE_DIR "/packaging/udev/60-korux.rules"); }

    QStringList rootOptions() const
    {
        return { QStringLiteral("--sysfs-root"), path(QStringLiteral("sys")), QStringLiteral("--dev-root"),
            path(QStringLiteral("dev")), QStringLiteral("--rules-dirs"),
            path(QStringLiteral("rules/etc")) + QLatin1Char(':') + path(QStringLiteral("rules/lib")) };
    }

    KoruxRun doctor(const QString& scenario = QString())
    {
        return koruxOn(QStringList { QStringLiteral("doctor") } + rootOptions(), scenario);
    }

    Roots fakeRoots() const
    {
        Roots roots;
        roots.sysfs = path(QStringLiteral("sys"));
        roots.dev = path(QStringLiteral("dev"));
        roots.rules = QStringList { path(QStringLiteral("rules/etc")), path(QStringLiteral("rules/lib")) };
        return roots;
    }

private:
    void writeAttribute(const QString& directory, const QString& name, const QString& value)
    {
        QFile file(name.isEmpty() ? directory : directory + QLatin1Char('/') + name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << file.fileName();
        file.write(value.toUtf8() + '\n');
    }
};

TEST_F(KoruxDoctor, NoDeviceAndNoSensorExitsWithNoSensor)
{
    const KoruxRun run = doctor(kNoSensors);
    EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("OK   bridge library: ")));
    EXPECT_TRUE(run.out.contains(QStringLiteral("(the virtual bridge)")));
    EXPECT_TRUE(run.out.contains(
        QStringLiteral("NOTE USB devices 1ce6:0003: none; the virtual bridge's sensors are not USB devices")))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  sensors: the plug-in's enumeration finds none")))
        << run.out;
    EXPECT_TRUE(run.out.endsWith(QStringLiteral("korux doctor: no sensor is present\n"))) << run.out;
}

TEST_F(KoruxDoctor, VirtualBridgeIsJudgedByItsEnumeration)
{
    const KoruxRun run = doctor();
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(inOrder(run.out,
        { QStringLiteral("OK   bridge library: "), QStringLiteral("NOTE udev rule: no rule for 1ce6:0003"),
            QStringLiteral("NOTE USB devices 1ce6:0003: none"),
            QStringLiteral("OK   sensors: the plug-in's enumeration finds 1"),
            QStringLiteral("korux doctor: a sensor is usable") }))
        << run.out;
}

TEST_F(KoruxDoctor, EnumerationLogOnlyWhenVerbose)
{
    const KoruxRun quiet = doctor();
    EXPECT_EQ(quiet.exitCode, 0) << quiet.out << quiet.err;
    EXPECT_FALSE(quiet.out.contains(QStringLiteral("status statusEnumerating (1)"))) << quiet.out;
    const KoruxRun verbose
        = koruxOn(QStringList { QStringLiteral("-v"), QStringLiteral("doctor") } + rootOptions());
    EXPECT_EQ(verbose.exitCode, 0) << verbose.out << verbose.err;
    EXPECT_TRUE(inOrder(verbose.out,
        { QStringLiteral("NOTE USB devices 1ce6:0003: none"), QStringLiteral("status statusEnumerating (1)"),
            QStringLiteral("OK   sensors: the plug-in's enumeration finds 1") }))
        << verbose.out;
}

TEST_F(KoruxDoctor, DeviceWithoutPermissionNamesTheRuleToInstall)
{
    addSensor(0444);
    const KoruxRun run = doctor();
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("OK   USB devices 1ce6:0003: 1 (1-2)"))) << run.out;
    const QString node = path(QStringLiteral("dev/bus/usb/001/005"));
    EXPECT_TRUE(run.out.contains(
        QStringLiteral("FIX  USB 1-2 (serial KX0001, bus 001 device 005): %1 is not readable and writable")
            .arg(node)))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("(-r--r--r-- ")));
    EXPECT_TRUE(
        run.out.contains(QStringLiteral("fix: install the udev rule packaging/udev/60-korux.rules of the "
                                        "korux sources as /etc/udev/rules.d/60-korux.rules, run sudo "
                                        "udevadm control --reload, then unplug and replug the sensor")))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  udev rule: no rule for 1ce6:0003 in "))) << run.out;
    EXPECT_TRUE(run.out.endsWith(
        QStringLiteral("korux doctor: a sensor is present but not usable; mend what the FIX lines say\n")));
}

TEST_F(KoruxDoctor, DeviceWithoutPermissionUnderAnInstalledRuleNamesGroupAndSeat)
{
    addSensor(0444);
    installRule();
    const KoruxRun run = doctor();
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(
        QStringLiteral("OK   udev rule: %1").arg(path(QStringLiteral("rules/etc/60-korux.rules")))))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral(
        "fix: 60-korux.rules grants the user logged in at this machine's seat and group plugdev")))
        << run.out;
}

TEST_F(KoruxDoctor, DeviceWithAKernelDriverBoundSaysWhichAndHowToUnbind)
{
    addSensor();
    installRule();
    bindDriver(QStringLiteral("1-2:1.0"), QStringLiteral("ftdi_sio"));
    const KoruxRun run = doctor();
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("OK   USB 1-2 (serial KX0001, bus 001 device 005): ")
        + path(QStringLiteral("dev/bus/usb/001/005")) + QStringLiteral(" readable and writable")))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral(
        "FIX  USB 1-2 (serial KX0001, bus 001 device 005): interface 1-2:1.0 is bound to the kernel driver "
        "ftdi_sio; fix: echo -n 1-2:1.0 | sudo tee /sys/bus/usb/drivers/ftdi_sio/unbind")))
        << run.out;
    EXPECT_FALSE(run.out.contains(QStringLiteral("no kernel driver bound")));
    EXPECT_TRUE(run.out.contains(QStringLiteral("a sensor is present but not usable")));
}

TEST_F(KoruxDoctor, UsableDeviceExitsOk)
{
    addSensor();
    installRule();
    const KoruxRun run = doctor();
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("FIX "))) << run.out;
    EXPECT_TRUE(inOrder(run.out,
        { QStringLiteral("OK   bridge library: "), QStringLiteral("OK   udev rule: "),
            QStringLiteral("OK   USB devices 1ce6:0003: 1 (1-2)"),
            QStringLiteral(
                "NOTE USB devices 1ce6:0003: the virtual bridge is loaded and does not drive them"),
            QStringLiteral("OK   USB 1-2 (serial KX0001, bus 001 device 005): "),
            QStringLiteral("OK   USB 1-2 (serial KX0001, bus 001 device 005): no kernel driver bound to its "
                           "interfaces"),
            QStringLiteral("OK   sensors: the plug-in's enumeration finds 1"),
            QStringLiteral("korux doctor: a sensor is usable") }))
        << run.out;
}

TEST_F(KoruxDoctor, RootsComeFromTheEnvironmentToo)
{
    addSensor(0444);
    qputenv("KORUX_SYSFS_ROOT", QFile::encodeName(path(QStringLiteral("sys"))));
    qputenv("KORUX_DEV_ROOT", QFile::encodeName(path(QStringLiteral("dev"))));
    qputenv("KORUX_UDEV_RULES_DIRS", QFile::encodeName(path(QStringLiteral("rules/etc"))));
    const KoruxRun run = koruxOn({ QStringLiteral("doctor") });
    qunsetenv("KORUX_SYSFS_ROOT");
    qunsetenv("KORUX_DEV_ROOT");
    qunsetenv("KORUX_UDEV_RULES_DIRS");
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  USB 1-2 "))) << run.out;
}

TEST_F(KoruxDoctor, MissingBridgeLibraryIsAFindingNotTheEnd)
{
    addSensor();
    const KoruxRun run = korux(QStringList { QStringLiteral("--bridge"),
                                   path(QStringLiteral("no/libft4222.so")), QStringLiteral("doctor") }
        + rootOptions());
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  bridge library: none loaded (--bridge ")));
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  sensors: not enumerated: no bridge library")));
    EXPECT_TRUE(run.err.contains(QStringLiteral("cannot load the bridge library"))) << run.err;
}

TEST_F(KoruxDoctor, MissingBridgeLibraryAndNoDeviceIsNoSensor)
{
    const KoruxRun run = korux(QStringList { QStringLiteral("--bridge"),
                                   path(QStringLiteral("no/libft4222.so")), QStringLiteral("doctor") }
        + rootOptions());
    EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  USB devices 1ce6:0003: none; fix: plug the sensor in")))
        << run.out;
}

TEST_F(KoruxDoctor, InAScriptItChecksTheScriptsBridgeAndFamily)
{
    addSensor();
    installRule();
    const QString script = writeFile(QStringLiteral("doctor.korux"),
        (QStringLiteral("list\ndoctor ") + rootOptions().join(QLatin1Char(' ')) + QLatin1Char('\n'))
            .toUtf8());
    const KoruxRun run = koruxOn({ QStringLiteral("run"), script });
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(inOrder(run.out,
        { QStringLiteral("family KORUX-KORUX2 Series: 1 unit"), QStringLiteral("OK   bridge library: "),
            QStringLiteral("/lib/virtual/libft4222.so (the virtual bridge)"),
            QStringLiteral("OK   sensors: the plug-in's enumeration finds 1"),
            QStringLiteral("korux doctor: a sensor is usable") }))
        << run.out;
    EXPECT_EQ(run.out.count(QStringLiteral("status statusEnumerating (1)")), 1) << run.out;
}

TEST_F(KoruxDoctor, HelpNamesTheCommand)
{
    const KoruxRun run = korux({ QStringLiteral("help"), QStringLiteral("doctor") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("korux [options] doctor [--sysfs-root DIR]"))) << run.out;
}

// The checks themselves.

TEST_F(KoruxDoctor, FindsOnlyTheSensorsDevicesWithTheirBindings)
{
    addSensor();
    addUsbDevice(QStringLiteral("1-3"), QStringLiteral("0403"), QStringLiteral("601c"), 1, 6);
    bindDriver(QStringLiteral("1-2:1.0"), QStringLiteral("ftdi_sio"));
    bool busOk = false;
    const QVector<UsbDevice> devices = findSensorDevices(fakeRoots(), &busOk);
    EXPECT_TRUE(busOk);
    ASSERT_EQ(devices.size(), 1);
    EXPECT_EQ(devices[0].name, QStringLiteral("1-2"));
    EXPECT_EQ(devices[0].serial, QStringLiteral("KX0001"));
    EXPECT_EQ(devices[0].bus, 1);
    EXPECT_EQ(devices[0].address, 5);
    EXPECT_EQ(devices[0].node, path(QStringLiteral("dev/bus/usb/001/005")));
    ASSERT_EQ(devices[0].bindings.size(), 1);
    EXPECT_EQ(devices[0].bindings[0].interface, QStringLiteral("1-2:1.0"));
    EXPECT_EQ(devices[0].bindings[0].driver, QStringLiteral("ftdi_sio"));
}

TEST_F(KoruxDoctor, NoUsbBusIsSaid)
{
    Roots roots = fakeRoots();
    roots.sysfs = path(QStringLiteral("nowhere"));
    bool busOk = true;
    EXPECT_TRUE(findSensorDevices(roots, &busOk).isEmpty());
    EXPECT_FALSE(busOk);
}

TEST_F(KoruxDoctor, TheRuleInTheTreeIsFoundAndTagsEarlyEnough)
{
    Roots roots;
    roots.rules = QStringList { QStringLiteral(KORUX_SOURCE_DIR "/packaging/udev") };
    const QVector<RuleFile> rules = findRules(roots);
    ASSERT_EQ(rules.size(), 1);
    EXPECT_TRUE(rules[0].uaccess);
    EXPECT_TRUE(rules[0].line.contains(QStringLiteral("GROUP=\"plugdev\", MODE=\"0660\""))) << rules[0].line;
    EXPECT_FALSE(uaccessTooLate(QStringLiteral("60-korux.rules")));
    EXPECT_TRUE(uaccessTooLate(QStringLiteral("99-korux.rules")));
}

TEST_F(KoruxDoctor, ARuleMaskedOrHiddenByAnEarlierDirectoryDoesNotCount)
{
    installRule(QStringLiteral("rules/lib"));
    EXPECT_EQ(findRules(fakeRoots()).size(), 1);
    // An empty file of the same name in /etc masks the one in /lib.
    QFile mask(path(QStringLiteral("rules/etc/60-korux.rules")));
    ASSERT_TRUE(mask.open(QIODevice::WriteOnly));
    mask.close();
    EXPECT_TRUE(findRules(fakeRoots()).isEmpty());
    // A comment naming the ids is no rule.
    ASSERT_TRUE(mask.open(QIODevice::WriteOnly));
    mask.write("# ATTR{idVendor}==\"1ce6\", ATTR{idProduct}==\"0003\"\n");
    mask.close();
    EXPECT_TRUE(findRules(fakeRoots()).isEmpty());
}

TEST_F(KoruxDoctor, NodeAclOfANamedUserIsRead)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "giving the node another owner needs root";
    const QString node
        = addUsbDevice(QStringLiteral("1-2"), QStringLiteral("1ce6"), QStringLiteral("0003"), 1, 5, 0640);
    const QByteArray nodePath = QFile::encodeName(node);
    ASSERT_EQ(chown(nodePath.constData(), 12345, 12345), 0);
    const Credentials root = currentCredentials();
    EXPECT_FALSE(checkNode(node, root).readWrite);
    // What logind's uaccess does for the seat's user, here for uid 0.
    const QByteArray acl = QByteArray::fromHex("02000000"
                                               "01000600ffffffff"
                                               "02000600"
                                               "00000000"
                                               "04000400ffffffff"
                                               "10000600ffffffff"
                                               "20000000ffffffff");
    if (setxattr(nodePath.constData(), "system.posix_acl_access", acl.constData(), size_t(acl.size()), 0)
        != 0)
        GTEST_SKIP() << "no POSIX ACLs on the test's file system";
    const NodeAccess access = checkNode(node, root);
    EXPECT_TRUE(access.exists);
    EXPECT_TRUE(access.readWrite);
    EXPECT_TRUE(access.description.startsWith(QStringLiteral("-rw-rw----+ "))) << access.description;
}

TEST(DoctorPermissions, OwnerGroupAndOtherBitsAsTheKernelReadsThem)
{
    const Credentials alice { 1000, 1000, { 46 } };
    EXPECT_TRUE(permits(1000, 0, 0600, {}, alice, 6));
    EXPECT_FALSE(permits(1000, 0, 0400, {}, alice, 6));
    // The owner's bits decide for the owner, even when the group's grant more.
    EXPECT_FALSE(permits(1000, 46, 0460, {}, alice, 6));
    EXPECT_TRUE(permits(0, 46, 0660, {}, alice, 6)); // plugdev, as a supplementary group
    EXPECT_FALSE(permits(0, 46, 0606, {}, alice, 6)); // a group that denies is not passed over to other
    EXPECT_TRUE(permits(0, 0, 0666, {}, alice, 6));
    EXPECT_FALSE(permits(0, 0, 0664, {}, alice, 6));
    // Root is judged by the bits too: the node's permissions are the question.
    const Credentials root { 0, 0, {} };
    EXPECT_TRUE(permits(0, 0, 0664, {}, root, 6));
    EXPECT_FALSE(permits(0, 0, 0444, {}, root, 6));
    EXPECT_FALSE(permits(5, 5, 0660, {}, root, 6));
}

TEST(DoctorPermissions, AclOfTheLoggedInUserGrantsWithinTheMask)
{
    // crw-rw-r--+ root root with user:alice:rw-, as logind's uaccess leaves it.
    const Credentials alice { 1000, 1000, {} };
    std::vector<AclEntry> acl { { AclEntry::UserObj, 6, 0xffffffff }, { AclEntry::User, 6, 1000 },
        { AclEntry::GroupObj, 6, 0xffffffff }, { AclEntry::Mask, 6, 0xffffffff },
        { AclEntry::Other, 4, 0xffffffff } };
    EXPECT_TRUE(permits(0, 0, 0664, acl, alice, 6));
    EXPECT_FALSE(permits(0, 0, 0664, acl, Credentials { 1001, 1001, {} }, 6));
    acl[3].perm = 4; // a mask of r-- limits the named user
    EXPECT_FALSE(permits(0, 0, 0644, acl, alice, 6));
}

TEST(DoctorPermissions, AclBytesAsTheKernelStoresThem)
{
    const QByteArray bytes = QByteArray::fromHex("02000000"
                                                 "01000600ffffffff"
                                                 "02000600e8030000"
                                                 "04000600ffffffff"
                                                 "10000600ffffffff"
                                                 "20000400ffffffff");
    std::vector<AclEntry> entries;
    ASSERT_TRUE(parseAcl(bytes, &entries));
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[1].tag, AclEntry::User);
    EXPECT_EQ(entries[1].perm, 6);
    EXPECT_EQ(entries[1].id, 1000u);
    EXPECT_EQ(entries[4].tag, AclEntry::Other);
    EXPECT_EQ(entries[4].perm, 4);
    EXPECT_FALSE(parseAcl(bytes.left(10), &entries));
    EXPECT_FALSE(parseAcl(QByteArray::fromHex("01000000"), &entries));
}

} // namespace
