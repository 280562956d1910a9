import QtQuick
import Velix.Library

// A symbol by its name, drawn by the program's symbol images.
Item {
    id: icon
    property string name
    property int size: 16
    implicitWidth: size
    implicitHeight: size
    Accessible.ignored: true
    Image {
        anchors.fill: parent
        sourceSize: Qt.size(icon.size * 2, icon.size * 2)
        source: icon.name.length > 0 ? "image://symbol/" + icon.name : ""
        fillMode: Image.PreserveAspectFit
    }
}
