// Long runs: hundreds of acquisitions in one process, on one sensor and on
// four at once. Every shot delivered, the shot counter up by exactly the
// number delivered, and no memory growth once the process has warmed up.
// Labelled "soak": scripts/test --soak runs these alone.
#include <QImage>

#include <algorithm>
#include <cstdio>
#include <malloc.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/PluginHarness.h"

using testing_support::PluginHarness;

namespace {

constexpr int kWarmUpShots = 50;
constexpr long kGrowthLimitBytes = 2L * 1024 * 1024;

// The resident size of what the process holds. The allocator keeps freed
// image buffers for reuse, and where they sit in its heaps depends on the
// order of the shot's allocations, so it first gives back every free page:
// what stays resident is then what is still allocated.
long residentBytes()
{
    malloc_trim(0);
    long pages = 0;
    long resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (!statm)
        return -1;
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
        resident = -1;
    std::fclose(statm);
    return resident < 0 ? -1 : resident * sysconf(_SC_PAGESIZE);
}

void soak(int sensors, int shots)
{
    // Buffers of half a megabyte and more (images, pictures, blocks) are
    // mapped on their own and unmapped when freed. Left to itself the
    // allocator raises that threshold as it frees them and places the next
    // ones in its heaps, and the resident size then moves by whole images
    // from shot to shot.
    mallopt(M_MMAP_THRESHOLD, 512 * 1024);
    PluginHarness host;
    host.bridge().setTraceEnabled(false);
    for (int i = 0; i < sensors; ++i)
        host.bridge().addSensor(PluginHarness::twoTickSensor());
    ASSERT_TRUE(host.initialize());
    ASSERT_EQ(host.unitCount(), sensors);
    std::vector<uint32_t> before;
    for (int i = 0; i < sensors; ++i)
        before.push_back(PluginHarness::storedCounter(i));

    host.family().gotoStatus(statusFpgaUpdating);
    ASSERT_EQ(host.family().status(), statusFpgaUpdated);
    int delivered = 0;
    std::vector<long> resident;
    for (int shot = 1; shot <= shots; ++shot) {
        host.seen().clear();
        if (host.family().status() == statusAcquired)
            host.family().gotoStatus(statusEnumerating);
        host.family().gotoStatus(statusArming);
        ASSERT_EQ(host.family().status(), statusArmed) << "shot " << shot;
        ASSERT_TRUE(host.runUntil(
            [&] {
                for (int i = 0; i < sensors; ++i)
                    if (host.unit(i)->status() != statusAcquired)
                        return false;
                return true;
            },
            5000))
            << "shot " << shot;
        for (const auto& image : host.seen().images)
            delivered += image.image.isNull() ? 0 : 1;
        ASSERT_EQ(host.seen().images.size(), static_cast<size_t>(sensors)) << "shot " << shot;
        if (shot >= kWarmUpShots) {
            host.seen().clear();
            resident.push_back(residentBytes());
            ASSERT_GT(resident.back(), 0);
        }
    }

    EXPECT_EQ(delivered, sensors * shots);
    for (int i = 0; i < sensors; ++i)
        EXPECT_EQ(PluginHarness::storedCounter(i), before[i] + static_cast<uint32_t>(shots)) << "sensor " << i;
    // The smallest of the first ten readings against the smallest of the
    // last ten: a leak raises every reading, the smallest too, while a
    // buffer that happens to be alive at one reading does not count.
    constexpr std::ptrdiff_t kReadings = 10;
    ASSERT_GE(resident.size(), static_cast<size_t>(2 * kReadings));
    const long warm = *std::min_element(resident.begin(), resident.begin() + kReadings);
    const long last = *std::min_element(resident.end() - kReadings, resident.end());
    EXPECT_LT(last - warm, kGrowthLimitBytes) << "resident at least " << warm << " bytes over shots "
                                               << kWarmUpShots << " to " << kWarmUpShots + kReadings - 1
                                               << ", " << last << " over the last " << kReadings;
    std::printf("resident memory at least %ld KiB after shot %d, %ld KiB by shot %d\n", warm / 1024,
        kWarmUpShots, last / 1024, shots);
}

} // namespace

TEST(Soak, FiveHundredShotsOnOneSensor)
{
    soak(1, 500);
}

TEST(Soak, HundredShotsOnFourSensorsAtOnce)
{
    soak(4, 100);
}
