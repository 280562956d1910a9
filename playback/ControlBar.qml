import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Velix.Playback

// The bar under the video: seek bar, transport, time, volume, the menus and full screen. Buttons
// take focus only from the keyboard, so a click leaves the keys with the video.
Rectangle {
    id: bar
    property var screen
    property var window
    implicitHeight: column.implicitHeight + 16
    gradient: Gradient {
        GradientStop { position: 0.0; color: "#00000000" }
        GradientStop { position: 0.35; color: "#c0000000" }
    }

    component BarButton: ToolButton {
        property string tip: ""
        focusPolicy: Qt.TabFocus
        palette.buttonText: "white"
        ToolTip.visible: hovered && tip !== ""
        ToolTip.text: tip
        ToolTip.delay: 600
        Accessible.name: text
    }

    ColumnLayout {
        id: column
        anchors { left: parent.left; right: parent.right; bottom: parent.bottom; margins: 12 }
        spacing: 4

        SeekBar {
            objectName: "seekBar"
            Layout.fillWidth: true
            screen: bar.screen
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 2

            BarButton {
                objectName: "playPause"
                text: bar.screen.playPauseLabel
                tip: bar.screen.playPauseTip
                onClicked: Player.togglePause()
            }
            BarButton {
                objectName: "back"
                text: "« 10 с"
                tip: bar.screen.backLabel
                Accessible.name: bar.screen.backLabel
                onClicked: bar.screen.seekBy(-10)
            }
            BarButton {
                objectName: "forward"
                text: "10 с »"
                tip: bar.screen.forwardLabel
                Accessible.name: bar.screen.forwardLabel
                onClicked: bar.screen.seekBy(10)
            }
            Label {
                objectName: "time"
                text: bar.screen.timeText
                color: "white"
                Layout.leftMargin: 8
                Layout.rightMargin: 8
            }
            BarButton {
                objectName: "next"
                visible: bar.screen.nextVisible
                text: bar.screen.nextLabel
                tip: bar.screen.nextTip
                onClicked: Player.playNext()
            }
            Item { Layout.fillWidth: true }
            BarButton {
                objectName: "mute"
                text: bar.screen.muteLabel
                onClicked: bar.screen.toggleMute()
            }
            Slider {
                objectName: "volume"
                from: 0
                to: 200
                stepSize: 1
                value: Player.volume
                focusPolicy: Qt.TabFocus
                implicitWidth: 120
                onMoved: Player.setVolume(value)
                Accessible.name: bar.screen.volumeLabel
                ToolTip.visible: hovered
                ToolTip.text: bar.screen.volumeTip
                ToolTip.delay: 600
            }
            Label {
                objectName: "volumeText"
                text: bar.screen.volumeText
                color: "white"
                Layout.preferredWidth: 40
            }
            BarButton {
                objectName: "speed"
                text: bar.screen.speedLabel + " " + bar.screen.speedTitle
                tip: bar.screen.speedTip
                onClicked: speedMenu.open()
                TrackMenu {
                    id: speedMenu
                    objectName: "speedMenu"
                    y: -height
                    rows: bar.screen.speedRows
                    onChosen: (id) => bar.screen.chooseSpeed(id)
                }
            }
            BarButton {
                objectName: "audio"
                text: bar.screen.audioLabel
                tip: bar.screen.audioTip
                onClicked: audioMenu.open()
                TrackMenu {
                    id: audioMenu
                    objectName: "audioMenu"
                    y: -height
                    rows: bar.screen.audioRows
                    placeholder: bar.screen.audioPlaceholder
                    onChosen: (id) => bar.screen.chooseTrack(id, true)
                }
            }
            BarButton {
                objectName: "subtitles"
                text: bar.screen.subtitleLabel
                tip: bar.screen.subtitleTip
                onClicked: subtitleMenu.open()
                TrackMenu {
                    id: subtitleMenu
                    objectName: "subtitleMenu"
                    y: -height
                    rows: bar.screen.subtitleRows
                    placeholder: bar.screen.subtitlePlaceholder
                    onChosen: (id) => bar.screen.chooseTrack(id, false)
                }
            }
            BarButton {
                objectName: "episodes"
                text: bar.screen.episodesLabel
                onClicked: episodeMenu.open()
                TrackMenu {
                    id: episodeMenu
                    objectName: "episodeMenu"
                    y: -height
                    rows: bar.screen.episodeRows
                    onChosen: (id) => bar.screen.chooseEpisode(id)
                }
            }
            BarButton {
                objectName: "fullScreen"
                text: bar.screen.fullScreenLabel
                tip: bar.screen.fullScreenTip
                onClicked: Player.toggleFullScreen()
            }
        }
    }
}
