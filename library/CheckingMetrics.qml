import QtQuick
import Velix.Library

// "Проверено 42% · Скорость: 80 МБ/с · Осталось: ≈ 5 с" while files are checked, "Загружено 42%"
// otherwise.
Row {
    property bool checking
    property string checkedText
    property string progressText
    property string speedText
    property string timeLeftText
    objectName: "torrent.checkingMetrics"
    spacing: 10
    Accessible.role: Accessible.StaticText
    Accessible.name: checkedText + " " + progressText
    Text {
        text: parent.checkedText + " " + parent.progressText
        color: "#c9c9cf"
        font.pixelSize: 12
    }
    Text {
        visible: parent.checking
        text: "Скорость: " + parent.speedText
        color: "#c9c9cf"
        font.pixelSize: 12
    }
    Text {
        visible: parent.checking
        text: "Осталось: " + parent.timeLeftText
        color: "#c9c9cf"
        font.pixelSize: 12
    }
}
