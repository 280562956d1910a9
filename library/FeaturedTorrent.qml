import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// The torrent shown large above the grid, with its label, its state and two actions.
Item {
    id: featured
    required property string torrentId
    required property string title
    required property string subtitle
    required property string kindSymbol
    required property string statusText
    required property string statusSymbol
    required property double progress
    required property string progressText
    required property bool checking
    required property string checkedText
    required property string checkingSpeedText
    required property string timeLeftText
    property string label

    objectName: "library.featured"
    implicitHeight: 260
    Accessible.role: Accessible.Grouping
    Accessible.name: label + " " + title

    Rectangle {
        anchors.fill: parent
        radius: 14
        color: "#1d1e22"
        clip: true
        MediaArtwork {
            anchors.fill: parent
            identity: featured.torrentId
            title: featured.title
            kindSymbol: featured.kindSymbol
            showsTitle: false
        }
        Rectangle {
            anchors.fill: parent
            gradient: Gradient {
                orientation: Gradient.Horizontal
                GradientStop { position: 0.0; color: Qt.rgba(0, 0, 0, 0.75) }
                GradientStop { position: 0.7; color: "transparent" }
            }
        }
    }
    ColumnLayout {
        anchors.left: parent.left
        anchors.bottom: parent.bottom
        anchors.margins: 24
        width: parent.width * 0.6
        spacing: 8
        Text {
            objectName: "library.featuredLabel"
            text: featured.label
            color: "#9fc2ff"
            font.pixelSize: 12
            font.bold: true
            font.letterSpacing: 1.5
        }
        Text {
            Layout.fillWidth: true
            text: featured.title
            color: "white"
            font.pixelSize: 28
            font.bold: true
            elide: Text.ElideRight
        }
        Text {
            text: featured.subtitle
            color: "#d0d0d6"
            font.pixelSize: 13
            visible: text.length > 0
        }
        RowLayout {
            spacing: 12
            TransferBadge {
                statusSymbol: featured.statusSymbol
                statusText: featured.statusText
            }
            CheckingMetrics {
                checking: featured.checking
                checkedText: featured.checkedText
                progressText: featured.progressText
                speedText: featured.checkingSpeedText
                timeLeftText: featured.timeLeftText
            }
        }
        TransferProgress {
            Layout.preferredWidth: 320
            height: 5
            torrentId: featured.torrentId
            progress: featured.progress
            progressText: featured.progressText
            reloadKey: featured.progressText + featured.statusText
        }
        RowLayout {
            spacing: 8
            LibraryButton {
                objectName: "featured.play"
                text: "Смотреть"
                help: "Смотреть"
                symbol: "play.fill"
                prominent: true
                onClicked: MainViewModel.play(featured.torrentId)
            }
            LibraryButton {
                objectName: "featured.open"
                text: "Открыть торрент"
                help: "Открыть торрент"
                symbol: "info.circle"
                onClicked: MainViewModel.inspect(featured.torrentId)
            }
        }
    }
}
