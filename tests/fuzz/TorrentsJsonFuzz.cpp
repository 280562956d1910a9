// torrents.json: what the player remembers per torrent. A file that decodes must save and
// decode again to the same thing, or the next start would lose it all: one entry that fails
// fails the whole file.

#include "FuzzSupport.h"

#include "engine/TorrentMeta.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QJsonDocument document = QJsonDocument::fromJson(Fuzz::bytes(data, size));
    if (!document.isObject())
        return 0;
    const std::optional<QMap<QString, TorrentMeta>> meta = decodeMetaFile(document.object());
    if (!meta)
        return 0;

    const QJsonDocument saved = QJsonDocument::fromJson(Fuzz::savedText(encodeMetaFile(*meta)));
    Fuzz::require(saved.isObject(), "a saved torrents.json is one object");
    const std::optional<QMap<QString, TorrentMeta>> again = decodeMetaFile(saved.object());
    Fuzz::require(again.has_value(), "a saved torrents.json decodes");
    Fuzz::require(*again == *meta, "a saved torrents.json decodes to what was saved");
    return 0;
}
