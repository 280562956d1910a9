import QtQuick
import Velix.Library
import QtQuick.Controls

// The library's buttons: a symbol, a text, a help shown as a tool tip and read out as the
// accessible description, and a prominent form for the main action of a card.
Button {
    id: button
    property string symbol
    property string help
    property bool prominent: false
    property bool iconOnly: false

    focusPolicy: Qt.StrongFocus
    hoverEnabled: true
    display: iconOnly ? AbstractButton.IconOnly : AbstractButton.TextBesideIcon
    icon.source: symbol.length > 0 ? "image://symbol/" + symbol : ""
    icon.width: 16
    icon.height: 16
    icon.color: prominent ? "white" : palette.buttonText
    Accessible.name: text
    Accessible.description: help
    ToolTip.visible: help.length > 0 && hovered
    ToolTip.text: help
    ToolTip.delay: 600

    background: Rectangle {
        implicitHeight: 28
        implicitWidth: 28
        radius: 6
        color: button.prominent ? (button.down ? "#2a62c9" : "#3478f6")
                                : (button.down ? Qt.rgba(1, 1, 1, 0.18) : button.hovered ? Qt.rgba(1, 1, 1, 0.12) : Qt.rgba(1, 1, 1, 0.06))
        opacity: button.enabled ? 1 : 0.4
        border.width: button.visualFocus ? 2 : 0
        border.color: "#7fb0ff"
    }
    contentItem: Row {
        spacing: 6
        SymbolIcon {
            anchors.verticalCenter: parent.verticalCenter
            name: button.symbol
            visible: button.symbol.length > 0
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            visible: !button.iconOnly
            text: button.text
            color: button.prominent ? "white" : "#e8e8ea"
            font.pixelSize: 13
            font.bold: button.prominent
            elide: Text.ElideRight
        }
    }
}
