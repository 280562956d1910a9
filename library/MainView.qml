import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts

// The main window's content: the sidebar and the column that shows the library, a torrent's
// contents or the settings, as MainViewModel.contentMode says.
FocusScope {
    id: mainView
    // The window frame may own the layout shortcuts in its menu; it then turns these off so a
    // key is never claimed twice.
    property bool layoutShortcuts: true

    objectName: "mainView"
    implicitWidth: 1200
    implicitHeight: 780

    Rectangle {
        anchors.fill: parent
        color: "#1f2024"
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0
        Sidebar {
            Layout.preferredWidth: 236
            Layout.fillHeight: true
        }
        Item {
            id: column
            objectName: "mainView.content"
            Layout.fillWidth: true
            Layout.fillHeight: true

            // The settings page, a torrent's contents and the offers page stand here as their
            // screens come; until then the column says which one it is.
            Item {
                objectName: "mainView." + MainViewModel.contentMode
                anchors.fill: parent
                visible: MainViewModel.contentMode !== "library"
                ColumnLayout {
                    anchors.centerIn: parent
                    LibraryButton {
                        objectName: "mainView.back"
                        text: "Медиатека"
                        symbol: "chevron.left"
                        onClicked: MainViewModel.escape()
                    }
                }
            }

            ColumnLayout {
                anchors.fill: parent
                spacing: 0
                visible: MainViewModel.contentMode === "library"
                LibraryHeader {
                    id: header
                    Layout.fillWidth: true
                    onOpenTorrentRequested: torrentChooser.open()
                }
                SplitView {
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    orientation: Qt.Vertical
                    LibraryContent {
                        id: content
                        SplitView.fillHeight: true
                        SplitView.minimumHeight: 100
                        onOpenTorrentRequested: torrentChooser.open()
                    }
                    Rectangle {
                        objectName: "mainView.inspector"
                        visible: MainViewModel.showsInspector
                        SplitView.preferredHeight: 220
                        SplitView.maximumHeight: 290
                        color: "#1b1c20"
                    }
                }
            }
        }
    }

    RemovalDialog {}

    FolderDialog {
        id: moveChooser
        property string torrentId
        objectName: "library.moveChooser"
        title: "Переместить"
        acceptLabel: "Переместить"
        onAccepted: MainViewModel.move(torrentId, selectedFolder)
    }
    FileDialog {
        id: torrentChooser
        objectName: "library.torrentChooser"
        title: "Открыть торрент…"
        nameFilters: ["Торренты (*.torrent)"]
        onAccepted: MainViewModel.openTorrentFile(selectedFile)
    }
    Connections {
        target: MainViewModel
        function onMoveRequested(id) {
            moveChooser.torrentId = id
            moveChooser.open()
        }
    }

    // The engine's message of the moment, until the engine takes it back.
    Rectangle {
        objectName: "mainView.toast"
        visible: MainViewModel.toast.length > 0
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: 24
        width: toastText.implicitWidth + 32
        height: toastText.implicitHeight + 18
        radius: height / 2
        color: Qt.rgba(0.1, 0.1, 0.12, 0.92)
        border.color: "#3a3b42"
        Accessible.role: Accessible.AlertMessage
        Accessible.name: MainViewModel.toast
        Text {
            id: toastText
            anchors.centerIn: parent
            text: MainViewModel.toast
            color: "white"
            font.pixelSize: 13
        }
    }

    Shortcut { sequence: "Ctrl+F"; onActivated: header.searchField.forceActiveFocus() }
    Shortcut { sequence: "Escape"; onActivated: MainViewModel.escape() }
    Shortcut { enabled: mainView.layoutShortcuts; sequence: "Ctrl+1"; onActivated: MainViewModel.chooseLayout("grid") }
    Shortcut { enabled: mainView.layoutShortcuts; sequence: "Ctrl+2"; onActivated: MainViewModel.chooseLayout("list") }
    Shortcut { enabled: mainView.layoutShortcuts; sequence: "Ctrl+3"; onActivated: MainViewModel.chooseLayout("table") }

    Component.onCompleted: content.focusView()
}
