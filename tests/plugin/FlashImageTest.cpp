// A sensor's flash outlives the process: a scenario that names a flash image
// file finds there what the last run left.
#include "support/PluginHarness.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

using namespace testing_support;

namespace {

unsigned int increaseOnce(const std::string& scenario)
{
    PluginHarness host;
    std::string error;
    EXPECT_TRUE(host.bridge().loadScenario(scenario, &error)) << error;
    host.initialize();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    EXPECT_TRUE(unit->openPorts());
    EXPECT_TRUE(unit->initPortC(false));
    EXPECT_TRUE(unit->setShootCounter(0xFFFFFFFF));
    unsigned int value = 0;
    EXPECT_TRUE(unit->getShootCounter(&value));
    unit->closePorts();
    return value;
}

}  // namespace

TEST(FlashImage, CounterIncreasedInOneRunIsSeenByTheNext)
{
    QTemporaryDir dir;
    const QString scenario = QDir(dir.path()).filePath("scenario.json");
    QFile file(scenario);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"sensors": [{"serial": "KX0301", "flash": {"image": "KX0301-flash.bin", "counter": [41]}}]})");
    file.close();

    EXPECT_EQ(increaseOnce(scenario.toStdString()), 42u);
    ASSERT_TRUE(QFile::exists(QDir(dir.path()).filePath("KX0301-flash.bin")));
    EXPECT_EQ(QFileInfo(QDir(dir.path()).filePath("KX0301-flash.bin")).size(), 16 * 1024 * 1024);
    EXPECT_EQ(increaseOnce(scenario.toStdString()), 43u);
}
