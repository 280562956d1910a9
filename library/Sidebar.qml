import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// The filters with their counts, and the state of the transfers and the network.
Rectangle {
    id: sidebar
    objectName: "sidebar"
    color: "#16171a"

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 10
        spacing: 2

        Repeater {
            model: MainViewModel.filterValues
            delegate: ItemDelegate {
                id: filterRow
                required property string modelData
                readonly property bool current: MainViewModel.revision >= 0 && MainViewModel.filterCurrent(modelData)
                objectName: "sidebar.filter." + modelData
                Layout.fillWidth: true
                focusPolicy: Qt.StrongFocus
                text: MainViewModel.filterTitle(modelData)
                Accessible.name: text
                Accessible.description: String(countText.text)
                background: Rectangle {
                    radius: 6
                    color: filterRow.current ? Qt.rgba(1, 1, 1, 0.10) : filterRow.hovered ? Qt.rgba(1, 1, 1, 0.05) : "transparent"
                    border.width: filterRow.visualFocus ? 2 : 0
                    border.color: "#7fb0ff"
                }
                contentItem: RowLayout {
                    spacing: 8
                    SymbolIcon { name: MainViewModel.filterSymbol(filterRow.modelData) }
                    Text {
                        Layout.fillWidth: true
                        text: filterRow.text
                        color: "#e8e8ea"
                        font.pixelSize: 13
                        font.bold: filterRow.current
                    }
                    Text {
                        id: countText
                        text: MainViewModel.revision >= 0 ? MainViewModel.filterCount(filterRow.modelData) : 0
                        color: "#8c8c94"
                        font.pixelSize: 12
                    }
                }
                onClicked: MainViewModel.chooseFilter(modelData)
            }
        }

        Item { Layout.fillHeight: true }

        // Transfers.
        ColumnLayout {
            objectName: "sidebar.transfer"
            Layout.fillWidth: true
            spacing: 4
            RowLayout {
                Layout.fillWidth: true
                Text {
                    objectName: "sidebar.downloading"
                    Layout.fillWidth: true
                    text: MainViewModel.downloadingText
                    color: "#e8e8ea"
                    font.pixelSize: 12
                }
                LibraryButton {
                    objectName: "sidebar.altSpeed"
                    visible: MainViewModel.altSpeedEnabled
                    text: "Альтернативные лимиты скорости"
                    help: "Альтернативные лимиты скорости"
                    iconOnly: true
                    symbol: "tortoise"
                    onClicked: MainViewModel.toggleAltSpeed()
                }
                LibraryButton {
                    objectName: "sidebar.transferDetails"
                    text: MainViewModel.transferToggleHelp
                    help: MainViewModel.transferToggleHelp
                    iconOnly: true
                    symbol: MainViewModel.transferCollapsed ? "chevron.up" : "chevron.down"
                    onClicked: MainViewModel.state.toggleTransferDetails()
                }
            }
            GridLayout {
                objectName: "sidebar.transferLines"
                visible: !MainViewModel.transferCollapsed
                columns: 2
                columnSpacing: 6
                rowSpacing: 3
                SymbolIcon { name: "arrow.down.to.line"; size: 13 }
                Text { objectName: "sidebar.downloadRate"; text: MainViewModel.downloadRateText; color: "#c9c9cf"; font.pixelSize: 12 }
                SymbolIcon { name: "arrow.up.to.line"; size: 13 }
                Text { objectName: "sidebar.uploadRate"; text: MainViewModel.uploadRateText; color: "#c9c9cf"; font.pixelSize: 12 }
                SymbolIcon { name: "person.2"; size: 13 }
                Text { objectName: "sidebar.peers"; text: MainViewModel.peersText; color: "#c9c9cf"; font.pixelSize: 12 }
                SymbolIcon { name: "clock"; size: 13 }
                Text { objectName: "sidebar.remaining"; text: MainViewModel.remainingText; color: "#c9c9cf"; font.pixelSize: 12 }
            }
        }

        // Network.
        ColumnLayout {
            objectName: "sidebar.network"
            Layout.fillWidth: true
            Layout.topMargin: 8
            spacing: 3
            RowLayout {
                SymbolIcon { name: MainViewModel.shieldSymbol; size: 13 }
                Text { objectName: "sidebar.port"; text: MainViewModel.portText; color: "#c9c9cf"; font.pixelSize: 12 }
            }
            Text {
                objectName: "sidebar.listen"
                Layout.fillWidth: true
                visible: text.length > 0
                text: MainViewModel.listenSummary
                color: "#8c8c94"
                font.pixelSize: 11
                wrapMode: Text.WrapAnywhere
            }
            RowLayout {
                SymbolIcon { name: "point.3.connected.trianglepath.dotted"; size: 13 }
                Text { objectName: "sidebar.dht"; text: MainViewModel.dhtText; color: "#c9c9cf"; font.pixelSize: 12 }
            }
            RowLayout {
                visible: MainViewModel.bannedText.length > 0
                SymbolIcon { name: "hand.raised"; size: 13 }
                Text { objectName: "sidebar.banned"; text: MainViewModel.bannedText; color: "#c9c9cf"; font.pixelSize: 12 }
            }
            Text {
                objectName: "sidebar.listenErrors"
                Layout.fillWidth: true
                visible: text.length > 0
                text: MainViewModel.listenErrors
                color: "#ff7b6b"
                font.pixelSize: 11
                wrapMode: Text.WrapAnywhere
            }
        }

        LibraryButton {
            objectName: "sidebar.settings"
            Layout.fillWidth: true
            Layout.topMargin: 8
            text: "Настройки"
            help: "Настройки"
            symbol: "slider.horizontal.3"
            onClicked: MainViewModel.openSettings()
        }
    }
}
