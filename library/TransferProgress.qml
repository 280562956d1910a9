import QtQuick
import Velix.Library

// The progress bar of a torrent: its pieces once the map is in, else a plain fill.
PiecesBar {
    property var row
    objectName: "torrent.progress"
    height: 4
    Accessible.role: Accessible.ProgressBar
    Accessible.name: summary.length > 0 ? summary : progressText
    property string progressText
}
