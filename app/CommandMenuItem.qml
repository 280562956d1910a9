import QtQuick
import QtQuick.Controls
import Velix.App

// One command in a menu: its text, its key on the right, a rule above it where the menu
// groups commands. The key itself is the application-wide shortcut of the main window.
MenuItem {
    id: item
    required property QtObject modelData
    objectName: modelData.id
    text: modelData.text
    enabled: modelData.enabled
    checkable: modelData.checkable
    checked: modelData.checked
    topPadding: modelData.separatorBefore ? 14 : 6
    Accessible.name: modelData.text

    onTriggered: {
        AppCommands.trigger(modelData.id)
        // A click toggles the item by itself; the command's state decides.
        item.checked = Qt.binding(() => item.modelData.checked)
    }

    Rectangle {
        visible: item.modelData.separatorBefore
        x: 6
        y: 5
        width: item.width - 12
        height: 1
        color: item.palette.mid
    }

    contentItem: Item {
        implicitWidth: label.anchors.leftMargin + label.implicitWidth + keys.implicitWidth + 48
        implicitHeight: label.implicitHeight
        Label {
            id: label
            anchors.left: parent.left
            anchors.leftMargin: item.checkable && item.indicator ? item.indicator.width + 4 : 0
            anchors.verticalCenter: parent.verticalCenter
            text: item.text
            color: item.enabled ? item.palette.windowText : item.palette.mid
        }
        Label {
            id: keys
            anchors.right: parent.right
            anchors.verticalCenter: parent.verticalCenter
            text: item.modelData.shortcutText
            color: item.palette.mid
        }
    }
}
