import QtQuick
import QtQuick.Controls
import Velix.Playback

// The seek bar: the file's downloaded stretches, the buffered part ahead of the position and the
// played part; a hover shows the time under the pointer, a drag seeks where it ends.
Item {
    id: bar
    property var screen
    property real position: Player.position
    property real duration: Player.duration
    property real cacheTime: Player.cacheTime
    property var ranges: screen.downloadedRanges
    property real dragTime: -1
    property real hoverX: -1
    readonly property real shownTime: dragTime >= 0 ? dragTime : position
    function fraction(t) { return duration > 0 ? Math.max(0, Math.min(1, t / duration)) : 0 }

    implicitHeight: 18
    enabled: screen.seekEnabled

    Accessible.role: Accessible.Slider
    Accessible.name: screen.seekLabel
    Accessible.description: screen.seekValueText
    Accessible.onIncreaseAction: screen.seekBy(10)
    Accessible.onDecreaseAction: screen.seekBy(-10)

    Rectangle {
        id: track
        anchors { left: parent.left; right: parent.right; verticalCenter: parent.verticalCenter }
        height: 5
        radius: 2
        color: Qt.rgba(1, 1, 1, 0.14)

        Repeater {
            model: bar.ranges
            delegate: Rectangle {
                required property var modelData
                x: modelData.start * track.width
                width: Math.max(1, (modelData.end - modelData.start) * track.width)
                height: track.height
                color: Qt.rgba(0.35, 0.75, 1.0, 0.35)
            }
        }
        Rectangle {
            objectName: "cached"
            x: bar.fraction(bar.position) * track.width
            width: Math.max(0, (bar.fraction(bar.cacheTime) - bar.fraction(bar.position)) * track.width)
            height: track.height
            color: Qt.rgba(1, 1, 1, 0.22)
        }
        Rectangle {
            objectName: "played"
            width: bar.fraction(bar.shownTime) * track.width
            height: track.height
            radius: 2
            color: "white"
        }
    }

    Label {
        objectName: "hoverTime"
        visible: bar.hoverX >= 0 && bar.enabled
        text: bar.screen.clockAt(bar.hoverX / Math.max(1, bar.width))
        color: "white"
        x: Math.max(0, Math.min(bar.width - width, bar.hoverX - width / 2))
        y: -height - 4
        background: Rectangle { color: "#c0000000"; radius: 3 }
        padding: 3
    }

    MouseArea {
        anchors.fill: parent
        hoverEnabled: true
        enabled: bar.enabled
        onPositionChanged: (mouse) => {
            bar.hoverX = mouse.x
            if (pressed)
                bar.dragTime = bar.screen.timeAt(mouse.x / Math.max(1, bar.width))
        }
        onExited: bar.hoverX = -1
        onPressed: (mouse) => bar.dragTime = bar.screen.timeAt(mouse.x / Math.max(1, bar.width))
        onReleased: {
            if (bar.dragTime >= 0)
                Player.seek(bar.dragTime)
            bar.dragTime = -1
        }
    }
}
