#include "checking/LowPowerMonitor.h"
#include "checking/MachineInfo.h"
#include "checking/MemoryPressureWatcher.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using testsupport::TempDir;

namespace {

ThermalZone zone(int64_t milliCelsius, QList<ThermalTrip> trips)
{
    return ThermalZone{milliCelsius, std::move(trips)};
}

ThermalTrip passive(int64_t milliCelsius)
{
    return ThermalTrip{QStringLiteral("passive"), milliCelsius};
}

ThermalTrip trip(const char *type, int64_t milliCelsius)
{
    return ThermalTrip{QString::fromLatin1(type), milliCelsius};
}

void writeFile(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
}

} // namespace

TEST(MachineConditionsTest, ThermalStateComesFromTheZoneNearestItsOwnTrips)
{
    struct Row
    {
        const char *what;
        QList<ThermalZone> zones;
        ThermalState state;
    };
    const std::vector<Row> rows{
        {"no zones", {}, ThermalState::Nominal},
        {"a zone without trips", {zone(95000, {})}, ThermalState::Nominal},
        {"cool", {zone(45000, {passive(90000), trip("critical", 105000)})}, ThermalState::Nominal},
        {"just over 5 degrees below a passive trip", {zone(84999, {passive(90000)})}, ThermalState::Nominal},
        {"5 degrees below a passive trip", {zone(85000, {passive(90000)})}, ThermalState::Fair},
        {"just below a passive trip", {zone(89999, {passive(90000)})}, ThermalState::Fair},
        {"at a passive trip", {zone(90000, {passive(90000)})}, ThermalState::Serious},
        {"between passive and critical", {zone(104999, {passive(90000), trip("critical", 105000)})},
         ThermalState::Serious},
        {"at a critical trip", {zone(105000, {passive(90000), trip("critical", 105000)})}, ThermalState::Critical},
        {"at a hot trip", {zone(100000, {trip("hot", 100000)})}, ThermalState::Critical},
        {"past a fan's trip only", {zone(70000, {trip("active", 60000)})}, ThermalState::Nominal},
        {"an unset trip at 0", {zone(45000, {passive(0)})}, ThermalState::Nominal},
        {"an unset trip below 0", {zone(45000, {passive(-273000), trip("critical", -273000)})},
         ThermalState::Nominal},
        {"the lower of two passive trips", {zone(82000, {passive(80000), passive(95000)})}, ThermalState::Serious},
        {"a cooler zone near its own trip outranks a hotter one far from its",
         {zone(60000, {passive(95000)}), zone(41000, {passive(42000)})},
         ThermalState::Fair},
        {"the worst zone decides", {zone(40000, {passive(90000)}), zone(91000, {passive(90000)})},
         ThermalState::Serious},
    };
    for (const Row &row : rows)
        EXPECT_EQ(thermalState(row.zones), row.state) << row.what;
}

TEST(MachineConditionsTest, ThermalZonesAreReadFromSysfs)
{
    TempDir root;
    const QString dir = root.qpath();
    // A trip whose temperature the firmware won't give is skipped alone; so are a zone whose
    // sensor can't be read and the cooling devices beside the zones.
    const std::pair<const char *, QByteArray> files[] = {
        {"thermal_zone0/temp", "47000\n"}, {"thermal_zone0/trip_point_0_temp", "90000\n"},
        {"thermal_zone0/trip_point_0_type", "passive\n"}, {"thermal_zone0/trip_point_1_temp", "105000\n"},
        {"thermal_zone0/trip_point_1_type", "critical\n"}, {"thermal_zone1/temp", "88000\n"},
        {"thermal_zone1/trip_point_0_temp", "90000\n"}, {"thermal_zone1/trip_point_0_type", "passive\n"},
        {"thermal_zone1/trip_point_1_temp", ""}, {"thermal_zone1/trip_point_2_temp", "100000\n"},
        {"thermal_zone1/trip_point_2_type", "hot\n"}, {"thermal_zone2/type", "acpitz\n"},
        {"cooling_device0/cur_state", "0\n"},
    };
    for (const auto &[name, text] : files)
        writeFile(dir + QLatin1Char('/') + QLatin1String(name), text);

    const QList<ThermalZone> zones = readThermalZones(dir);
    ASSERT_EQ(zones.size(), 2);
    EXPECT_EQ(zones.at(0), zone(47000, {passive(90000), trip("critical", 105000)}));
    EXPECT_EQ(zones.at(1), zone(88000, {passive(90000), trip("hot", 100000)}));
    EXPECT_EQ(thermalState(zones), ThermalState::Fair);

    EXPECT_TRUE(readThermalZones(dir + QStringLiteral("/missing")).isEmpty());
}

TEST(MachineConditionsTest, TheDaemonsProfileWinsOverTheFirmwares)
{
    const auto none = std::optional<QString>();
    auto some = [](const char *text) { return std::optional<QString>(QString::fromLatin1(text)); };
    EXPECT_TRUE(isLowPower(some("power-saver"), some("balanced")));
    EXPECT_FALSE(isLowPower(some("balanced"), some("low-power")));
    EXPECT_TRUE(isLowPower(none, some("low-power\n")));
    EXPECT_FALSE(isLowPower(none, some("quiet")));

    // Without a daemon the monitor reads the platform profile each time it is asked.
    TempDir dir;
    const QString profile = dir.qpath() + QStringLiteral("/platform_profile");
    LowPowerMonitor monitor(nullptr, profile);
    EXPECT_FALSE(monitor.lowPower());
    writeFile(profile, "low-power\n");
    EXPECT_TRUE(monitor.lowPower());
    writeFile(profile, "performance\n");
    EXPECT_FALSE(monitor.lowPower());
}

TEST(MachineConditionsTest, HardwareReadsAreSane)
{
    const CheckingResources::Hardware hardware = readHardware();
    EXPECT_GE(hardware.processors, 1);
    EXPECT_GT(hardware.memoryBytes, uint64_t(64) << 20);
}

TEST(MachineConditionsTest, PressureLastsTenQuietSecondsAfterItsLastEvent)
{
    struct Row
    {
        const char *what;
        std::optional<double> lastSome;
        std::optional<double> lastFull;
        MemoryPressure level;
    };
    const Row rows[] = {
        {"no events", std::nullopt, std::nullopt, MemoryPressure::Normal},
        {"a partial stall 5 s ago", 95.0, std::nullopt, MemoryPressure::Warning},
        {"a partial stall just under 10 s ago", 90.001, std::nullopt, MemoryPressure::Warning},
        {"a partial stall 10 s ago", 90.0, std::nullopt, MemoryPressure::Normal},
        {"a full stall 1 s ago", 95.0, 99.0, MemoryPressure::Critical},
        {"a full stall without a partial one", std::nullopt, 99.99, MemoryPressure::Critical},
        {"the full stall is over, the partial one not", 95.0, 89.0, MemoryPressure::Warning},
        {"both over", 80.0, 80.0, MemoryPressure::Normal},
    };
    for (const Row &row : rows)
        EXPECT_EQ(memoryPressureLevel(row.lastSome, row.lastFull, 100.0), row.level) << row.what;
}

TEST(MachineConditionsTest, PressureWatcherStopsPromptlyOrNeverStarts)
{
    {
        MemoryPressureWatcher none(nullptr, QStringLiteral("/nonexistent/pressure/memory"));
        EXPECT_FALSE(none.isWatching());
        EXPECT_EQ(none.level(), MemoryPressure::Normal);
    }
    // A real pressure file: the watcher's thread sits in its wait, and destruction must wake it.
    const int probe = ::open("/proc/pressure/memory", O_RDWR);
    if (probe < 0)
        GTEST_SKIP() << "no writable memory pressure file here";
    ::close(probe);
    MemoryPressureWatcher watcher;
    EXPECT_TRUE(watcher.isWatching());
    EXPECT_EQ(watcher.level(), MemoryPressure::Normal);
}
