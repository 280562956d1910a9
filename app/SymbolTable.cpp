#include "app/SymbolTable.h"

namespace SymbolTable {

const QList<Entry> &entries()
{
    // Symbolic (single-colour) icons: they take the text colour of the theme, as the symbols
    // do beside the interface's texts.
    static const QList<Entry> table{
        // library filters and torrent states
        {"tray.full", "folder-videos-symbolic"},
        {"arrow.down.circle", "folder-download-symbolic"},
        {"arrow.down.circle.fill", "go-down-symbolic"},
        {"arrow.up.circle", "send-to-symbolic"},
        {"arrow.up.circle.fill", "go-up-symbolic"},
        {"checkmark.circle", "emblem-ok-symbolic"},
        {"checkmark.circle.fill", "emblem-default-symbolic"},
        {"pause.circle", "media-playback-pause-symbolic"},
        {"pause.circle.fill", "media-playback-pause-symbolic"},
        {"bolt.horizontal.circle", "system-run-symbolic"},
        {"exclamationmark.triangle", "dialog-warning-symbolic"},
        {"exclamationmark.triangle.fill", "dialog-error-symbolic"},
        {"arrow.triangle.2.circlepath", "emblem-synchronizing-symbolic"},
        {"clock", "appointment-soon-symbolic"},
        // layouts and toolbars
        {"square.grid.2x2", "view-grid-symbolic"},
        {"list.bullet", "view-list-bullet-symbolic"},
        {"tablecells", "x-office-spreadsheet-symbolic"},
        {"chevron.left", "go-previous-symbolic"},
        {"chevron.right", "go-next-symbolic"},
        {"info.circle", "dialog-information-symbolic"},
        {"ellipsis", "view-more-horizontal-symbolic"},
        {"magnifyingglass", "system-search-symbolic"},
        {"arrow.clockwise", "view-refresh-symbolic"},
        {"plus", "list-add-symbolic"},
        {"xmark", "window-close-symbolic"},
        {"xmark.circle", "process-stop-symbolic"},
        {"xmark.circle.fill", "window-close-symbolic"},
        {"link", "insert-link-symbolic"},
        {"sidebar.squares.trailing", "sidebar-show-right-symbolic"},
        {"checkmark", "object-select-symbolic"},
        {"play.circle", "media-playback-start-symbolic"},
        {"arrow.up.to.line", "go-top-symbolic"},
        {"chevron.down", "pan-down-symbolic"},
        {"chevron.up", "pan-up-symbolic"},
        {"trash", "user-trash-symbolic"},
        {"lock.fill", "changes-prevent-symbolic"},
        {"checklist", "edit-select-all-symbolic"},
        {"arrow.up.arrow.down", "view-sort-descending-symbolic"},
        // file kinds and check boxes
        {"folder", "folder-symbolic"},
        {"film", "video-x-generic-symbolic"},
        {"waveform", "audio-x-generic-symbolic"},
        {"captions.bubble", "media-view-subtitles-symbolic"},
        {"photo", "image-x-generic-symbolic"},
        {"doc", "x-office-document-symbolic"},
        {"doc.text", "text-x-generic-symbolic"},
        {"doc.zipper", "package-x-generic-symbolic"},
        {"checkmark.square.fill", "checkbox-checked-symbolic"},
        {"minus.square.fill", "checkbox-mixed-symbolic"},
        {"square", "checkbox-symbolic"},
        // playback
        {"play.fill", "media-playback-start-symbolic"},
        {"pause.fill", "media-playback-pause-symbolic"},
        {"play.rectangle", "applications-multimedia-symbolic"},
        {"play.rectangle.fill", "media-playback-start-symbolic"},
        {"speaker.wave.2.fill", "audio-volume-high-symbolic"},
        {"speaker.slash.fill", "audio-volume-muted-symbolic"},
        // settings and sidebar
        {"speedometer", "power-profile-performance-symbolic"},
        {"network", "network-workgroup-symbolic"},
        {"slider.horizontal.3", "preferences-system-symbolic"},
        {"arrow.down.to.line", "network-receive-symbolic"},
        {"person.2", "avatar-default-symbolic"},
        {"tortoise", "power-profile-power-saver-symbolic"},
        {"checkmark.shield", "security-high-symbolic"},
        {"shield", "security-low-symbolic"},
        {"point.3.connected.trianglepath.dotted", "emblem-shared-symbolic"},
        {"hand.raised", "action-unavailable-symbolic"},
        {"gift.fill", "starred-symbolic"},
    };
    return table;
}

std::optional<QString> iconName(const QString &symbol)
{
    for (const Entry &entry : entries()) {
        if (symbol == QLatin1String(entry.symbol))
            return QString::fromLatin1(entry.icon);
    }
    return std::nullopt;
}

} // namespace SymbolTable
