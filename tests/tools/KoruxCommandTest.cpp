// korux run as a user runs it: its exit statuses, its usage and its
// messages, and a listing on the virtual bridge.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <vector>

#include <elf.h>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, HelpPrintsTheUsageAndSucceeds)
{
    const KoruxRun run = korux({ QStringLiteral("help") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("usage: korux"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("list"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("--bridge"))) << run.out;
    EXPECT_TRUE(run.err.isEmpty()) << run.err;
}

TEST_F(Korux, HelpOptionPrintsTheUsage)
{
    const KoruxRun run = korux({ QStringLiteral("--help") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("usage: korux"))) << run.out;
}

TEST_F(Korux, HelpOfOneCommandGivesItsSynopsis)
{
    const KoruxRun run = korux({ QStringLiteral("help"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("korux [options] list"))) << run.out;
}

TEST_F(Korux, NoCommandIsAUsageError)
{
    const KoruxRun run = korux({});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.err, QStringLiteral("korux: no command given\nkorux: see korux help\n"));
}

TEST_F(Korux, UnknownCommandIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("frobnicate") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("unknown command \"frobnicate\""))) << run.err;
    EXPECT_TRUE(run.err.endsWith(QStringLiteral("\nkorux: see korux help\n"))) << run.err;
    EXPECT_TRUE(run.out.isEmpty()) << run.out;
}

TEST_F(Korux, UnknownOptionIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("--frobnicate"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("unknown option \"--frobnicate\""))) << run.err;
    EXPECT_TRUE(run.err.endsWith(QStringLiteral("\nkorux: see korux help\n"))) << run.err;
}

TEST_F(Korux, OptionWithoutItsValueIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("list"), QStringLiteral("--bridge") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("--bridge needs a value"))) << run.err;
}

TEST_F(Korux, BadColorModeIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("--color=sometimes"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("sometimes"))) << run.err;
}

TEST_F(Korux, ExtraArgumentsAreAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("list"), QStringLiteral("now") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.endsWith(QStringLiteral("\nkorux: see korux help list\n"))) << run.err;
    EXPECT_EQ(run.err.count(QLatin1Char('\n')), 2) << run.err;
}

TEST_F(Korux, MalformedScenarioIsNamedAndNothingStarts)
{
    const QString scenario = writeFile(QStringLiteral("broken.json"), "{ \"sensors\": [ ");
    const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("--dir"),
        familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(scenario)) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("status "))) << run.out;
}

TEST_F(Korux, MissingScenarioIsNamed)
{
    const QString scenario = directory_.filePath(QStringLiteral("absent.json"));
    const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(scenario)) << run.err;
}

namespace {

constexpr char kVendorBridge[] = "libft4222.so";

// The run path written into an ELF program (DT_RUNPATH, else DT_RPATH), with
// $ORIGIN expanded; empty when it has none or is not a 64-bit ELF file.
QStringList runPath(const QString& program)
{
    QFile file(program);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.constData());
    const auto size = static_cast<size_t>(bytes.size());
    Elf64_Ehdr header;
    if (size < sizeof(header))
        return {};
    std::memcpy(&header, data, sizeof(header));
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64)
        return {};
    std::vector<Elf64_Phdr> segments(header.e_phnum);
    for (size_t i = 0; i < segments.size(); ++i) {
        const size_t at = header.e_phoff + i * sizeof(Elf64_Phdr);
        if (at + sizeof(Elf64_Phdr) > size)
            return {};
        std::memcpy(&segments[i], data + at, sizeof(Elf64_Phdr));
    }
    // Addresses in the dynamic section are virtual: find them in the file.
    const auto fileOffset = [&](Elf64_Addr address) -> size_t {
        for (const Elf64_Phdr& segment : segments)
            if (segment.p_type == PT_LOAD && address >= segment.p_vaddr
                && address < segment.p_vaddr + segment.p_filesz)
                return segment.p_offset + (address - segment.p_vaddr);
        return size;
    };
    Elf64_Addr strings = 0;
    Elf64_Xword runPathAt = 0;
    bool found = false;
    for (const Elf64_Phdr& segment : segments) {
        if (segment.p_type != PT_DYNAMIC)
            continue;
        for (size_t at = segment.p_offset;
             at + sizeof(Elf64_Dyn) <= segment.p_offset + segment.p_filesz && at + sizeof(Elf64_Dyn) <= size;
             at += sizeof(Elf64_Dyn)) {
            Elf64_Dyn entry;
            std::memcpy(&entry, data + at, sizeof(entry));
            if (entry.d_tag == DT_NULL)
                break;
            if (entry.d_tag == DT_STRTAB)
                strings = entry.d_un.d_ptr;
            else if (entry.d_tag == DT_RUNPATH || (entry.d_tag == DT_RPATH && !found)) {
                runPathAt = entry.d_un.d_val;
                found = true;
            }
        }
    }
    const size_t at = found ? fileOffset(strings) + runPathAt : size;
    if (at >= size)
        return {};
    const QString text = QString::fromLocal8Bit(reinterpret_cast<const char*>(data + at),
        static_cast<int>(strnlen(reinterpret_cast<const char*>(data + at), size - at)));
    const QString origin = QFileInfo(program).absolutePath();
    QStringList directories;
    for (QString directory : text.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        directory.replace(QStringLiteral("${ORIGIN}"), origin);
        directory.replace(QStringLiteral("$ORIGIN"), origin);
        directories << directory;
    }
    return directories;
}

// Where the dynamic loader finds the vendor bridge when korux asks for it by
// name, as the tests run korux (no LD_LIBRARY_PATH): korux's own run path,
// the loader's cache, the default directories. Empty when nowhere.
QString vendorBridgeKoruxWouldFind()
{
    for (const QString& directory : runPath(korux_test::koruxPath())) {
        const QString candidate = QDir(directory).filePath(QLatin1String(kVendorBridge));
        if (QFileInfo::exists(candidate))
            return candidate;
    }
    QProcess cache;
    cache.start(QStringLiteral("/sbin/ldconfig"), { QStringLiteral("-p") });
    if (cache.waitForFinished(10000)) {
        const QStringList lines
            = QString::fromLocal8Bit(cache.readAllStandardOutput()).split(QLatin1Char('\n'));
        for (const QString& line : lines)
            if (line.trimmed().startsWith(QLatin1String(kVendorBridge) + QLatin1Char(' ')))
                return line.section(QStringLiteral("=> "), 1).trimmed();
    }
    for (const char* directory : { "/lib", "/usr/lib", "/lib64", "/usr/lib64" }) {
        const QString candidate = QDir(QLatin1String(directory)).filePath(QLatin1String(kVendorBridge));
        if (QFileInfo::exists(candidate))
            return candidate;
    }
    return QString();
}

} // namespace

// Decided from what korux would find, not from what this test program finds:
// the test program links the virtual bridge, under the same name.
TEST_F(Korux, VendorBridgeMissingIsExplained)
{
    // korux reaches the framework library through its run path, which the
    // probe reads; the virtual bridge is not on it.
    const QStringList directories = runPath(korux_test::koruxPath());
    EXPECT_TRUE(std::any_of(directories.begin(), directories.end(), [](const QString& directory) {
        return QFileInfo::exists(QDir(directory).filePath(QStringLiteral("libVeltraXRayHardware.so")));
    })) << directories.join(QLatin1Char(' '));
    const QString installed = vendorBridgeKoruxWouldFind();
    if (!installed.isEmpty())
        GTEST_SKIP() << "an FT4222 bridge library is installed on this machine: " << installed;
    const KoruxRun run
        = korux({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 4);
    EXPECT_TRUE(run.err.contains(QStringLiteral("no FT4222 bridge library is installed on this machine")))
        << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("LibFT4222"))) << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("--bridge virtual"))) << run.err;
    EXPECT_TRUE(run.out.isEmpty()) << run.out;
}

TEST_F(Korux, BridgePathThatDoesNotLoadIsExplained)
{
    const QString path = directory_.filePath(QStringLiteral("libft4222.so"));
    const KoruxRun run = korux({ QStringLiteral("--bridge"), path, QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 4);
    EXPECT_TRUE(run.err.contains(path)) << run.err;
}

TEST_F(Korux, PluginThatDoesNotLoadIsAFailure)
{
    const QString path = directory_.filePath(QStringLiteral("libnothing.so"));
    const KoruxRun run = korux({ QStringLiteral("--plugin"), path, QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(path)) << run.err;
}

TEST_F(Korux, ListFindsTheDefaultSensorOnTheVirtualBridge)
{
    const KoruxRun run = korux({ QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusEnumerating (1)\n"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusSensorFound (4)\n"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nunit 0: board "))) << run.out;
    EXPECT_TRUE(run.out.endsWith(QStringLiteral(": 1 unit, status statusSensorFound (4)\n"))) << run.out;
}

TEST_F(Korux, ListWithoutSensorsEndsInNoSensor)
{
    const QString scenario = writeFile(QStringLiteral("empty.json"), "{ \"sensors\": [] }");
    const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("--dir"),
        familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 3) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusNoSensor (3)\n"))) << run.out;
}

TEST_F(Korux, LogTagsAreDroppedWhenNotColouring)
{
    const KoruxRun run = korux({ QStringLiteral("--color"), QStringLiteral("never"), QStringLiteral("-v"),
        QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nenumKORUXPlugIn OK.\n"))) << run.out;
    EXPECT_FALSE(run.out.contains(QStringLiteral("[green"))) << run.out;
    EXPECT_FALSE(run.out.contains(QChar(0x1b))) << run.out;
}

TEST_F(Korux, LogTagsBecomeColoursWhenAsked)
{
    const KoruxRun run = korux({ QStringLiteral("--color"), QStringLiteral("always"), QStringLiteral("-v"),
        QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("[green]"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\033[32m"))) << run.out;
}

TEST_F(Korux, DetailedLogOnlyWithVerbose)
{
    const KoruxRun quiet = korux({ QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    const KoruxRun verbose
        = korux({ QStringLiteral("-v"), QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(verbose.exitCode, 0);
    EXPECT_GT(verbose.out.count('\n'), quiet.out.count('\n'));
    EXPECT_TRUE(verbose.out.startsWith(QStringLiteral("bridge "))) << verbose.out;
    EXPECT_TRUE(verbose.out.contains(QStringLiteral("(virtual)"))) << verbose.out;
}

// Without --bridge korux takes the vendor's library when one is installed,
// else the virtual bridge, and says once which (not with -q).
TEST_F(Korux, TheAutomaticBridgeSaysWhichItUses)
{
    if (!vendorBridgeKoruxWouldFind().isEmpty())
        GTEST_SKIP() << "an FT4222 bridge library is installed on this machine";
    const QStringList list { QStringLiteral("--time-scale"), QStringLiteral("0"), QStringLiteral("--dir"),
        familyDirectory(), QStringLiteral("list") };
    const KoruxRun run = korux(list);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err.count(
                  QStringLiteral("korux: no vendor bridge library is installed; using the virtual bridge")),
        1)
        << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral(": 1 unit,"))) << run.out;
    const KoruxRun quiet = korux(QStringList { QStringLiteral("-q") } + list);
    EXPECT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_TRUE(quiet.err.isEmpty()) << quiet.err;
}

// Plain doctor checks what a machine with sensors needs: here, without the
// vendor's library, it does not pass on the virtual bridge's sensor.
TEST_F(Korux, PlainDoctorDiagnosesTheMachineNotTheVirtualBridge)
{
    if (!vendorBridgeKoruxWouldFind().isEmpty())
        GTEST_SKIP() << "an FT4222 bridge library is installed on this machine";
    const KoruxRun run = korux({ QStringLiteral("doctor") });
    EXPECT_NE(run.exitCode, 0) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  bridge library: none loaded"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("FIX  sensors: not enumerated"))) << run.out;
    EXPECT_FALSE(run.out.contains(QStringLiteral("is usable"))) << run.out;

    const KoruxRun virtualRun
        = korux({ QStringLiteral("--bridge"), QStringLiteral("virtual"), QStringLiteral("doctor") });
    EXPECT_EQ(virtualRun.exitCode, 0) << virtualRun.out;
    EXPECT_TRUE(virtualRun.out.contains(QStringLiteral("(the virtual bridge)"))) << virtualRun.out;
    EXPECT_TRUE(
        virtualRun.out.contains(QStringLiteral("korux doctor: a sensor is usable on the virtual bridge; no "
                                               "real sensor was checked")))
        << virtualRun.out;
}
