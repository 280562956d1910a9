import QtQuick
import Velix.Library
import QtQuick.Controls
import QtQuick.Layouts

// Confirms the removal MainViewModel holds pending: the torrents alone, or with their files.
Popup {
    id: dialog
    objectName: "library.removal"
    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    padding: 20
    visible: MainViewModel.showRemoval
    closePolicy: Popup.CloseOnEscape
    onClosed: if (MainViewModel.showRemoval) MainViewModel.cancelRemoval()

    background: Rectangle {
        radius: 12
        color: "#24252a"
        border.color: "#3a3b42"
    }
    contentItem: ColumnLayout {
        spacing: 16
        Accessible.role: Accessible.Dialog
        Accessible.name: MainViewModel.removalTitle
        Text {
            objectName: "library.removalTitle"
            Layout.maximumWidth: 420
            text: MainViewModel.removalTitle
            color: "white"
            font.pixelSize: 15
            font.bold: true
            wrapMode: Text.Wrap
        }
        RowLayout {
            spacing: 8
            LibraryButton {
                objectName: "removal.cancel"
                text: "Отмена"
                onClicked: MainViewModel.cancelRemoval()
            }
            LibraryButton {
                objectName: "removal.keepFiles"
                text: "Удалить торрент"
                prominent: true
                focus: true
                onClicked: MainViewModel.confirmRemoval(false)
            }
            LibraryButton {
                objectName: "removal.deleteFiles"
                text: "Удалить вместе с файлами"
                onClicked: MainViewModel.confirmRemoval(true)
                contentItem: Text {
                    text: "Удалить вместе с файлами"
                    color: "#ff6b5e"
                    font.pixelSize: 13
                    font.bold: true
                }
            }
        }
    }
}
