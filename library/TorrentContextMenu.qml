import QtQuick
import Velix.Library
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

    // Inline components don't see this file's ids: each entry is told its menu.
    component Entry: MenuItem {
        required property var host
        property var commands: []
        readonly property var entryData: host.entries.find(e => commands.indexOf(e.command) >= 0)
        objectName: "menu." + commands[0]
        visible: entryData !== undefined
        height: visible ? implicitHeight : 0
        text: entryData ? entryData.text : ""
        checkable: entryData ? entryData.checkable : false
        checked: entryData ? entryData.checked : false
        Accessible.name: text
        onTriggered: MainViewModel.runCommand(host.torrentId, entryData.command)
    }

    Entry { host: menu; commands: ["open"] }
    Entry { host: menu; commands: ["details"] }
    Entry { host: menu; commands: ["resume"] }
    Entry { host: menu; commands: ["pause"] }
    Entry { host: menu; commands: ["force_start"] }
    Entry { host: menu; commands: ["sequential_on", "sequential_off"] }
    Entry { host: menu; commands: ["limits"] }
    Entry { host: menu; commands: ["move"] }
    Entry { host: menu; commands: ["reveal"] }
    Entry { host: menu; commands: ["recheck"] }
    Entry { host: menu; commands: ["reannounce"] }
    Menu {
        objectName: "menu.queue"
        title: menu.entry(["queue_top"]) ? menu.entry(["queue_top"]).submenu : ""
        Entry { host: menu; commands: ["queue_top"] }
        Entry { host: menu; commands: ["queue_up"] }
        Entry { host: menu; commands: ["queue_down"] }
        Entry { host: menu; commands: ["queue_bottom"] }
    }
    Entry { host: menu; commands: ["remove"] }
}
