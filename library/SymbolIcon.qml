import QtQuick

// A symbol by its name, drawn by the program's symbol images.
Image {
    id: icon
    property string name
    property int size: 16
    width: size
    height: size
    sourceSize: Qt.size(size * 2, size * 2)
    source: name.length > 0 ? "image://symbol/" + name : ""
    fillMode: Image.PreserveAspectFit
    asynchronous: false
    Accessible.ignored: true
}
