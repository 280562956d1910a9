#pragma once

#include "checking/CheckingResources.h"

#include <QList>
#include <QString>

#include <cstdint>

// Small readers of the machine for the check governor, and the pure rules that turn what they
// read into its conditions. The readers are cheap enough for the main thread once a second:
// sysconf and a few short files under /sys.

// Online processors, at least 1.
int processorCount();
// Physical memory in bytes; 0 when the system won't say.
uint64_t physicalMemoryBytes();
CheckingResources::Hardware readHardware();

struct ThermalTrip
{
    QString type; // "passive", "active", "hot", "critical"
    int64_t milliCelsius = 0;
    bool operator==(const ThermalTrip &) const = default;
};

struct ThermalZone
{
    int64_t milliCelsius = 0;
    QList<ThermalTrip> trips;
    bool operator==(const ThermalZone &) const = default;
};

// The zone nearest its own limits decides: past a hot or critical trip is Critical, past a
// passive trip (where the kernel starts throttling) Serious, within 5 °C of one Fair, anything
// cooler Nominal. Active trips only start fans and say nothing about throttling; trips at or
// below 0 °C are unset. No zones: Nominal.
ThermalState thermalState(const QList<ThermalZone> &zones);

// The zones under a sysfs thermal directory ("thermal_zoneN/temp" and "trip_point_K_type",
// "trip_point_K_temp" beside it). A zone whose temperature can't be read is left out.
QList<ThermalZone> readThermalZones(const QString &root = QStringLiteral("/sys/class/thermal"));
ThermalState readThermalState();
