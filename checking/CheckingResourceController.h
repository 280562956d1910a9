#pragma once

#include "checking/CheckingResources.h"

#include <optional>

// Holds the resources in force and lets them follow the target with a lag on the way up only:
// a fall acts at once, so playback or a hot machine is relieved the moment it needs it, while a
// rise must be wanted without a break for 5 seconds, so a brief lull does not start a burst of
// hashing that the next second takes back. A plain value; the caller passes `now`, seconds of
// uptime.
class CheckingResourceController
{
public:
    CheckingResourceController() = default;
    explicit CheckingResourceController(const CheckingResources &start)
        : m_current(start)
    {
    }

    // Moves towards `target` and returns what is now in force.
    const CheckingResources &update(const CheckingResources &target, double now);

    const CheckingResources &current() const { return m_current; }
    // Since when a rise has been wanted, if one is.
    std::optional<double> increaseSince() const { return m_increaseSince; }

private:
    CheckingResources m_current;
    std::optional<double> m_increaseSince;
};
