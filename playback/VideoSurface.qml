import QtQuick
import Velix.Playback

// The video of the player, bound to the shared player and its core. Keys, scrolling and clicks
// on it go to the player (in C++, by physical key position).
VideoLayer {
    objectName: "videoSurface"
    player: Player
}
