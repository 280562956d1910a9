import QtQuick
import Velix.Library

// What the colours of a pieces bar mean.
Row {
    spacing: 12
    Repeater {
        model: [
            { text: "Загружено", color: "#3d9a5b" },
            { text: "Получение / запись", color: "#e0a030" },
            { text: "Ожидание", color: "#4a4f5a" },
            { text: "Нет у пиров", color: "#c0453a" }
        ]
        delegate: Row {
            required property var modelData
            spacing: 4
            Rectangle { width: 10; height: 10; radius: 2; color: modelData.color; anchors.verticalCenter: parent.verticalCenter }
            Text { text: modelData.text; color: "#c9c9cf"; font.pixelSize: 11 }
        }
    }
}
