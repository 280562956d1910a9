#pragma once

#include <QString>

#include <cstdint>

// How hot the machine runs, from cool to throttling hard.
enum class ThermalState { Nominal, Fair, Serious, Critical };

// How short of memory the system is, as its pressure events tell.
enum class MemoryPressure { Normal, Warning, Critical };

// The hashing threads and check memory that the session may use. A hash check reads gigabytes,
// and how much of the machine it may take follows the machine's size and what else is going on:
// playback, battery saving, heat, memory pressure, other programs, a sluggish interface.
struct CheckingResources
{
    // Hashing threads.
    int threads = 1;
    // Check memory in 16 KiB blocks, the unit of libtorrent's checking_mem_usage; always a
    // multiple of 64, one mebibyte.
    int blocks = 1024;

    // Read once when the engine starts.
    struct Hardware
    {
        int processors = 1;
        uint64_t memoryBytes = 0;
        bool operator==(const Hardware &) const = default;
    };

    // What is going on right now; built afresh for every evaluation.
    struct Conditions
    {
        // Cores that other processes keep busy; a value that is not finite counts as none.
        double otherBusyCores = 0;
        bool playbackActive = false;
        bool lowPower = false;
        ThermalState thermalState = ThermalState::Nominal;
        MemoryPressure memoryPressure = MemoryPressure::Normal;
        // The main thread came late lately.
        bool interfaceDelayed = false;
        bool operator==(const Conditions &) const = default;
    };

    // The two session settings lines, "hashing_threads=N\nchecking_mem_usage=M".
    QString settings() const;

    // What these conditions call for on this hardware. Pure.
    static CheckingResources target(const Hardware &hardware, const Conditions &conditions);

    bool operator==(const CheckingResources &) const = default;
};
