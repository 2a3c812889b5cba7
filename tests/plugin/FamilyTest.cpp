#include "support/PluginHarness.h"

#include <QCoreApplication>
#include <QFile>
#include <QMetaMethod>
#include <dlfcn.h>

#include <QString>

using namespace testing_support;

namespace {

class FamilyTest : public ::testing::Test {
protected:
    PluginHarness host;
};

const char kDefaultFamilyReport[] =
    "[\n"
    "    {\n"
    "        \"KORUX-KORUX2 Series\": [\n"
    "            {\n"
    "                \"ACECoeff\": 4,\n"
    "                \"ACECoeffCSI\": 7,\n"
    "                \"ACEValue\": 25000,\n"
    "                \"ACEValueInside\": 10000,\n"
    "                \"FlashAddress\": 0,\n"
    "                \"Oscilloscope\": false,\n"
    "                \"PhdTreshold\": 440\n"
    "            }\n"
    "        ]\n"
    "    }\n"
    "]\n";

}  // namespace

TEST_F(FamilyTest, FactoryMakesAFamilyWithTheSevenDefaultParameters)
{
    const QMap<QString, QVariant> parameters = host.family().parameters();
    EXPECT_EQ(parameters.size(), 7);
    EXPECT_EQ(parameters.value("ACEValueInside"), QVariant(10000));
    EXPECT_EQ(parameters.value("ACEValue"), QVariant(25000));
    EXPECT_EQ(parameters.value("Oscilloscope"), QVariant(false));
    EXPECT_EQ(parameters.value("PhdTreshold"), QVariant(440));
    EXPECT_EQ(parameters.value("ACECoeff"), QVariant(4));
    EXPECT_EQ(parameters.value("ACECoeffCSI"), QVariant(7));
    EXPECT_EQ(parameters.value("FlashAddress"), QVariant(0));
    EXPECT_EQ(parameters.value("Oscilloscope").type(), QVariant::Bool);
    EXPECT_EQ(parameters.value("PhdTreshold").type(), QVariant::Int);
}

TEST_F(FamilyTest, FactoryNeitherEnumeratesNorLogs)
{
    EXPECT_TRUE(host.seen().all.isEmpty());
    EXPECT_TRUE(host.seen().statuses.empty());
    EXPECT_EQ(host.bridge().callCount(), 0u);
    EXPECT_EQ(host.family().status(), statusUnknown);
}

TEST_F(FamilyTest, InitializeNamesTheSeriesAndItsManufacturer)
{
    host.addSensors(1);
    ASSERT_TRUE(host.initialize());
    EXPECT_EQ(host.family().codeName(), "KORUX-KORUX2 Series");
    EXPECT_EQ(host.family().manufacturer(), "TAVEN");
    EXPECT_EQ(host.family().sensorFamily(), "KORUX-KORUX2 Series");
    EXPECT_EQ(host.seen().advanced.value(0), QString::fromUtf8("KORUX-KORUX² Series initializeVeltraHardwareFamily"));
}

TEST_F(FamilyTest, InitializeWithoutSensorReturnsTrueAndReportsNoSensor)
{
    EXPECT_TRUE(host.initialize());
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusNoSensor}));
    EXPECT_EQ(host.family().status(), statusNoSensor);
    EXPECT_TRUE(host.seen().hasLog(QString::fromUtf8("[red]No KORUX/KORUX² Series found!")));
}

TEST_F(FamilyTest, FamilyReportWithDefaultsIsTheIndentedJson)
{
    host.family().gotoStatus(commandFamilyReport);
    ASSERT_EQ(host.seen().data.size(), 1);
    EXPECT_EQ(host.seen().data[0].toStdString(), kDefaultFamilyReport);
    EXPECT_TRUE(host.seen().hasAdvanced(QString("[green]") + kDefaultFamilyReport));
}

TEST_F(FamilyTest, FamilyReportShowsAHostAddedStringParameterAsString)
{
    host.family().setParameter("X", QVariant(QString("text")));
    host.family().gotoStatus(commandFamilyReport);
    ASSERT_EQ(host.seen().data.size(), 1);
    EXPECT_TRUE(host.seen().data[0].contains("\"X\": \"text\"")) << host.seen().data[0].toStdString();
}

TEST_F(FamilyTest, RemovedParameterReadsAsInvalidVariantAndZero)
{
    EXPECT_FALSE(host.family().getParameter("NoSuchKey").isValid());
    EXPECT_EQ(host.family().getParameter("NoSuchKey").toUInt(), 0u);
}

TEST_F(FamilyTest, MetaObjectHasTheThreePublicSlotsInOrder)
{
    const QMetaObject* meta = host.family().metaObject();
    EXPECT_STREQ(meta->className(), "QVeltraXRayKORUXPlugIn");
    EXPECT_EQ(meta->superClass(), &QVeltraHardwareFamily::staticMetaObject);
    const int offset = meta->methodOffset();
    ASSERT_EQ(meta->methodCount() - offset, 3);
    EXPECT_EQ(meta->method(offset).methodSignature(), "forwardToStatusChanged(hardwareStatus)");
    EXPECT_EQ(meta->method(offset + 1).methodSignature(), "gotoStatus(hardwareStatus)");
    EXPECT_EQ(meta->method(offset + 2).methodSignature(), "gotoUnitStatus(QString,hardwareStatus)");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(meta->method(offset + i).methodType(), QMetaMethod::Slot);
        EXPECT_EQ(meta->method(offset + i).access(), QMetaMethod::Public);
    }
    EXPECT_EQ(host.family().qt_metacast("QVeltraXRayKORUXPlugIn"), &host.family());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(meta->method(offset + i).returnType(), QMetaType::Void) << i;
    EXPECT_EQ(meta->propertyCount(), meta->propertyOffset());
    EXPECT_EQ(meta->enumeratorCount(), meta->enumeratorOffset());
    EXPECT_EQ(meta->classInfoCount(), meta->classInfoOffset());
    EXPECT_EQ(meta->constructorCount(), 0);
}

TEST_F(FamilyTest, GotoStatusSlotIsReachedByName)
{
    ASSERT_TRUE(QMetaObject::invokeMethod(&host.family(), "gotoStatus", Qt::DirectConnection,
                                          Q_ARG(hardwareStatus, statusNoOpBegin)));
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusNoOpBegin, statusNoOpEnd}));
}

// The shared plug-in as a host loads it (these tests link its objects
// directly): the factory is exported unmangled, with the one member korux
// resolves, and nothing of the plug-in's internals.
TEST_F(FamilyTest, PlugInLibraryExportsTheFactoryAndNoInternals)
{
    // The test programs sit in the build tree's tests/ folder.
    const QByteArray build = QFile::encodeName(QCoreApplication::applicationDirPath() + "/..");
    // The plug-in's needed bridge library, by its name: the virtual one.
    void* bridge = dlopen(build + "/lib/virtual/libft4222.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(bridge, nullptr) << dlerror();
    void* library = dlopen(build + "/lib/libVeltraXRayKORUX.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    EXPECT_NE(dlsym(library, "getVeltraHardware"), nullptr);
    EXPECT_NE(dlsym(library, "_ZN26QVeltraXRayKORUXPlugInUnit15setShootCounterEj"), nullptr);
    // Internals: an operation of the unit, the family's wrappers, korux::.
    EXPECT_EQ(dlsym(library, "_ZN26QVeltraXRayKORUXPlugInUnit8armSensorEbb"), nullptr);
    EXPECT_EQ(dlsym(library, "_ZN22QVeltraXRayKORUXPlugIn12deviceUnitEl"), nullptr);
    EXPECT_EQ(dlsym(library, "_ZN5korux14OperationScopeC1Ev"), nullptr);
    dlclose(library);
    dlclose(bridge);
}
