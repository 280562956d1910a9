import QtQuick
import QtQuick.Controls

// The menu of a card, row or line. Which entries it has, their texts and order come from
// MainViewModel.contextMenu; the entries stand here in that order, and those the model leaves
// out are hidden.
Menu {
    id: menu
    property string torrentId
    property var entries: []

    objectName: "torrent.contextMenu"

    function show(id, item, x, y) {
        torrentId = id
        entries = MainViewModel.contextMenu(id)
        popup(item, x, y)
    }
    function entry(commands) {
        return entries.find(e => commands.indexOf(e.command) >= 0)
    }

    component Entry: MenuItem {
        property var commands: []
        readonly property var entryData: menu.entry(commands)
        objectName: "menu." + commands[0]
        visible: entryData !== undefined
        height: visible ? implicitHeight : 0
        text: entryData ? entryData.text : ""
        checkable: entryData ? entryData.checkable : false
        checked: entryData ? entryData.checked : false
        Accessible.name: text
        onTriggered: MainViewModel.runCommand(menu.torrentId, entryData.command)
    }

    Entry { commands: ["open"] }
    Entry { commands: ["details"] }
    Entry { commands: ["resume"] }
    Entry { commands: ["pause"] }
    Entry { commands: ["force_start"] }
    Entry { commands: ["sequential_on", "sequential_off"] }
    Entry { commands: ["limits"] }
    Entry { commands: ["move"] }
    Entry { commands: ["reveal"] }
    Entry { commands: ["recheck"] }
    Entry { commands: ["reannounce"] }
    Menu {
        objectName: "menu.queue"
        title: menu.entry(["queue_top"]) ? menu.entry(["queue_top"]).submenu : ""
        Entry { commands: ["queue_top"] }
        Entry { commands: ["queue_up"] }
        Entry { commands: ["queue_down"] }
        Entry { commands: ["queue_bottom"] }
    }
    Entry { commands: ["remove"] }
}
