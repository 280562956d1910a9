import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// The torrents as the layout shows them, or what to do when there are none. The keyboard moves
// the current card, row or line and selects it as a click would; Return opens it, Space plays
// it, Delete asks to remove the selection.
Item {
    id: content
    readonly property string layoutName: MainViewModel.state.layout
    readonly property Item activeView: layoutName === "table" ? table : layoutName === "list" ? list : grid
    signal openTorrentRequested()

    objectName: "library.content"

    function focusView() { activeView.forceActiveFocus() }

    TorrentContextMenu { id: contextMenu }

    // Keys shared by the three layouts; `view` has currentIndex, `step` is a line's length.
    function handleKey(view, event, step) {
        const model = MainViewModel.torrents
        if (model.count === 0)
            return
        let index = view.currentIndex < 0 ? 0 : view.currentIndex
        let moved = false
        switch (event.key) {
        case Qt.Key_Left: index -= 1; moved = true; break
        case Qt.Key_Right: index += 1; moved = true; break
        case Qt.Key_Up: index -= step; moved = true; break
        case Qt.Key_Down: index += step; moved = true; break
        case Qt.Key_Home: index = 0; moved = true; break
        case Qt.Key_End: index = model.count - 1; moved = true; break
        case Qt.Key_Return:
        case Qt.Key_Enter:
            if (view.currentIndex >= 0) MainViewModel.selectItem(model.idAt(view.currentIndex), 0)
            event.accepted = true
            return
        case Qt.Key_Space:
            if (view.currentIndex >= 0) MainViewModel.play(model.idAt(view.currentIndex))
            event.accepted = true
            return
        case Qt.Key_Delete:
            MainViewModel.askRemoval(model.idAt(view.currentIndex))
            event.accepted = true
            return
        case Qt.Key_A:
            if (event.modifiers & Qt.ControlModifier) {
                MainViewModel.selectAll()
                event.accepted = true
            }
            return
        case Qt.Key_Menu:
            if (view.currentIndex >= 0) contextMenu.show(model.idAt(view.currentIndex), view, 40, 40)
            event.accepted = true
            return
        default:
            return
        }
        if (!moved)
            return
        index = Math.max(0, Math.min(model.count - 1, index))
        view.currentIndex = index
        if (view.positionViewAtIndex)
            view.positionViewAtIndex(index, GridView.Contain)
        MainViewModel.keySelect(model.idAt(index), (event.modifiers & Qt.ShiftModifier) !== 0)
        event.accepted = true
    }

    // Nothing to show.
    ColumnLayout {
        objectName: "library.empty"
        anchors.centerIn: parent
        visible: MainViewModel.emptyState !== "none"
        spacing: 12
        Text {
            objectName: "library.emptyTitle"
            Layout.alignment: Qt.AlignHCenter
            text: MainViewModel.emptyTitle
            color: "#e8e8ea"
            font.pixelSize: 20
            font.bold: true
        }
        LibraryButton {
            objectName: "library.showAll"
            Layout.alignment: Qt.AlignHCenter
            visible: MainViewModel.emptyState === "noMatches"
            text: "Показать всю медиатеку"
            onClicked: MainViewModel.showAll()
        }
        RowLayout {
            Layout.alignment: Qt.AlignHCenter
            visible: MainViewModel.emptyState === "emptyLibrary"
            spacing: 8
            LibraryButton {
                objectName: "library.emptyAddTorrent"
                text: "Добавить торрент"
                symbol: "plus"
                prominent: true
                onClicked: content.openTorrentRequested()
            }
            LibraryButton {
                objectName: "library.emptyMagnet"
                text: "Magnet-ссылка"
                symbol: "link"
                onClicked: MainViewModel.openMagnet()
            }
        }
    }

    GridView {
        id: grid
        objectName: "library.grid"
        readonly property int columns: Math.max(1, Math.floor((width + 18) / (260 + 18)))
        anchors.fill: parent
        anchors.margins: 16
        visible: content.layoutName === "grid" && MainViewModel.emptyState === "none"
        focus: visible
        clip: true
        model: MainViewModel.torrents
        cellWidth: Math.floor(width / columns)
        cellHeight: (cellWidth - 18) * 9 / 16 + 150 + 20
        currentIndex: -1
        highlightFollowsCurrentItem: false
        keyNavigationEnabled: false
        reuseItems: true
        activeFocusOnTab: true
        Keys.onPressed: (event) => content.handleKey(grid, event, grid.columns)
        ScrollBar.vertical: ScrollBar {}
        header: Item {
            width: grid.width
            height: MainViewModel.featuredId.length > 0 ? 280 : 0
            visible: height > 0
            Repeater {
                model: MainViewModel.featuredModel
                delegate: FeaturedTorrent {
                    width: grid.width - 18
                    height: 260
                    label: MainViewModel.featuredLabel
                }
            }
        }
        delegate: Item {
            id: cell
            required property int index
            required property var model
            width: grid.cellWidth
            height: grid.cellHeight
            TorrentCard {
                id: card
                width: cell.width - 18
                height: cell.height - 20
                index: cell.index
                torrentId: cell.model.torrentId
                title: cell.model.title
                subtitle: cell.model.subtitle
                kindLine: cell.model.kindLine
                kindSymbol: cell.model.kindSymbol
                statusText: cell.model.statusText
                statusSymbol: cell.model.statusSymbol
                progress: cell.model.progress
                progressText: cell.model.progressText
                cardLine: cell.model.cardLine
                selected: cell.model.selected
                pauseResumes: cell.model.pauseResumes
                pauseHelp: cell.model.pauseHelp
                checking: cell.model.checking
                checkedText: cell.model.checkedText
                checkingSpeedText: cell.model.checkingSpeedText
                timeLeftText: cell.model.timeLeftText
                current: grid.currentIndex === cell.index
                onContextMenuRequested: (id, x, y) => contextMenu.show(id, card, x, y)
            }
        }
    }

    ListView {
        id: list
        objectName: "library.list"
        anchors.fill: parent
        anchors.margins: 16
        visible: content.layoutName === "list" && MainViewModel.emptyState === "none"
        focus: visible
        clip: true
        spacing: 10
        model: MainViewModel.torrents
        currentIndex: -1
        highlightFollowsCurrentItem: false
        keyNavigationEnabled: false
        reuseItems: true
        activeFocusOnTab: true
        Keys.onPressed: (event) => content.handleKey(list, event, 1)
        ScrollBar.vertical: ScrollBar {}
        delegate: TorrentListRow {
            id: rowItem
            required property var model
            width: list.width - 12
            torrentId: model.torrentId
            title: model.title
            subtitle: model.subtitle
            kindLine: model.kindLine
            kindSymbol: model.kindSymbol
            statusText: model.statusText
            statusSymbol: model.statusSymbol
            progress: model.progress
            progressText: model.progressText
            rowLine: model.rowLine
            sizeText: model.sizeText
            selected: model.selected
            pauseResumes: model.pauseResumes
            pauseHelp: model.pauseHelp
            checking: model.checking
            checkedText: model.checkedText
            checkingSpeedText: model.checkingSpeedText
            timeLeftText: model.timeLeftText
            current: list.currentIndex === index
            onContextMenuRequested: (id, x, y) => contextMenu.show(id, rowItem, x, y)
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 16
        spacing: 0
        visible: content.layoutName === "table" && MainViewModel.emptyState === "none"
        HorizontalHeaderView {
            id: tableHeader
            objectName: "library.tableHeader"
            Layout.fillWidth: true
            syncView: table
            clip: true
            delegate: Rectangle {
                required property int index
                required property var model
                implicitHeight: 28
                color: "#202126"
                Text {
                    anchors.fill: parent
                    anchors.leftMargin: 8
                    verticalAlignment: Text.AlignVCenter
                    text: MainViewModel.columnTitles[index]
                          + (MainViewModel.sortColumn === index ? (MainViewModel.sortAscending ? "  ▲" : "  ▼") : "")
                    color: "#d0d0d6"
                    font.pixelSize: 12
                    font.bold: MainViewModel.sortColumn === index
                }
                Accessible.role: Accessible.ColumnHeader
                Accessible.name: MainViewModel.columnTitles[index]
                MouseArea {
                    anchors.fill: parent
                    onClicked: MainViewModel.sortByColumn(index)
                }
            }
        }
        TableView {
            id: table
            objectName: "library.table"
            property int currentIndex: -1
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            focus: parent.visible
            activeFocusOnTab: true
            model: MainViewModel.table
            reuseItems: true
            columnWidthProvider: (column) => {
                const shares = [0.40, 0.11, 0.10, 0.15, 0.14, 0.10]
                return Math.max(60, Math.floor(table.width * shares[column]))
            }
            Keys.onPressed: (event) => content.handleKey(table, event, 1)
            ScrollBar.vertical: ScrollBar {}
            delegate: Rectangle {
                id: cellItem
                required property int row
                required property int column
                required property string display
                required property string torrentId
                required property bool selected
                implicitHeight: 30
                color: selected ? "#2c4f8f" : (table.currentIndex === row && table.activeFocus ? "#2a2c33" : (row % 2 ? "#1d1e22" : "#212227"))
                Accessible.role: Accessible.Cell
                Accessible.name: display
                Accessible.selected: selected
                Text {
                    anchors.fill: parent
                    anchors.leftMargin: 8
                    anchors.rightMargin: 6
                    verticalAlignment: Text.AlignVCenter
                    text: cellItem.display
                    color: "#e8e8ea"
                    font.pixelSize: 12
                    elide: Text.ElideRight
                }
                MouseArea {
                    anchors.fill: parent
                    acceptedButtons: Qt.LeftButton | Qt.RightButton
                    onClicked: (mouse) => {
                        table.currentIndex = cellItem.row
                        table.forceActiveFocus()
                        if (mouse.button === Qt.RightButton)
                            contextMenu.show(cellItem.torrentId, cellItem, mouse.x, mouse.y)
                        else
                            MainViewModel.tableClick(cellItem.torrentId, mouse.modifiers)
                    }
                    onDoubleClicked: MainViewModel.inspect(cellItem.torrentId)
                }
            }
        }
    }
}
