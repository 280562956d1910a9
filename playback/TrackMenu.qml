import QtQuick
import QtQuick.Controls
import Velix.Playback

// A menu of rows ({id, label, detail, checked}) from the player screen, with one disabled line
// while there is nothing to choose yet.
Menu {
    id: menu
    property var rows: []
    property string placeholder: ""
    signal chosen(string id)
    // The bars stay up while the user looks through a menu.
    onAboutToShow: Player.holdControls(true)
    onAboutToHide: Player.holdControls(false)

    MenuItem {
        text: menu.placeholder
        enabled: false
        visible: menu.placeholder !== ""
        height: visible ? implicitHeight : 0
    }

    Instantiator {
        model: menu.rows
        delegate: MenuItem {
            required property var modelData
            text: modelData.detail !== "" ? modelData.label + "   " + modelData.detail : modelData.label
            checkable: true
            checked: modelData.checked
            onTriggered: menu.chosen(modelData.id)
        }
        onObjectAdded: (index, object) => menu.insertItem(index + 1, object)
        onObjectRemoved: (index, object) => menu.removeItem(object)
    }
}
