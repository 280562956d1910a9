import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// One torrent in the list: a small cover, its title and state, its progress and its actions.
FocusScope {
    id: row
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
    required property string rowLine
    required property string sizeText
    required property bool selected
    required property bool pauseResumes
    required property string pauseHelp
    required property bool checking
    required property string checkedText
    required property string checkingSpeedText
    required property string timeLeftText
    property bool current: false

    signal contextMenuRequested(string id, real x, real y)

    objectName: "torrent.row." + torrentId
    implicitHeight: 76
    Accessible.role: Accessible.ListItem
    Accessible.name: title
    Accessible.description: statusText
    Accessible.selected: selected

    Rectangle {
        anchors.fill: parent
        radius: 8
        color: hover.hovered ? "#2e2f35" : "#26272c"
        border.width: row.selected || (row.current && row.activeFocus) ? 2 : 1
        border.color: row.selected ? "#3478f6" : (row.current && row.activeFocus ? "#7fb0ff" : "#34353b")
    }
    HoverHandler { id: hover }
    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.LeftButton | Qt.RightButton
        onClicked: (mouse) => {
            if (mouse.button === Qt.RightButton)
                row.contextMenuRequested(row.torrentId, mouse.x, mouse.y)
            else
                MainViewModel.selectItem(row.torrentId, mouse.modifiers)
        }
    }
    RowLayout {
        anchors.fill: parent
        anchors.margins: 8
        spacing: 12
        MediaArtwork {
            Layout.preferredWidth: 104
            Layout.fillHeight: true
            identity: row.torrentId
            title: row.title
            kindSymbol: row.kindSymbol
            showsTitle: false
        }
        ColumnLayout {
            Layout.fillWidth: true
            spacing: 4
            Text {
                Layout.fillWidth: true
                text: row.title
                color: "#f2f2f5"
                font.pixelSize: 14
                font.bold: true
                elide: Text.ElideRight
            }
            Text {
                Layout.fillWidth: true
                text: row.rowLine
                color: "#a0a0a8"
                font.pixelSize: 12
                elide: Text.ElideRight
            }
            TransferProgress {
                Layout.fillWidth: true
                torrentId: row.torrentId
                progress: row.progress
                progressText: row.progressText
                reloadKey: row.progressText + row.statusText
            }
        }
        TransferBadge {
            Layout.preferredWidth: 150
            statusSymbol: row.statusSymbol
            statusText: row.statusText
        }
        Text {
            text: row.progressText
            color: "#a0a0a8"
            font.pixelSize: 12
            Layout.preferredWidth: 44
        }
        LibraryButton {
            objectName: "torrent.play"
            text: "Смотреть"
            help: "Смотреть"
            symbol: "play.fill"
            prominent: true
            onClicked: MainViewModel.play(row.torrentId)
        }
        LibraryButton {
            objectName: "torrent.pause"
            text: row.pauseHelp
            help: row.pauseHelp
            iconOnly: true
            symbol: row.pauseResumes ? "play.circle" : "pause.circle"
            onClicked: MainViewModel.togglePause(row.torrentId)
        }
        LibraryButton {
            objectName: "torrent.details"
            text: "Файлы и сведения"
            help: "Файлы и сведения"
            iconOnly: true
            symbol: "info.circle"
            onClicked: MainViewModel.details(row.torrentId)
        }
        LibraryButton {
            id: actions
            objectName: "torrent.actions"
            text: "Действия с торрентом"
            help: "Действия с торрентом"
            iconOnly: true
            symbol: "ellipsis"
            onClicked: row.contextMenuRequested(row.torrentId, actions.x, actions.y + actions.height)
        }
    }
}
