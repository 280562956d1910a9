import QtQuick
import QtQuick.Controls
import Velix.Playback

// The player window: the video, the status over it, and the two bars that fade away while the
// film plays. Every text and choice comes from PlayerScreen.
Window {
    id: root
    objectName: "player"
    title: playerScreen.windowTitle
    width: 1280
    height: 760
    color: "black"

    PlayerScreen {
        id: playerScreen
        player: Player
    }

    // Hidden or minimised, the window keeps its surface (frames are taken without drawing);
    // closed, it stops playback and dismantles the surface, which a new showing makes again.
    property bool surfaceWanted: true
    onVisibleChanged: if (visible) surfaceWanted = true
    onClosing: {
        playerScreen.windowClosed()
        surfaceWanted = false
    }

    Item {
        id: content
        anchors.fill: parent

        Loader {
            id: video
            objectName: "videoLoader"
            anchors.fill: parent
            active: root.surfaceWanted && Player.coreAvailable()
            focus: true
            sourceComponent: VideoSurface {
                focus: true
            }
        }

        Column {
            objectName: "statusOverlay"
            anchors.centerIn: parent
            spacing: 12
            visible: playerScreen.overlay !== ""
            opacity: playerScreen.overlay === "error" ? playerScreen.errorOpacity : 1.0

            Label {
                objectName: "errorSymbol"
                anchors.horizontalCenter: parent.horizontalCenter
                visible: playerScreen.overlay === "error"
                text: "\u26A0"
                color: "white"
                font.pixelSize: 48
                Accessible.name: playerScreen.errorSymbol
            }
            Rectangle {
                id: spinner
                objectName: "spinner"
                anchors.horizontalCenter: parent.horizontalCenter
                visible: playerScreen.overlay === "status"
                width: 36
                height: 36
                radius: 18
                color: "transparent"
                border.width: 4
                border.color: "#50ffffff"
                Rectangle {
                    x: parent.width / 2 - 5
                    y: -1
                    width: 10
                    height: 10
                    radius: 5
                    color: "white"
                }
                RotationAnimator on rotation {
                    from: 0
                    to: 360
                    duration: 1000
                    loops: Animation.Infinite
                    running: spinner.visible
                }
            }
            Label {
                objectName: "statusText"
                anchors.horizontalCenter: parent.horizontalCenter
                text: playerScreen.overlay === "error" ? playerScreen.errorText : playerScreen.statusText
                color: "white"
                font.pixelSize: 18
                style: Text.Outline
                styleColor: "#80000000"
            }
        }

        Rectangle {
            id: topBar
            objectName: "topBar"
            anchors { left: parent.left; right: parent.right; top: parent.top }
            height: 48
            gradient: Gradient {
                GradientStop { position: 0.0; color: "#c0000000" }
                GradientStop { position: 1.0; color: "#00000000" }
            }
            opacity: Player.controlsVisible ? 1 : 0
            visible: opacity > 0
            Behavior on opacity { NumberAnimation { duration: 200 } }

            Label {
                objectName: "title"
                anchors { left: parent.left; right: parent.right; verticalCenter: parent.verticalCenter; margins: 16 }
                text: playerScreen.title
                color: "white"
                elide: Text.ElideMiddle
                font.pixelSize: 15
            }
        }

        ControlBar {
            id: controlBar
            objectName: "controlBar"
            anchors { left: parent.left; right: parent.right; bottom: parent.bottom }
            screen: playerScreen
            window: root
            opacity: Player.controlsVisible ? 1 : 0
            visible: opacity > 0
            Behavior on opacity { NumberAnimation { duration: 200 } }
        }

        HoverHandler {
            cursorShape: playerScreen.cursorHidden ? Qt.BlankCursor : Qt.ArrowCursor
            onPointChanged: playerScreen.pointerAt(point.position.x, point.position.y)
        }
    }
}
