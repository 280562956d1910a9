#include "checking/MachineInfo.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <optional>

#include <unistd.h>

namespace {

constexpr int64_t FairMarginMilliCelsius = 5000;

std::optional<int64_t> readMilliCelsius(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    // sysfs files claim a page of size whatever they hold; a number is a few bytes.
    bool ok = false;
    const int64_t value = file.read(64).trimmed().toLongLong(&ok);
    if (!ok)
        return std::nullopt;
    return value;
}

QString readWord(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromLatin1(file.read(64).trimmed());
}

ThermalState zoneState(const ThermalZone &zone)
{
    ThermalState state = ThermalState::Nominal;
    for (const ThermalTrip &trip : zone.trips) {
        if (trip.milliCelsius <= 0)
            continue;
        ThermalState here = ThermalState::Nominal;
        if (trip.type == QLatin1String("hot") || trip.type == QLatin1String("critical")) {
            if (zone.milliCelsius >= trip.milliCelsius)
                here = ThermalState::Critical;
        } else if (trip.type == QLatin1String("passive")) {
            if (zone.milliCelsius >= trip.milliCelsius)
                here = ThermalState::Serious;
            else if (zone.milliCelsius >= trip.milliCelsius - FairMarginMilliCelsius)
                here = ThermalState::Fair;
        }
        state = std::max(state, here);
    }
    return state;
}

} // namespace

int processorCount()
{
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count < 1 ? 1 : static_cast<int>(std::min<long>(count, 1 << 20));
}

uint64_t physicalMemoryBytes()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0)
        return 0;
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

CheckingResources::Hardware readHardware()
{
    return CheckingResources::Hardware{processorCount(), physicalMemoryBytes()};
}

ThermalState thermalState(const QList<ThermalZone> &zones)
{
    ThermalState state = ThermalState::Nominal;
    for (const ThermalZone &zone : zones)
        state = std::max(state, zoneState(zone));
    return state;
}

QList<ThermalZone> readThermalZones(const QString &root)
{
    QList<ThermalZone> zones;
    const QDir dir(root);
    const QStringList names = dir.entryList({QStringLiteral("thermal_zone*")}, QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const QString zoneDir = dir.filePath(name);
        const auto temperature = readMilliCelsius(zoneDir + QStringLiteral("/temp"));
        if (!temperature)
            continue;
        ThermalZone zone{*temperature, {}};
        // A trip whose temperature can't be read (some firmware refuses) is left out alone.
        const QDir tripDir(zoneDir);
        for (const QString &tempName : tripDir.entryList({QStringLiteral("trip_point_*_temp")}, QDir::Files)) {
            // "trip_point_3_temp" less its "temp" is the prefix of its "type" file too.
            const QString prefix = zoneDir + QLatin1Char('/') + tempName.chopped(4);
            const auto tripTemperature = readMilliCelsius(prefix + QStringLiteral("temp"));
            if (tripTemperature)
                zone.trips.append(ThermalTrip{readWord(prefix + QStringLiteral("type")), *tripTemperature});
        }
        zones.append(zone);
    }
    return zones;
}

ThermalState readThermalState()
{
    return thermalState(readThermalZones());
}
