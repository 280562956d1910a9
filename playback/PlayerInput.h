#pragma once

#include <QtGlobal>

#include <optional>

// How the player reads the keyboard and the scroll wheel. Pure functions, any thread.
namespace PlayerInput {

// The player's key code for a key event: by the key's physical position when the platform
// gives one (X11/xkb keycodes), so the letters work on a Cyrillic layout too; by the key's
// meaning when the scan code is 0 (synthetic events, platforms without scan codes). None for
// a key the player has no use for.
std::optional<int> keyCode(quint32 nativeScanCode, int qtKey);

// One wheel event as the player sees it.
struct Scroll
{
    bool momentum = false;  // the coasting after a flick, not the user's own movement
    bool modified = false;  // any modifier key held
    double dx = 0.0;
    double dy = 0.0;        // positive away from the user
    bool precise = false;   // pixel deltas (touchpads) rather than wheel notches
    bool inverted = false;  // the device reports natural scrolling
};

// The change of volume a scroll asks for, or none when the player leaves the event alone:
// momentum, a modifier, or a mostly sideways movement. Up is louder whatever the desktop's
// scrolling direction: an inverted device's delta is turned back first.
std::optional<double> volumeStep(const Scroll &scroll);

} // namespace PlayerInput
