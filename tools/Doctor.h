// What korux doctor looks at on a Linux machine: the sensors' USB devices in
// sysfs, their device nodes and who may open them, kernel drivers bound to
// their interfaces, and the udev rule that grants access. Pure functions over
// directory roots, so that tests hand them fake trees.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdint>
#include <sys/types.h>
#include <vector>

namespace korux::doctor {

// The sensor's bridge as it shows on the USB bus.
constexpr char kSensorVendorId[] = "1ce6";
constexpr char kSensorProductId[] = "0003";
constexpr char kRuleFileName[] = "60-korux.rules";

struct Roots {
    QString sysfs = QStringLiteral("/sys");
    QString dev = QStringLiteral("/dev");
    // In udev's order of precedence: a file in an earlier directory hides
    // one of the same name in a later one.
    QStringList rules = { QStringLiteral("/etc/udev/rules.d"), QStringLiteral("/run/udev/rules.d"),
        QStringLiteral("/lib/udev/rules.d"), QStringLiteral("/usr/lib/udev/rules.d") };
};

// The defaults, or KORUX_SYSFS_ROOT, KORUX_DEV_ROOT and KORUX_UDEV_RULES_DIRS
// (directories separated by ':') where they are set and not empty.
Roots rootsFromEnvironment();

struct Binding {
    QString interface; // "1-2:1.0"
    QString driver; // "ftdi_sio", "usbfs", ...
};

struct UsbDevice {
    QString name; // the sysfs name, "1-2"
    QString serial; // empty when the device has none
    int bus = 0;
    int address = 0;
    QString node; // <dev root>/bus/usb/BBB/DDD
    QVector<Binding> bindings; // interfaces with a driver bound
};

// The devices with the sensor's ids under <sysfs>/bus/usb/devices, by name.
// busOk is false when that directory does not exist (no USB bus visible).
QVector<UsbDevice> findSensorDevices(const Roots& roots, bool* busOk);

// Who asks: the effective ids and every group the process is in.
struct Credentials {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups; // supplementary ones
};
Credentials currentCredentials();

// One entry of a POSIX access ACL, as the kernel stores it in the
// system.posix_acl_access attribute.
struct AclEntry {
    enum Tag : uint16_t {
        UserObj = 0x01,
        User = 0x02,
        GroupObj = 0x04,
        Group = 0x08,
        Mask = 0x10,
        Other = 0x20
    };
    uint16_t tag = 0;
    uint16_t perm = 0; // 4 read, 2 write, 1 execute
    uint32_t id = 0;
};

// The attribute's bytes as entries; false when they are not an ACL.
bool parseAcl(const QByteArray& xattr, std::vector<AclEntry>* entries);

// Whether the owner, group, mode bits and ACL (empty: none) of a file grant
// who every bit of want (4 read, 2 write), by the kernel's rules, with no
// privilege: uid 0 is judged as any other user.
bool permits(uid_t owner, gid_t group, mode_t mode, const std::vector<AclEntry>& acl, const Credentials& who,
    int want);

struct NodeAccess {
    bool exists = false;
    bool readWrite = false;
    QString description; // "crw-rw----+ root plugdev"
};

// Whether who may open the node for reading and writing. An unprivileged
// caller asks the kernel (access(2)); for root that answer is always yes, so
// root is judged by the node's owner, group, mode and ACL: the question is
// whether the node's permissions let the sensor be used, not whether root
// can override them.
NodeAccess checkNode(const QString& node, const Credentials& who);

struct RuleFile {
    QString path;
    QString line; // the first rule line naming both ids
    bool uaccess = false; // that line tags the device for the logged-in user
};

// The rule files in effect (a file hidden by one of the same name in an
// earlier directory does not count, nor one masked by an empty file or a link
// to /dev/null) with a rule line naming 1ce6 and 0003.
QVector<RuleFile> findRules(const Roots& roots);

// uaccess only takes effect in rule files read before 73-seat-late.rules.
bool uaccessTooLate(const QString& ruleFileName);

} // namespace korux::doctor
