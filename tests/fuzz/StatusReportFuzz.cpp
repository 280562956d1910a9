// The bridge's reports as the engine decodes them: the status report every poll, the events,
// and the per-torrent reports (files, trackers, peers, a torrent file's preview). One input
// goes to every decoder; each takes what is its own and refuses the rest.

#include "FuzzSupport.h"

#include "engine/TorrentReports.h"
#include "engine/TorrentStatus.h"
#include "media/TorrentFile.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json = Fuzz::bytes(data, size);

    if (std::optional<StatusSnapshot> snapshot = StatusSnapshot::decode(json)) {
        for (TorrentStatus &torrent : snapshot->torrents) {
            // The check's rate is the engine's own, but any double may come out of an estimate:
            // the texts shown beside a check must hold for all of them.
            torrent.checkingRate = torrent.availability;
            const std::optional<double> eta = torrent.checkingETA();
            Fuzz::require(!eta || (std::isfinite(*eta) && *eta >= 0), "a check's time left is a duration");
            Fuzz::require(!torrent.checkingSpeedText().isEmpty(), "a check always has a speed text");
        }
    }
    TorrentEvent::decodeList(json);
    PeerInfo::decodeList(json);
    TrackerInfo::decodeList(json);
    decodeTorrentFiles(json);
    const TorrentPreview preview = TorrentPreview::decode(json);
    Fuzz::require(preview.error.has_value() || QJsonDocument::fromJson(json).isObject(),
                  "a preview that is no object says so");
    return 0;
}
