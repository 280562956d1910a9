#include "remote/StateDocument.h"

#include "core/PathText.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "library/TorrentDisplay.h"
#include "playback/PlayerModel.h"

#include <QJsonArray>

namespace {

QJsonValue optionalNumber(const std::optional<double> &value)
{
    return value ? QJsonValue(*value) : QJsonValue(QJsonValue::Null);
}

QJsonObject sessionPart(const SessionInfo &s)
{
    return QJsonObject{
        {QStringLiteral("download"), s.download},
        {QStringLiteral("upload"), s.upload},
        {QStringLiteral("dhtNodes"), s.dhtNodes},
        {QStringLiteral("incoming"), s.incoming},
        {QStringLiteral("listening"), QJsonArray::fromStringList(s.listening)},
        {QStringLiteral("listenErrors"), s.listenErrors.join(QLatin1Char('\n'))},
        {QStringLiteral("banned"), s.banned},
        {QStringLiteral("portmap"), s.portmap},
        // Whether an address is known, never the address: the document goes into scripts' logs.
        {QStringLiteral("externalIP"), s.externalIP.isEmpty() ? QString() : QStringLiteral("set")},
    };
}

QJsonObject torrentPart(const TorrentStatus &t)
{
    return QJsonObject{
        {QStringLiteral("id"), t.id},
        {QStringLiteral("name"), t.name},
        {QStringLiteral("state"), t.state},
        {QStringLiteral("status"), statusText(t)},
        {QStringLiteral("paused"), t.paused},
        {QStringLiteral("progress"), t.progress},
        {QStringLiteral("wanted"), t.wanted},
        {QStringLiteral("wantedDone"), t.wantedDone},
        {QStringLiteral("downloadRate"), t.downloadRate},
        {QStringLiteral("uploadRate"), t.uploadRate},
        {QStringLiteral("peers"), t.peers},
        {QStringLiteral("seeds"), t.seeds},
        {QStringLiteral("swarmSeeds"), t.swarmSeeds},
        {QStringLiteral("swarmPeers"), t.swarmPeers},
        {QStringLiteral("uploadLimit"), t.uploadLimit},
        {QStringLiteral("downloadLimit"), t.downloadLimit},
        {QStringLiteral("uploadRateLimit"), t.uploadRateLimit},
        {QStringLiteral("downloadRateLimit"), t.downloadRateLimit},
        {QStringLiteral("sequential"), t.sequential},
        {QStringLiteral("error"), t.error},
        {QStringLiteral("savePath"), t.savePath},
        {QStringLiteral("checkingRate"), optionalNumber(t.checkingRate)},
        {QStringLiteral("checkingETA"), optionalNumber(t.checkingETA())},
        {QStringLiteral("displayProgress"), displayProgress(t)},
    };
}

QJsonObject uiPart(const MainUIState *ui)
{
    if (!ui) {
        // A window that was never made reads as a fresh one.
        const LibraryPreferences preferences;
        return QJsonObject{
            {QStringLiteral("selection"), QJsonArray()},
            {QStringLiteral("tab"), rawValue(DetailTab::files)},
            {QStringLiteral("filter"), rawValue(TorrentFilter::all)},
            {QStringLiteral("addSheet"), false},
            {QStringLiteral("magnetSheet"), false},
            {QStringLiteral("layout"), rawValue(preferences.layout)},
            {QStringLiteral("sort"), rawValue(preferences.sort)},
            {QStringLiteral("details"), false},
            {QStringLiteral("search"), QString()},
            {QStringLiteral("contents"), QString()},
            {QStringLiteral("transferDetailsCollapsed"), preferences.transferDetailsCollapsed},
            {QStringLiteral("settings"), false},
            {QStringLiteral("settingsPage"), rawValue(SettingsPage::downloads)},
        };
    }
    QStringList selection(ui->selection().begin(), ui->selection().end());
    selection.sort();
    return QJsonObject{
        {QStringLiteral("selection"), QJsonArray::fromStringList(selection)},
        {QStringLiteral("tab"), rawValue(ui->tab())},
        {QStringLiteral("filter"), rawValue(ui->filter())},
        {QStringLiteral("addSheet"), !ui->addURL().isEmpty()},
        {QStringLiteral("magnetSheet"), ui->showMagnet()},
        {QStringLiteral("layout"), rawValue(ui->preferences().layout)},
        {QStringLiteral("sort"), rawValue(ui->preferences().sort)},
        {QStringLiteral("details"), ui->showDetails()},
        {QStringLiteral("search"), ui->search()},
        {QStringLiteral("contents"), ui->openedTorrentID()},
        {QStringLiteral("transferDetailsCollapsed"), ui->preferences().transferDetailsCollapsed},
        {QStringLiteral("settings"), ui->showSettings()},
        {QStringLiteral("settingsPage"), rawValue(ui->settingsPage())},
    };
}

QJsonArray optionsPart(const QList<TrackOption> &options)
{
    QJsonArray rows;
    for (const TrackOption &o : options) {
        rows.append(QJsonObject{
            {QStringLiteral("id"), o.id},
            {QStringLiteral("label"), o.label},
            {QStringLiteral("selected"), o.selected},
        });
    }
    return rows;
}

QJsonObject playerPart(const PlayerModel *p)
{
    if (!p) {
        return QJsonObject{
            {QStringLiteral("loaded"), false},         {QStringLiteral("position"), 0.0},
            {QStringLiteral("duration"), 0.0},         {QStringLiteral("paused"), false},
            {QStringLiteral("buffering"), false},      {QStringLiteral("waitingAfterSeek"), false},
            {QStringLiteral("cacheTime"), 0.0},        {QStringLiteral("ended"), false},
            {QStringLiteral("hasVideo"), false},       {QStringLiteral("error"), QJsonValue::Null},
            {QStringLiteral("controlsVisible"), true}, {QStringLiteral("volume"), 100.0},
            {QStringLiteral("tracksReadyAfter"), QJsonValue::Null},
            {QStringLiteral("firstFrameAfter"), QJsonValue::Null},
            {QStringLiteral("downloadedRanges"), 0},   {QStringLiteral("audio"), QJsonArray()},
            {QStringLiteral("subtitles"), QJsonArray()}, {QStringLiteral("next"), QString()},
            {QStringLiteral("item"), QJsonValue::Null},
        };
    }
    QJsonObject player{
        {QStringLiteral("loaded"), p->loaded()},
        {QStringLiteral("position"), p->position()},
        {QStringLiteral("duration"), p->duration()},
        {QStringLiteral("paused"), p->paused()},
        {QStringLiteral("buffering"), p->buffering()},
        {QStringLiteral("waitingAfterSeek"), p->waitingAfterSeek()},
        {QStringLiteral("cacheTime"), p->cacheTime()},
        {QStringLiteral("ended"), p->ended()},
        {QStringLiteral("hasVideo"), p->hasVideo()},
        {QStringLiteral("error"), p->error() ? QJsonValue(*p->error()) : QJsonValue(QJsonValue::Null)},
        {QStringLiteral("controlsVisible"), p->controlsVisible()},
        {QStringLiteral("volume"), p->volume()},
        {QStringLiteral("tracksReadyAfter"), optionalNumber(p->tracksReadyAfter())},
        {QStringLiteral("firstFrameAfter"), optionalNumber(p->firstFrameAfter())},
        {QStringLiteral("downloadedRanges"), p->downloadedRanges().size()},
        {QStringLiteral("audio"), optionsPart(p->audioOptions())},
        {QStringLiteral("subtitles"), optionsPart(p->subtitleOptions())},
    };
    const auto next = p->nextFile();
    player.insert(QStringLiteral("next"), next ? PathText::lastPathComponent(next->path) : QString());
    QJsonValue item = QJsonValue::Null;
    if (const auto open = p->item()) {
        item = QJsonObject{
            {QStringLiteral("id"), open->torrentId},
            {QStringLiteral("file"), open->file.i},
            {QStringLiteral("name"), PathText::lastPathComponent(open->file.path)},
        };
    }
    player.insert(QStringLiteral("item"), item);
    return player;
}

} // namespace

QJsonObject stateDocument(const TorrentEngine *engine, const PlayerModel *player, const MainUIState *ui)
{
    QJsonArray torrents;
    if (engine) {
        for (const TorrentStatus &t : engine->torrents())
            torrents.append(torrentPart(t));
    }
    return QJsonObject{
        {QStringLiteral("session"), sessionPart(engine ? engine->sessionInfo() : SessionInfo{})},
        {QStringLiteral("torrents"), torrents},
        {QStringLiteral("ui"), uiPart(ui)},
        {QStringLiteral("player"), playerPart(player)},
        {QStringLiteral("trackers"),
         QJsonObject{
             {QStringLiteral("fetched"), engine ? engine->settings().fetchedTrackers.size() : 0},
             {QStringLiteral("status"), engine ? engine->trackerFetchStatus() : QString()},
         }},
        {QStringLiteral("toast"), engine ? engine->toast() : QString()},
    };
}
