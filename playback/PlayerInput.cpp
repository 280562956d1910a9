#include "playback/PlayerInput.h"

#include "playback/PlayerModel.h"

#include <Qt>

#include <array>
#include <cmath>
#include <utility>

namespace PlayerInput {

namespace {

struct KeyRow
{
    quint32 scanCode; // X11 keycode: evdev code + 8
    int qtKey;
    int code;
};

constexpr std::array<KeyRow, 12> Keys = {{
    {38, Qt::Key_A, PlayerModel::KeyA},
    {39, Qt::Key_S, PlayerModel::KeyS},
    {41, Qt::Key_F, PlayerModel::KeyF},
    {33, Qt::Key_P, PlayerModel::KeyP},
    {57, Qt::Key_N, PlayerModel::KeyN},
    {58, Qt::Key_M, PlayerModel::KeyM},
    {65, Qt::Key_Space, PlayerModel::KeySpace},
    {9, Qt::Key_Escape, PlayerModel::KeyEscape},
    {113, Qt::Key_Left, PlayerModel::KeyLeft},
    {114, Qt::Key_Right, PlayerModel::KeyRight},
    {116, Qt::Key_Down, PlayerModel::KeyDown},
    {111, Qt::Key_Up, PlayerModel::KeyUp},
}};

constexpr double PixelStep = 0.25;
constexpr double LineStep = 5.0;

} // namespace

std::optional<int> keyCode(quint32 nativeScanCode, int qtKey)
{
    for (const KeyRow &row : Keys) {
        if (nativeScanCode != 0 ? row.scanCode == nativeScanCode : row.qtKey == qtKey)
            return row.code;
    }
    return std::nullopt;
}

std::optional<double> volumeStep(const Scroll &scroll)
{
    if (scroll.momentum || scroll.modified || !(std::abs(scroll.dy) > std::abs(scroll.dx)))
        return std::nullopt;
    const double dy = scroll.inverted ? -scroll.dy : scroll.dy;
    if (scroll.precise)
        return dy * PixelStep;
    return dy > 0 ? LineStep : -LineStep;
}

} // namespace PlayerInput
