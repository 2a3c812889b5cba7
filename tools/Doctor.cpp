#include "tools/Doctor.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace korux::doctor {

namespace {

constexpr char kAclAttribute[] = "system.posix_acl_access";
constexpr uint32_t kAclVersion = 2;
constexpr int kAclHeaderSize = 4;
constexpr int kAclEntrySize = 8;
constexpr int kRead = 4;
constexpr int kWrite = 2;

// A sysfs attribute: one line of text, trimmed; empty when missing.
QString attribute(const QString& directory, const char* name)
{
    QFile file(directory + QLatin1Char('/') + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll()).trimmed();
}

uint32_t little32(const QByteArray& bytes, int at)
{
    return uint32_t(uint8_t(bytes[at])) | uint32_t(uint8_t(bytes[at + 1])) << 8
        | uint32_t(uint8_t(bytes[at + 2])) << 16 | uint32_t(uint8_t(bytes[at + 3])) << 24;
}

uint16_t little16(const QByteArray& bytes, int at)
{
    return uint16_t(uint8_t(bytes[at]) | uint8_t(bytes[at + 1]) << 8);
}

bool inGroup(gid_t group, const Credentials& who)
{
    if (who.gid == group)
        return true;
    for (gid_t member : who.groups)
        if (member == group)
            return true;
    return false;
}

// The minimal ACL a file without one has: its mode bits.
std::vector<AclEntry> aclOfMode(mode_t mode)
{
    return { { AclEntry::UserObj, uint16_t((mode >> 6) & 7), 0 },
        { AclEntry::GroupObj, uint16_t((mode >> 3) & 7), 0 }, { AclEntry::Other, uint16_t(mode & 7), 0 } };
}

QString userName(uid_t uid)
{
    const passwd* entry = getpwuid(uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(uid);
}

QString groupName(gid_t gid)
{
    const group* entry = getgrgid(gid);
    return entry ? QString::fromLocal8Bit(entry->gr_name) : QString::number(gid);
}

// "crw-rw-r--" as ls prints it, with "+" when an ACL is set.
QString modeText(mode_t mode, bool acl)
{
    QString text = S_ISCHR(mode) ? QStringLiteral("c")
        : S_ISDIR(mode)          ? QStringLiteral("d")
                                 : QStringLiteral("-");
    const char letters[] = "rwx";
    for (int bit = 8; bit >= 0; --bit)
        text += (mode & (1u << bit)) ? QLatin1Char(letters[(8 - bit) % 3]) : QLatin1Char('-');
    return acl ? text + QLatin1Char('+') : text;
}

// An empty file or a link to /dev/null in a rules directory masks the file
// of that name further down.
bool masks(const QFileInfo& file)
{
    if (file.isSymLink() && file.symLinkTarget() == QLatin1String("/dev/null"))
        return true;
    return file.size() == 0;
}

} // namespace

Roots rootsFromEnvironment()
{
    Roots roots;
    const QString sysfs = qEnvironmentVariable("KORUX_SYSFS_ROOT");
    if (!sysfs.isEmpty())
        roots.sysfs = sysfs;
    const QString dev = qEnvironmentVariable("KORUX_DEV_ROOT");
    if (!dev.isEmpty())
        roots.dev = dev;
    const QString rules = qEnvironmentVariable("KORUX_UDEV_RULES_DIRS");
    if (!rules.isEmpty())
        roots.rules = rules.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    return roots;
}

QVector<UsbDevice> findSensorDevices(const Roots& roots, bool* busOk)
{
    QVector<UsbDevice> devices;
    const QDir bus(roots.sysfs + QStringLiteral("/bus/usb/devices"));
    *busOk = bus.exists();
    if (!*busOk)
        return devices;
    // Interfaces ("1-2:1.0") and root hubs sit in the same directory; only
    // devices have the id attributes, and only ours have these ids.
    const QStringList names = bus.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& name : names) {
        const QString directory = bus.filePath(name);
        if (attribute(directory, "idVendor").toLower() != QLatin1String(kSensorVendorId)
            || attribute(directory, "idProduct").toLower() != QLatin1String(kSensorProductId))
            continue;
        UsbDevice device;
        device.name = name;
        device.serial = attribute(directory, "serial");
        device.bus = attribute(directory, "busnum").toInt();
        device.address = attribute(directory, "devnum").toInt();
        device.node = QStringLiteral("%1/bus/usb/%2/%3")
                          .arg(roots.dev)
                          .arg(device.bus, 3, 10, QLatin1Char('0'))
                          .arg(device.address, 3, 10, QLatin1Char('0'));
        // Each interface of the active configuration is a subdirectory
        // "<device>:<configuration>.<interface>"; a bound driver is a link.
        const QStringList interfaces = QDir(directory).entryList(
            { name + QStringLiteral(":*") }, QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
        for (const QString& interface : interfaces) {
            const QFileInfo driver(directory + QLatin1Char('/') + interface + QStringLiteral("/driver"));
            if (driver.isSymLink())
                device.bindings.append({ interface, QFileInfo(driver.symLinkTarget()).fileName() });
        }
        devices.append(device);
    }
    return devices;
}

Credentials currentCredentials()
{
    Credentials who;
    who.uid = geteuid();
    who.gid = getegid();
    const int count = getgroups(0, nullptr);
    if (count > 0) {
        who.groups.resize(size_t(count));
        const int got = getgroups(count, who.groups.data());
        who.groups.resize(size_t(got > 0 ? got : 0));
    }
    return who;
}

bool parseAcl(const QByteArray& xattr, std::vector<AclEntry>* entries)
{
    entries->clear();
    if (xattr.size() < kAclHeaderSize || (xattr.size() - kAclHeaderSize) % kAclEntrySize != 0
        || little32(xattr, 0) != kAclVersion)
        return false;
    for (int at = kAclHeaderSize; at < xattr.size(); at += kAclEntrySize)
        entries->push_back({ little16(xattr, at), little16(xattr, at + 2), little32(xattr, at + 4) });
    return true;
}

bool permits(
    uid_t owner, gid_t group, mode_t mode, const std::vector<AclEntry>& acl, const Credentials& who, int want)
{
    // The kernel's order: owner, named users, then the groups (the owning
    // one and named ones, any that grants it all), then everybody else.
    // Named users and every group are limited by the mask.
    const std::vector<AclEntry> entries = acl.empty() ? aclOfMode(mode) : acl;
    int mask = 7;
    for (const AclEntry& entry : entries)
        if (entry.tag == AclEntry::Mask)
            mask = entry.perm;
    auto grants = [want](int perm) { return (perm & want) == want; };
    for (const AclEntry& entry : entries)
        if (entry.tag == AclEntry::UserObj && who.uid == owner)
            return grants(entry.perm);
    for (const AclEntry& entry : entries)
        if (entry.tag == AclEntry::User && who.uid == entry.id)
            return grants(entry.perm & mask);
    bool member = false;
    for (const AclEntry& entry : entries) {
        const bool matches = (entry.tag == AclEntry::GroupObj && inGroup(group, who))
            || (entry.tag == AclEntry::Group && inGroup(gid_t(entry.id), who));
        if (!matches)
            continue;
        member = true;
        if (grants(entry.perm & mask))
            return true;
    }
    if (member)
        return false;
    for (const AclEntry& entry : entries)
        if (entry.tag == AclEntry::Other)
            return grants(entry.perm);
    return false;
}

NodeAccess checkNode(const QString& node, const Credentials& who)
{
    NodeAccess access;
    const QByteArray path = QFile::encodeName(node);
    struct stat facts { };
    if (stat(path.constData(), &facts) != 0)
        return access;
    access.exists = true;
    std::vector<AclEntry> acl;
    const ssize_t size = getxattr(path.constData(), kAclAttribute, nullptr, 0);
    if (size > 0) {
        QByteArray xattr(int(size), '\0');
        const ssize_t got = getxattr(path.constData(), kAclAttribute, xattr.data(), size_t(xattr.size()));
        if (got > 0) {
            xattr.resize(int(got));
            parseAcl(xattr, &acl);
        }
    }
    access.description
        = QStringLiteral("%1 %2 %3")
              .arg(modeText(facts.st_mode, !acl.empty()), userName(facts.st_uid), groupName(facts.st_gid));
    if (who.uid != 0 && who.uid == geteuid())
        access.readWrite = faccessat(AT_FDCWD, path.constData(), R_OK | W_OK, AT_EACCESS) == 0;
    else
        access.readWrite = permits(facts.st_uid, facts.st_gid, facts.st_mode, acl, who, kRead | kWrite);
    return access;
}

QVector<RuleFile> findRules(const Roots& roots)
{
    QVector<RuleFile> found;
    QStringList seen;
    for (const QString& directory : roots.rules) {
        const QFileInfoList files = QDir(directory).entryInfoList(
            { QStringLiteral("*.rules") }, QDir::Files | QDir::System, QDir::Name);
        for (const QFileInfo& file : files) {
            if (seen.contains(file.fileName()))
                continue;
            seen << file.fileName();
            if (masks(file))
                continue;
            QFile rules(file.filePath());
            if (!rules.open(QIODevice::ReadOnly))
                continue;
            // A rule may run over several lines with a trailing backslash.
            QString logical;
            while (!rules.atEnd()) {
                QString line = QString::fromUtf8(rules.readLine()).trimmed();
                if (line.endsWith(QLatin1Char('\\'))) {
                    logical += line.chopped(1) + QLatin1Char(' ');
                    continue;
                }
                logical += line;
                const QString rule = logical.trimmed();
                logical.clear();
                const QString lower = rule.toLower();
                if (rule.startsWith(QLatin1Char('#')) || !lower.contains(QLatin1String(kSensorVendorId))
                    || !lower.contains(QLatin1String(kSensorProductId)))
                    continue;
                found.append({ file.filePath(), rule, lower.contains(QLatin1String("\"uaccess\"")) });
                break;
            }
        }
    }
    return found;
}

bool uaccessTooLate(const QString& ruleFileName)
{
    return ruleFileName >= QLatin1String("73-seat-late.rules");
}

} // namespace korux::doctor
