#include "engine/AppSettings.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonValue>
#include <QLocale>
#include <QRandomGenerator>
#include <QSet>
#include <QTimeZone>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace {

// ---- Enumeration words ----

template <typename E>
using WordTable = std::array<std::pair<E, const char *>, 3>;

constexpr WordTable<NetworkProfile> ProfileWords{{
    {NetworkProfile::Standard, "standard"},
    {NetworkProfile::Russia, "russia"},
    {NetworkProfile::China, "china"},
}};
constexpr WordTable<EncryptionMode> EncryptionWords{{
    {EncryptionMode::Allow, "allow"},
    {EncryptionMode::Prefer, "prefer"},
    {EncryptionMode::Require, "require"},
}};
constexpr WordTable<ProxyKind> ProxyWords{{
    {ProxyKind::None, "none"},
    {ProxyKind::Socks5, "socks5"},
    {ProxyKind::Http, "http"},
}};
constexpr WordTable<SubtitleMode> SubtitleWords{{
    {SubtitleMode::Auto, "auto"},
    {SubtitleMode::Always, "always"},
    {SubtitleMode::Never, "never"},
}};

template <typename E>
QString wordIn(const WordTable<E> &table, E value)
{
    for (const auto &[item, word] : table) {
        if (item == value)
            return QString::fromLatin1(word);
    }
    return {};
}

template <typename E>
std::optional<E> valueIn(const WordTable<E> &table, const QString &word)
{
    for (const auto &[item, text] : table) {
        if (word == QLatin1String(text))
            return item;
    }
    return std::nullopt;
}

// ---- Tolerant reading: each helper changes its field only when the value has the right type ----

void read(const QJsonObject &json, const char *key, bool &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isBool())
        field = value.toBool();
}

void read(const QJsonObject &json, const char *key, int &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (!value.isDouble())
        return;
    // A fraction or a number beyond int is a wrong type for an int field, not something to round.
    const double number = value.toDouble();
    if (std::isfinite(number) && std::trunc(number) == number && number >= INT_MIN
        && number <= INT_MAX)
        field = static_cast<int>(number);
}

void read(const QJsonObject &json, const char *key, double &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isDouble())
        field = value.toDouble();
}

void read(const QJsonObject &json, const char *key, QString &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isString())
        field = value.toString();
}

void read(const QJsonObject &json, const char *key, QStringList &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (!value.isArray())
        return;
    QStringList items;
    for (const QJsonValue &item : value.toArray()) {
        if (!item.isString())
            return;
        items.append(item.toString());
    }
    field = items;
}

template <typename E>
void read(const QJsonObject &json, const char *key, E &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (!value.isString())
        return;
    if (const auto parsed = fromWord<E>(value.toString()))
        field = *parsed;
}

// Written as seconds since 1970; also read as ISO 8601 text, which hand-edited files tend to use.
void read(const QJsonObject &json, const char *key, std::optional<QDateTime> &field)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isDouble()) {
        const double seconds = value.toDouble();
        // Beyond about ±292 million years the milliseconds would not fit in 64 bits.
        if (std::isfinite(seconds) && std::abs(seconds) < 9.0e15)
            field = QDateTime::fromMSecsSinceEpoch(std::llround(seconds * 1000.0), Qt::UTC);
    } else if (value.isString()) {
        const QDateTime parsed = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
        if (parsed.isValid())
            field = parsed;
    }
}

// ---- Network profiles ----

bool startsWithAny(const QString &text, std::initializer_list<const char *> prefixes)
{
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const char *prefix) { return text.startsWith(QLatin1String(prefix)); });
}

// One tuning row across the three profiles; Absent leaves libtorrent's own default in place.
constexpr int Absent = -1;
struct ProfileRow
{
    const char *key;
    int standard;
    int russia;
    int china;
};

constexpr std::array<ProfileRow, 15> ProfileRows{{
    {"connection_speed", 30, 50, 60},
    {"peer_connect_timeout", 15, 20, 25},
    {"request_timeout", 60, 45, 60},
    {"peer_timeout", 120, 180, 240},
    {"handshake_timeout", Absent, 20, 25},
    {"tracker_completion_timeout", 30, 45, 60},
    {"tracker_receive_timeout", 10, 20, 25},
    {"max_out_request_queue", 500, 1500, 2000},
    {"max_allowed_in_request_queue", Absent, 2000, 3000},
    {"request_queue_time", Absent, 5, 6},
    {"send_buffer_watermark", 1048576, 4194304, 6291456},
    {"send_buffer_watermark_factor", Absent, 150, 200},
    {"max_failcount", Absent, 5, 8},
    {"min_reconnect_time", Absent, 30, 20},
    {"stop_tracker_timeout", Absent, 3, 3},
}};

int profileValue(const ProfileRow &row, NetworkProfile profile)
{
    switch (profile) {
    case NetworkProfile::Standard:
        return row.standard;
    case NetworkProfile::Russia:
        return row.russia;
    case NetworkProfile::China:
        return row.china;
    }
    return Absent;
}

// Public DHT routers. The first answers on 25401, the others on the usual 6881. The extra router
// is operated in China, so there it is asked first; elsewhere it is only a last resort.
constexpr std::array<const char *, 5> BaseDhtRouters{
    "dht.libtorrent.org:25401",
    "router.bittorrent.com:6881",
    "router.utorrent.com:6881",
    "dht.transmissionbt.com:6881",
    "dht.aelitis.com:6881",
};
constexpr const char *ExtraDhtRouter = "router.bitcomet.com:6881";

QString dhtBootstrapNodes(NetworkProfile profile)
{
    QStringList nodes;
    for (const char *node : BaseDhtRouters)
        nodes.append(QLatin1String(node));
    if (profile == NetworkProfile::Russia)
        nodes.append(QLatin1String(ExtraDhtRouter));
    else if (profile == NetworkProfile::China)
        nodes.prepend(QLatin1String(ExtraDhtRouter));
    return nodes.join(QLatin1Char(','));
}

struct EncryptionRow
{
    EncryptionMode mode;
    int outPolicy; // libtorrent's enc_policy: 0 forced, 1 enabled
    int inPolicy;
    int allowedLevel; // enc_level: 1 plaintext, 2 rc4, 3 both
    int preferRc4;
};

constexpr std::array<EncryptionRow, 3> EncryptionRows{{
    {EncryptionMode::Allow, 1, 1, 3, 0},
    {EncryptionMode::Prefer, 1, 1, 3, 1},
    {EncryptionMode::Require, 0, 0, 2, 1},
}};

// libtorrent's proxy_type: 2 socks5, 3 socks5 with password, 4 http, 5 http with password.
int proxyType(ProxyKind kind, bool withUser)
{
    switch (kind) {
    case ProxyKind::None:
        return 0;
    case ProxyKind::Socks5:
        return withUser ? 3 : 2;
    case ProxyKind::Http:
        return withUser ? 5 : 4;
    }
    return 0;
}

// Rates are stored in KiB/s; libtorrent takes bytes/s in an int.
qint64 rateBytes(int kib)
{
    return std::min<qint64>(qint64(std::max(kib, 0)) * 1024, INT_MAX);
}

// ---- Tracker lists ----

// A tracker on a local name that Russian providers answer inside their own networks.
constexpr const char *LocalRetracker = "http://retracker.local/announce";

// Used while no list has been fetched yet.
constexpr std::array<const char *, 7> FallbackTrackers{
    "udp://tracker.opentrackr.org:1337/announce",
    "udp://open.demonii.com:1337/announce",
    "udp://open.stealth.si:80/announce",
    "udp://exodus.desync.com:6969/announce",
    "udp://tracker.torrent.eu.org:451/announce",
    "udp://explodie.org:6969/announce",
    "udp://tracker.dler.org:6969/announce",
};

// Added on top of any list: TCP trackers get through where UDP is filtered.
constexpr std::array<const char *, 3> AlwaysTrackers{
    "http://open.acgnxtracker.com:80/announce",
    "https://tracker.gbitt.info:443/announce",
    "https://tracker.tamersome.com:443/announce",
};

constexpr std::array<const char *, 3> BestListMirrors{
    "https://raw.githubusercontent.com/ngosang/trackerslist/master/trackers_best.txt",
    "https://ngosang.github.io/trackerslist/trackers_best.txt",
    "https://cdn.jsdelivr.net/gh/ngosang/trackerslist@master/trackers_best.txt",
};
constexpr std::array<const char *, 4> CollectionMirrors{
    "https://raw.githubusercontent.com/XIU2/TrackersListCollection/master/best.txt",
    "https://cdn.jsdelivr.net/gh/XIU2/TrackersListCollection@master/best.txt",
    "https://fastly.jsdelivr.net/gh/XIU2/TrackersListCollection@master/best.txt",
    "https://trackerslist.com/best.txt",
};

} // namespace

// ---- Words ----

QString toWord(NetworkProfile value) { return wordIn(ProfileWords, value); }
QString toWord(EncryptionMode value) { return wordIn(EncryptionWords, value); }
QString toWord(ProxyKind value) { return wordIn(ProxyWords, value); }
QString toWord(SubtitleMode value) { return wordIn(SubtitleWords, value); }

template <>
std::optional<NetworkProfile> fromWord<NetworkProfile>(const QString &word)
{
    return valueIn(ProfileWords, word);
}
template <>
std::optional<EncryptionMode> fromWord<EncryptionMode>(const QString &word)
{
    return valueIn(EncryptionWords, word);
}
template <>
std::optional<ProxyKind> fromWord<ProxyKind>(const QString &word)
{
    return valueIn(ProxyWords, word);
}
template <>
std::optional<SubtitleMode> fromWord<SubtitleMode>(const QString &word)
{
    return valueIn(SubtitleWords, word);
}

// ---- Profiles ----

NetworkProfile detectedNetworkProfile(const QString &timeZoneId, const QString &region)
{
    if (region == QLatin1String("CN"))
        return NetworkProfile::China;
    const QStringList chinaZones{QStringLiteral("Asia/Shanghai"), QStringLiteral("Asia/Urumqi"),
                                 QStringLiteral("Asia/Chongqing"), QStringLiteral("Asia/Harbin")};
    if (chinaZones.contains(timeZoneId))
        return NetworkProfile::China;
    if (region == QLatin1String("RU"))
        return NetworkProfile::Russia;
    if (startsWithAny(timeZoneId, {"Europe/Moscow", "Asia/Yekaterinburg", "Asia/Novosibirsk",
                                   "Asia/Vladivostok", "Europe/Samara", "Asia/Omsk",
                                   "Asia/Krasnoyarsk", "Asia/Irkutsk"}))
        return NetworkProfile::Russia;
    return NetworkProfile::Standard;
}

NetworkProfile detectedNetworkProfile()
{
    return detectedNetworkProfile(QString::fromUtf8(QTimeZone::systemTimeZoneId()),
                                  QLocale::territoryToCode(QLocale::system().territory()));
}

QList<QUrl> trackerSources(NetworkProfile profile)
{
    QList<QUrl> best;
    QList<QUrl> collection;
    for (const char *url : BestListMirrors)
        best.append(QUrl(QLatin1String(url), QUrl::StrictMode));
    for (const char *url : CollectionMirrors)
        collection.append(QUrl(QLatin1String(url), QUrl::StrictMode));
    QList<QUrl> sources = profile == NetworkProfile::China ? collection + best : best + collection;
    sources.removeIf([](const QUrl &url) { return !url.isValid() || url.host().isEmpty(); });
    return sources;
}

// ---- AppSettings ----

const QStringList AppSettings::leecherClients{
    QStringLiteral("-XL"),    QStringLiteral("-SD"),     QStringLiteral("-XF"),
    QStringLiteral("-QD"),    QStringLiteral("-BN"),     QStringLiteral("-DL"),
    QStringLiteral("-TT"),    QStringLiteral("Xunlei"),  QStringLiteral("Thunder"),
    QStringLiteral("QQDownload"), QStringLiteral("Baidu"),
};

AppSettings AppSettings::defaults()
{
    return defaults(detectedNetworkProfile(),
                    static_cast<int>(QRandomGenerator::global()->bounded(20000, 60001)));
}

AppSettings AppSettings::defaults(NetworkProfile startProfile, int port)
{
    AppSettings settings;
    settings.downloadDirectory = QDir(QDir::homePath()).filePath(QStringLiteral("Downloads/Velix"));
    settings.listenPort = port;
    if (startProfile == NetworkProfile::Standard)
        settings.profile = startProfile;
    else
        settings.adopt(startProfile);
    return settings;
}

AppSettings AppSettings::fromJson(const QJsonObject &json)
{
    return fromJson(json, defaults());
}

AppSettings AppSettings::fromJson(const QJsonObject &json, const AppSettings &base)
{
    AppSettings s = base;
    read(json, "downloadDirectory", s.downloadDirectory);
    read(json, "addPaused", s.addPaused);
    read(json, "activeDownloads", s.activeDownloads);
    read(json, "activeSeeds", s.activeSeeds);
    read(json, "ratioLimit", s.ratioLimit);
    read(json, "seedTimeLimitMinutes", s.seedTimeLimitMinutes);
    read(json, "downloadLimitKiB", s.downloadLimitKiB);
    read(json, "uploadLimitKiB", s.uploadLimitKiB);
    read(json, "altDownloadLimitKiB", s.altDownloadLimitKiB);
    read(json, "altUploadLimitKiB", s.altUploadLimitKiB);
    read(json, "altSpeedEnabled", s.altSpeedEnabled);
    read(json, "maxConnections", s.maxConnections);
    read(json, "maxConnectionsPerTorrent", s.maxConnectionsPerTorrent);
    read(json, "uploadSlotsPerTorrent", s.uploadSlotsPerTorrent);
    read(json, "profile", s.profile);
    read(json, "listenPort", s.listenPort);
    read(json, "upnp", s.upnp);
    read(json, "ipv6", s.ipv6);
    read(json, "utp", s.utp);
    read(json, "dht", s.dht);
    read(json, "lsd", s.lsd);
    read(json, "encryption", s.encryption);
    read(json, "banLeechers", s.banLeechers);
    read(json, "trackerMirrors", s.trackerMirrors);
    read(json, "autoTrackers", s.autoTrackers);
    read(json, "customTrackers", s.customTrackers);
    read(json, "fetchedTrackers", s.fetchedTrackers);
    read(json, "trackersFetchedAt", s.trackersFetchedAt);
    read(json, "proxyKind", s.proxyKind);
    read(json, "proxyHost", s.proxyHost);
    read(json, "proxyPort", s.proxyPort);
    read(json, "proxyUser", s.proxyUser);
    read(json, "proxyPassword", s.proxyPassword);
    read(json, "proxyTrackersOnly", s.proxyTrackersOnly);
    read(json, "audioLanguages", s.audioLanguages);
    read(json, "subtitleLanguages", s.subtitleLanguages);
    read(json, "subtitleMode", s.subtitleMode);
    read(json, "rememberTracks", s.rememberTracks);
    read(json, "resumePlayback", s.resumePlayback);
    read(json, "autoplayNext", s.autoplayNext);
    read(json, "hardwareDecoding", s.hardwareDecoding);
    return s;
}

QJsonObject AppSettings::toJson() const
{
    QJsonObject json{
        {QStringLiteral("downloadDirectory"), downloadDirectory},
        {QStringLiteral("addPaused"), addPaused},
        {QStringLiteral("activeDownloads"), activeDownloads},
        {QStringLiteral("activeSeeds"), activeSeeds},
        {QStringLiteral("ratioLimit"), ratioLimit},
        {QStringLiteral("seedTimeLimitMinutes"), seedTimeLimitMinutes},
        {QStringLiteral("downloadLimitKiB"), downloadLimitKiB},
        {QStringLiteral("uploadLimitKiB"), uploadLimitKiB},
        {QStringLiteral("altDownloadLimitKiB"), altDownloadLimitKiB},
        {QStringLiteral("altUploadLimitKiB"), altUploadLimitKiB},
        {QStringLiteral("altSpeedEnabled"), altSpeedEnabled},
        {QStringLiteral("maxConnections"), maxConnections},
        {QStringLiteral("maxConnectionsPerTorrent"), maxConnectionsPerTorrent},
        {QStringLiteral("uploadSlotsPerTorrent"), uploadSlotsPerTorrent},
        {QStringLiteral("profile"), toWord(profile)},
        {QStringLiteral("listenPort"), listenPort},
        {QStringLiteral("upnp"), upnp},
        {QStringLiteral("ipv6"), ipv6},
        {QStringLiteral("utp"), utp},
        {QStringLiteral("dht"), dht},
        {QStringLiteral("lsd"), lsd},
        {QStringLiteral("encryption"), toWord(encryption)},
        {QStringLiteral("banLeechers"), banLeechers},
        {QStringLiteral("trackerMirrors"), trackerMirrors},
        {QStringLiteral("autoTrackers"), autoTrackers},
        {QStringLiteral("customTrackers"), customTrackers},
        {QStringLiteral("fetchedTrackers"), QJsonArray::fromStringList(fetchedTrackers)},
        {QStringLiteral("proxyKind"), toWord(proxyKind)},
        {QStringLiteral("proxyHost"), proxyHost},
        {QStringLiteral("proxyPort"), proxyPort},
        {QStringLiteral("proxyUser"), proxyUser},
        {QStringLiteral("proxyPassword"), proxyPassword},
        {QStringLiteral("proxyTrackersOnly"), proxyTrackersOnly},
        {QStringLiteral("audioLanguages"), audioLanguages},
        {QStringLiteral("subtitleLanguages"), subtitleLanguages},
        {QStringLiteral("subtitleMode"), toWord(subtitleMode)},
        {QStringLiteral("rememberTracks"), rememberTracks},
        {QStringLiteral("resumePlayback"), resumePlayback},
        {QStringLiteral("autoplayNext"), autoplayNext},
        {QStringLiteral("hardwareDecoding"), hardwareDecoding},
    };
    // An unset time is left out rather than written as null.
    if (trackersFetchedAt && trackersFetchedAt->isValid())
        json.insert(QStringLiteral("trackersFetchedAt"),
                    double(trackersFetchedAt->toMSecsSinceEpoch()) / 1000.0);
    return json;
}

void AppSettings::adopt(NetworkProfile newProfile)
{
    switch (newProfile) {
    case NetworkProfile::Standard:
        encryption = EncryptionMode::Allow;
        break;
    case NetworkProfile::Russia:
        encryption = EncryptionMode::Prefer;
        trackerMirrors = true;
        break;
    case NetworkProfile::China:
        encryption = EncryptionMode::Prefer;
        banLeechers = true;
        ipv6 = true;
        break;
    }
    profile = newProfile;
    fetchedTrackers.clear();
    trackersFetchedAt.reset();
}

QString AppSettings::libtorrentSettings() const
{
    // std::string keys keep the order a plain byte comparison gives.
    std::map<std::string, QString> rows;
    const auto set = [&rows](const char *key, const QString &value) {
        // A line break inside a user's text (a proxy host or password) would smuggle in lines
        // of its own, since the bridge reads one setting a line; a NUL would end the text
        // there, and every setting sorted after it would be lost.
        QString clean = value;
        clean.remove(QLatin1Char('\r'));
        clean.remove(QLatin1Char('\n'));
        clean.remove(QChar(0));
        rows[key] = clean;
    };
    const auto setNumber = [&set](const char *key, qint64 value) {
        set(key, QString::number(value));
    };
    const auto setFlag = [&set](const char *key, bool value) {
        set(key, value ? QStringLiteral("1") : QStringLiteral("0"));
    };

    for (const ProfileRow &row : ProfileRows) {
        const int value = profileValue(row, profile);
        if (value != Absent)
            setNumber(row.key, value);
    }

    set("user_agent", QStringLiteral("Velix/0.1 libtorrent/2.1"));
    // An out-of-range port stays as the user left it in the record; only the text is corrected.
    const QString port = QString::number(std::clamp(listenPort, 1024, 65535));
    QString interfaces = QStringLiteral("0.0.0.0:") + port;
    if (ipv6)
        interfaces += QStringLiteral(",[::]:") + port;
    set("listen_interfaces", interfaces);
    setFlag("enable_dht", dht);
    setFlag("enable_lsd", lsd);
    setFlag("enable_upnp", upnp);
    setFlag("enable_natpmp", upnp);
    setFlag("enable_outgoing_utp", utp);
    setFlag("enable_incoming_utp", utp);
    set("dht_bootstrap_nodes", dhtBootstrapNodes(profile));
    setFlag("announce_to_all_trackers", true);
    setFlag("announce_to_all_tiers", true);
    setFlag("validate_https_trackers", true);
    setNumber("download_rate_limit",
              rateBytes(altSpeedEnabled ? altDownloadLimitKiB : downloadLimitKiB));
    setNumber("upload_rate_limit", rateBytes(altSpeedEnabled ? altUploadLimitKiB : uploadLimitKiB));
    setNumber("connections_limit", std::max(maxConnections, 0));
    setNumber("active_downloads", activeDownloads);
    setNumber("active_seeds", activeSeeds);
    // Never fewer than 20 active torrents in all, so that small queue settings still leave
    // room for checking and for torrents that only announce; never more than an int holds,
    // since the bridge reads the sum of two large limits with atoi.
    setNumber("active_limit", std::clamp<qint64>(qint64(activeDownloads) + activeSeeds, 20, INT_MAX));
    setNumber("active_checking", 1);

    for (const EncryptionRow &row : EncryptionRows) {
        if (row.mode != encryption)
            continue;
        setNumber("out_enc_policy", row.outPolicy);
        setNumber("in_enc_policy", row.inPolicy);
        setNumber("allowed_enc_level", row.allowedLevel);
        setNumber("prefer_rc4", row.preferRc4);
    }

    setNumber("proxy_type", proxyType(proxyKind, !proxyUser.isEmpty()));
    if (proxyKind != ProxyKind::None) {
        set("proxy_hostname", proxyHost);
        setNumber("proxy_port", proxyPort);
        set("proxy_username", proxyUser);
        set("proxy_password", proxyPassword);
        setFlag("proxy_hostnames", true);
        setFlag("proxy_tracker_connections", true);
        setFlag("proxy_peer_connections", !proxyTrackersOnly);
    }

    QStringList lines;
    for (const auto &[key, value] : rows)
        lines.append(QString::fromLatin1(key.data(), qsizetype(key.size())) + QLatin1Char('=')
                     + value);
    return lines.join(QLatin1Char('\n'));
}

QStringList AppSettings::extraTrackers() const
{
    if (!autoTrackers && customTrackers.isEmpty())
        return {};

    QStringList candidates;
    for (const QString &line : customTrackers.split(QLatin1Char('\n'))) {
        const QString url = line.trimmed();
        if (!url.isEmpty())
            candidates.append(url);
    }
    if (autoTrackers) {
        if (profile == NetworkProfile::Russia)
            candidates.append(QLatin1String(LocalRetracker));
        if (!fetchedTrackers.isEmpty()) {
            candidates += fetchedTrackers;
        } else {
            for (const char *url : FallbackTrackers)
                candidates.append(QLatin1String(url));
        }
        for (const char *url : AlwaysTrackers)
            candidates.append(QLatin1String(url));
    }

    // The fetched list comes from a file that may have been edited by hand: its entries are
    // held to the custom lines' rule, so a blank one adds no tracker and a padded one no twin.
    QStringList trackers;
    QSet<QString> seen;
    for (const QString &candidate : std::as_const(candidates)) {
        const QString url = candidate.trimmed();
        if (!url.isEmpty() && !seen.contains(url)) {
            seen.insert(url);
            trackers.append(url);
        }
    }
    return trackers;
}

QStringList AppSettings::split(const QString &text)
{
    QStringList tokens;
    for (const QString &part : text.split(QLatin1Char(','))) {
        const QString token = part.trimmed().toLower();
        if (!token.isEmpty())
            tokens.append(token);
    }
    return tokens;
}
