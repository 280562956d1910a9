import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// The library's title and counts, the actions on the selection, and the controls of what the
// library shows: sort, layout, search, the inspector and adding.
Rectangle {
    id: header
    property alias searchField: search
    signal openTorrentRequested()

    objectName: "library.header"
    color: "#1b1c20"
    implicitHeight: column.implicitHeight + 24

    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 12
        spacing: 8
        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            Text {
                objectName: "library.title"
                text: MainViewModel.headerTitle
                color: "white"
                font.pixelSize: 22
                font.bold: true
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }
            Text {
                objectName: "library.count"
                text: MainViewModel.countText
                color: "#a0a0a8"
                font.pixelSize: 12
            }
            Text {
                objectName: "library.downloaded"
                text: MainViewModel.downloadedText
                color: "#a0a0a8"
                font.pixelSize: 12
            }
            Item { Layout.fillWidth: true }
            TextField {
                id: search
                objectName: "library.search"
                Layout.preferredWidth: 240
                placeholderText: "Поиск в медиатеке"
                Accessible.name: "Поиск в медиатеке"
                text: MainViewModel.state.search
                onTextEdited: MainViewModel.state.search = text
                Keys.onEscapePressed: MainViewModel.escape()
            }
            LibraryButton {
                objectName: "library.clearSearch"
                text: "Очистить поиск"
                help: "Очистить поиск"
                iconOnly: true
                symbol: "xmark.circle.fill"
                visible: search.text.length > 0
                onClicked: MainViewModel.state.search = ""
            }
            LibraryButton {
                id: addButton
                objectName: "library.add"
                text: "Добавить"
                help: "Добавить торрент или magnet-ссылку"
                symbol: "plus"
                onClicked: MainViewModel.showAddMenu = true
                Menu {
                    id: addMenu
                    objectName: "library.addMenu"
                    y: addButton.height
                    visible: MainViewModel.showAddMenu
                    onClosed: MainViewModel.showAddMenu = false
                    MenuItem {
                        text: "Открыть торрент…"
                        onTriggered: header.openTorrentRequested()
                    }
                    MenuItem {
                        text: "Magnet-ссылка…"
                        onTriggered: MainViewModel.openMagnet()
                    }
                }
            }
        }
        RowLayout {
            Layout.fillWidth: true
            spacing: 8
            RowLayout {
                objectName: "library.selectionActions"
                visible: MainViewModel.hasSelection
                spacing: 6
                Accessible.role: Accessible.Grouping
                Accessible.description: MainViewModel.selectionHelp
                Text {
                    objectName: "library.selectionCount"
                    text: MainViewModel.selectionText
                    color: "#d0d0d6"
                    font.pixelSize: 12
                }
                LibraryButton {
                    objectName: "library.resumeSelected"
                    text: MainViewModel.resumeSelectedTitle
                    help: MainViewModel.selectionHelp
                    symbol: "play.circle"
                    onClicked: MainViewModel.resumeSelected()
                }
                LibraryButton {
                    objectName: "library.pauseSelected"
                    text: "Приостановить выбранные"
                    help: MainViewModel.selectionHelp
                    symbol: "pause.circle"
                    onClicked: MainViewModel.pauseSelected()
                }
                LibraryButton {
                    objectName: "library.removeSelected"
                    text: "Удалить выбранные…"
                    help: MainViewModel.selectionHelp
                    symbol: "trash"
                    onClicked: MainViewModel.removeSelected()
                }
            }
            Item { Layout.fillWidth: true }
            LibraryButton {
                id: sortButton
                objectName: "library.sort"
                visible: MainViewModel.sortMenuVisible
                text: "Сортировка"
                help: MainViewModel.sortHelp
                symbol: "arrow.up.arrow.down"
                onClicked: sortMenu.open()
                Menu {
                    id: sortMenu
                    y: sortButton.height
                    Repeater {
                        model: MainViewModel.sortValues
                        MenuItem {
                            required property string modelData
                            text: MainViewModel.sortTitle(modelData)
                            icon.source: MainViewModel.state.sort === modelData ? "image://symbol/checkmark" : ""
                            onTriggered: MainViewModel.chooseSort(modelData)
                        }
                    }
                }
            }
            Row {
                objectName: "library.layout"
                spacing: 2
                Accessible.role: Accessible.Grouping
                Accessible.name: "Вид"
                Repeater {
                    model: MainViewModel.layoutValues
                    LibraryButton {
                        required property string modelData
                        objectName: "library.layout." + modelData
                        text: MainViewModel.layoutTitle(modelData)
                        help: MainViewModel.layoutTitle(modelData) + " (" + MainViewModel.layoutShortcut(modelData) + ")"
                        symbol: MainViewModel.layoutSymbol(modelData)
                        iconOnly: true
                        prominent: MainViewModel.state.layout === modelData
                        onClicked: MainViewModel.chooseLayout(modelData)
                    }
                }
            }
            LibraryButton {
                objectName: "library.details"
                text: MainViewModel.detailsHelp
                help: MainViewModel.detailsHelp
                iconOnly: true
                symbol: "sidebar.squares.trailing"
                enabled: MainViewModel.detailsEnabled
                prominent: MainViewModel.state.showDetails
                onClicked: MainViewModel.toggleDetails()
            }
        }
    }
}
