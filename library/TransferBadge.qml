import QtQuick
import Velix.Library

// The torrent's state as its symbol and its line.
Row {
    property string statusSymbol
    property string statusText
    objectName: "torrent.status"
    spacing: 5
    Accessible.role: Accessible.StaticText
    Accessible.name: statusText
    SymbolIcon {
        anchors.verticalCenter: parent.verticalCenter
        name: parent.statusSymbol
        size: 13
    }
    Text {
        anchors.verticalCenter: parent.verticalCenter
        text: parent.statusText
        color: "#c9c9cf"
        font.pixelSize: 12
    }
}
