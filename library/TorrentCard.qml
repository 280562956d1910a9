import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// One torrent in the grid: its cover, title, state and progress, and its three actions.
// Reads the row's roles; every action goes to the library's model.
FocusScope {
    id: card
    required property int index
    required property string torrentId
    required property string title
    required property string subtitle
    required property string kindLine
    required property string kindSymbol
    required property string statusText
    required property string statusSymbol
    required property double progress
    required property string progressText
    required property string cardLine
    required property bool selected
    required property bool pauseResumes
    required property string pauseHelp
    required property bool checking
    required property string checkedText
    required property string checkingSpeedText
    required property string timeLeftText
    property bool current: false
    readonly property bool hovered: hover.hovered

    signal contextMenuRequested(string id, real x, real y)

    objectName: "torrent.card." + torrentId
    Accessible.role: Accessible.ListItem
    Accessible.name: title
    Accessible.description: statusText
    Accessible.selected: selected

    HoverHandler { id: hover }

    Rectangle {
        id: frame
        anchors.fill: parent
        radius: 10
        color: card.hovered ? "#2e2f35" : "#26272c"
        border.width: card.selected ? 2 : (card.current && card.activeFocus ? 2 : 1)
        border.color: card.selected ? "#3478f6" : (card.current && card.activeFocus ? "#7fb0ff" : "#34353b")
    }

    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.LeftButton | Qt.RightButton
        onClicked: (mouse) => {
            if (mouse.button === Qt.RightButton)
                card.contextMenuRequested(card.torrentId, mouse.x, mouse.y)
            else
                MainViewModel.selectItem(card.torrentId, mouse.modifiers)
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 1
        spacing: 6
        MediaArtwork {
            Layout.fillWidth: true
            Layout.preferredHeight: width * 9 / 16
            identity: card.torrentId
            title: card.title
            kindSymbol: card.kindSymbol
            showsTitle: true
            layer.enabled: false
        }
        TransferProgress {
            Layout.fillWidth: true
            Layout.leftMargin: 10
            Layout.rightMargin: 10
            torrentId: card.torrentId
            progress: card.progress
            progressText: card.progressText
            reloadKey: card.progressText + card.statusText
        }
        Text {
            Layout.fillWidth: true
            Layout.leftMargin: 10
            Layout.rightMargin: 10
            text: card.title
            color: "#f2f2f5"
            font.pixelSize: 14
            font.bold: true
            elide: Text.ElideRight
        }
        Text {
            Layout.fillWidth: true
            Layout.leftMargin: 10
            Layout.rightMargin: 10
            text: card.cardLine
            color: "#a0a0a8"
            font.pixelSize: 12
            elide: Text.ElideRight
        }
        RowLayout {
            Layout.fillWidth: true
            Layout.leftMargin: 10
            Layout.rightMargin: 10
            TransferBadge {
                statusSymbol: card.statusSymbol
                statusText: card.statusText
            }
            Item { Layout.fillWidth: true }
            Text {
                text: card.progressText
                color: "#a0a0a8"
                font.pixelSize: 12
            }
        }
        RowLayout {
            Layout.fillWidth: true
            Layout.leftMargin: 8
            Layout.rightMargin: 8
            Layout.bottomMargin: 8
            spacing: 6
            LibraryButton {
                objectName: "torrent.play"
                text: "Смотреть"
                help: "Смотреть"
                symbol: "play.fill"
                prominent: true
                onClicked: MainViewModel.play(card.torrentId)
            }
            Item { Layout.fillWidth: true }
            LibraryButton {
                objectName: "torrent.pause"
                text: card.pauseHelp
                help: card.pauseHelp
                iconOnly: true
                symbol: card.pauseResumes ? "play.circle" : "pause.circle"
                onClicked: MainViewModel.togglePause(card.torrentId)
            }
            LibraryButton {
                objectName: "torrent.details"
                text: "Файлы и сведения"
                help: "Файлы и сведения"
                iconOnly: true
                symbol: "info.circle"
                onClicked: MainViewModel.details(card.torrentId)
            }
        }
    }
}
