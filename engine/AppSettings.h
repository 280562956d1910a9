#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

// How hard the session works to reach trackers and peers. The two regional profiles exist for
// networks where trackers and peers are slow or filtered; they are the program's own tuning.
enum class NetworkProfile { Standard, Russia, China };
enum class EncryptionMode { Allow, Prefer, Require };
enum class ProxyKind { None, Socks5, Http };
enum class SubtitleMode { Auto, Always, Never };

// Enumerations are stored in settings.json as their lower-case words ("standard", "socks5",
// ...), never as numbers, so that reordering an enum never changes what a saved file means.
QString toWord(NetworkProfile value);
QString toWord(EncryptionMode value);
QString toWord(ProxyKind value);
QString toWord(SubtitleMode value);
// None for a word that names no value of E.
template <typename E>
std::optional<E> fromWord(const QString &word);
template <>
std::optional<NetworkProfile> fromWord<NetworkProfile>(const QString &word);
template <>
std::optional<EncryptionMode> fromWord<EncryptionMode>(const QString &word);
template <>
std::optional<ProxyKind> fromWord<ProxyKind>(const QString &word);
template <>
std::optional<SubtitleMode> fromWord<SubtitleMode>(const QString &word);

// The profile that suits the user's region, from a time zone id ("Europe/Moscow") and a
// two-letter region code ("RU"). The region wins over the time zone, and China over Russia.
NetworkProfile detectedNetworkProfile(const QString &timeZoneId, const QString &region);
// The same from the system's time zone and locale.
NetworkProfile detectedNetworkProfile();

// Where the public tracker lists are fetched from, in the order to try them. Two groups of
// mirrors of two public lists; on China the second group, which is reachable there, goes first.
QList<QUrl> trackerSources(NetworkProfile profile);

// The one persisted settings record; settings.json holds it with the field names as keys.
//
// The member initialisers are the fixed defaults only. What depends on the machine or on chance
// (the detected profile and what it implies, a random listen port, the user's home) is filled
// in by defaults(), which is what a fresh record must come from.
struct AppSettings
{
    QString downloadDirectory;
    bool addPaused = false;
    int activeDownloads = 5;
    int activeSeeds = 10;
    double ratioLimit = 0; // 0: no limit
    int seedTimeLimitMinutes = 0; // 0: no limit
    int downloadLimitKiB = 0; // 0: unlimited
    int uploadLimitKiB = 0; // 0: unlimited
    int altDownloadLimitKiB = 1024;
    int altUploadLimitKiB = 128;
    bool altSpeedEnabled = false; // the two alt limits replace the normal ones
    int maxConnections = 0;
    // Stored and edited, but libtorrent's settings pack has no per-torrent default for them, so
    // libtorrentSettings() leaves them out.
    int maxConnectionsPerTorrent = 120;
    int uploadSlotsPerTorrent = 8;
    NetworkProfile profile = NetworkProfile::Standard;
    int listenPort = 0; // defaults() draws one from 20000..60000
    bool upnp = true; // also switches NAT-PMP
    bool ipv6 = true;
    bool utp = true;
    bool dht = true;
    bool lsd = true;
    EncryptionMode encryption = EncryptionMode::Prefer;
    bool banLeechers = false;
    bool trackerMirrors = true;
    bool autoTrackers = true;
    QString customTrackers; // one announce URL a line
    QStringList fetchedTrackers;
    std::optional<QDateTime> trackersFetchedAt;
    ProxyKind proxyKind = ProxyKind::None;
    QString proxyHost;
    int proxyPort = 1080;
    QString proxyUser;
    QString proxyPassword;
    bool proxyTrackersOnly = true;
    QString audioLanguages = QStringLiteral("rus, ru");
    QString subtitleLanguages = QStringLiteral("rus, ru");
    SubtitleMode subtitleMode = SubtitleMode::Auto;
    bool rememberTracks = true;
    bool resumePlayback = true;
    bool autoplayNext = true;
    bool hardwareDecoding = true;

    bool operator==(const AppSettings &) const = default;

    // Client ids and names of clients that take without giving back; banned with banLeechers.
    static const QStringList leecherClients;

    // A fresh record: the detected profile, a new random listen port on every call.
    static AppSettings defaults();
    // The same with the profile and port given. The regional profiles bring what adopt() sets
    // for them; on Standard encryption stays at Prefer, which is friendlier for a first start
    // than the Allow that choosing Standard by hand sets.
    static AppSettings defaults(NetworkProfile startProfile, int port);

    // Every key is read by itself over defaults(): a missing key or one of the wrong type keeps
    // its default, so files of older versions load and one bad value loses nothing else.
    static AppSettings fromJson(const QJsonObject &json);
    // The same over a given record instead of defaults().
    static AppSettings fromJson(const QJsonObject &json, const AppSettings &base);
    QJsonObject toJson() const;

    // What picking a profile by hand implies. The cached tracker list is dropped because the
    // sources are tried in another order on another profile.
    void adopt(NetworkProfile newProfile);

    // The "key=value" lines for the bridge, sorted by key so that equal settings give equal text
    // (the engine sends only a changed text). No trailing newline.
    QString libtorrentSettings() const;

    // The trackers added to every public torrent: the custom lines, then with autoTrackers the
    // local retracker (Russia), the fetched list or a built-in fallback, and a few that are
    // always added. Duplicates are removed, the first kept.
    QStringList extraTrackers() const;

    // A language list setting ("rus, ru") as lower-case tokens without blanks or empties.
    static QStringList split(const QString &text);
};
