import QtQuick
import Velix.Library

// A torrent's or file's picture. Until a cover exists it is the pattern drawn from the
// identity, with the title over it when `showsTitle`, and the kind's symbol for what is not a
// video.
Item {
    id: artwork
    property string identity
    property string title
    property string kindSymbol
    property bool showsTitle: true
    // Set once the pattern for this identity is shown, so a changed row of the same torrent does
    // not load it again.
    property string loadedIdentity

    clip: true
    Image {
        id: cover
        anchors.fill: parent
        fillMode: Image.PreserveAspectCrop
        source: artwork.identity.length > 0 ? "image://pattern/" + encodeURIComponent(artwork.identity) : ""
        cache: true
        asynchronous: true
        onStatusChanged: if (status === Image.Ready) artwork.loadedIdentity = artwork.identity
    }
    Rectangle {
        anchors.fill: parent
        gradient: Gradient {
            GradientStop { position: 0.45; color: "transparent" }
            GradientStop { position: 1.0; color: Qt.rgba(0, 0, 0, 0.55) }
        }
    }
    SymbolIcon {
        anchors.centerIn: parent
        name: artwork.kindSymbol
        size: Math.min(artwork.width, artwork.height) / 3
        visible: artwork.kindSymbol.length > 0
        opacity: 0.8
    }
    Text {
        visible: artwork.showsTitle
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: 10
        text: artwork.title
        color: "white"
        font.pixelSize: Math.max(12, artwork.height / 9)
        font.bold: true
        wrapMode: Text.WordWrap
        maximumLineCount: 2
        elide: Text.ElideRight
        style: Text.Raised
        styleColor: Qt.rgba(0, 0, 0, 0.5)
    }
}
