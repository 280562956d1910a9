import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import Velix.App

// The main window: the menu bar with the program's commands around the library's view. Its
// keys are application-wide, so they act from the player window too.
ApplicationWindow {
    id: window
    objectName: "main"
    title: "Velix"
    width: 1280
    height: 860
    minimumWidth: 900
    minimumHeight: 560
    visible: false

    menuBar: MenuBar {
        id: bar
        objectName: "menuBar"

        Instantiator {
            model: AppCommands.menus
            delegate: Menu {
                id: menu
                required property QtObject modelData
                objectName: modelData.id
                title: modelData.title
                // As wide as its widest command, key included.
                width: Math.max(implicitWidth, widest + leftPadding + rightPadding)
                property real widest: {
                    let w = 0
                    for (let i = 0; i < rows.count; ++i) {
                        const row = rows.objectAt(i)
                        if (row)
                            w = Math.max(w, row.implicitWidth)
                    }
                    return w
                }

                Instantiator {
                    id: rows
                    model: menu.modelData.items
                    delegate: CommandMenuItem {}
                    onObjectAdded: (index, object) => menu.insertItem(index, object)
                    onObjectRemoved: (index, object) => menu.removeItem(object)
                }
            }
            onObjectAdded: (index, object) => bar.insertMenu(index, object)
            onObjectRemoved: (index, object) => bar.removeMenu(object)
        }
    }

    Loader {
        id: content
        objectName: "mainContent"
        anchors.fill: parent
        source: WindowOpener.mainContent
        focus: true
    }

    FileDialog {
        id: torrentPanel
        objectName: "torrentPanel"
        title: AppActions.torrentPanelTitle
        fileMode: FileDialog.OpenFiles
        nameFilters: AppActions.torrentPanelFilters
        currentFolder: AppActions.torrentPanelFolder
        onAccepted: AppActions.chooseTorrents(selectedFiles)
    }

    Connections {
        target: AppActions
        function onTorrentPanelRequested() {
            torrentPanel.open()
        }
    }

    Instantiator {
        model: AppCommands.commands
        delegate: Shortcut {
            required property QtObject modelData
            objectName: "shortcut." + modelData.id
            sequence: modelData.shortcut
            context: Qt.ApplicationShortcut
            enabled: modelData.enabled
            onActivated: AppCommands.trigger(modelData.id)
        }
    }
}
