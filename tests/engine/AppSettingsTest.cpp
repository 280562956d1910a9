#include "engine/AppSettings.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QTimeZone>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <vector>

// Readable failures: text prints as text, a record as its JSON.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

void PrintTo(const AppSettings &settings, std::ostream *out)
{
    *out << QJsonDocument(settings.toJson()).toJson(QJsonDocument::Compact).toStdString();
}

namespace {

constexpr int Port = 30000;

QJsonObject parseObject(const char *json)
{
    return QJsonDocument::fromJson(QByteArray(json)).object();
}

std::map<std::string, std::string> rowsOf(const QString &text)
{
    std::map<std::string, std::string> rows;
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        const qsizetype eq = line.indexOf(QLatin1Char('='));
        rows[line.left(eq).toStdString()] = line.mid(eq + 1).toStdString();
    }
    return rows;
}

std::string rowOf(const AppSettings &settings, const std::string &key)
{
    const auto rows = rowsOf(settings.libtorrentSettings());
    const auto it = rows.find(key);
    return it == rows.end() ? std::string("<absent>") : it->second;
}

// A record in which every field differs from defaults(Standard, Port).
AppSettings everyFieldChanged()
{
    AppSettings s;
    s.downloadDirectory = QStringLiteral("/media/store");
    s.addPaused = true;
    s.activeDownloads = 2;
    s.activeSeeds = 3;
    s.ratioLimit = 1.5;
    s.seedTimeLimitMinutes = 90;
    s.downloadLimitKiB = 700;
    s.uploadLimitKiB = 70;
    s.altDownloadLimitKiB = 300;
    s.altUploadLimitKiB = 30;
    s.altSpeedEnabled = true;
    s.maxConnections = 400;
    s.maxConnectionsPerTorrent = 60;
    s.uploadSlotsPerTorrent = 4;
    s.profile = NetworkProfile::China;
    s.listenPort = 45678;
    s.upnp = false;
    s.ipv6 = false;
    s.utp = false;
    s.dht = false;
    s.lsd = false;
    s.encryption = EncryptionMode::Require;
    s.banLeechers = true;
    s.trackerMirrors = false;
    s.autoTrackers = false;
    s.customTrackers = QStringLiteral("udp://one.example:1/announce\nudp://two.example:2/announce");
    s.fetchedTrackers = {QStringLiteral("udp://f.example:3/announce")};
    s.trackersFetchedAt = QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC);
    s.proxyKind = ProxyKind::Socks5;
    s.proxyHost = QStringLiteral("proxy.example");
    s.proxyPort = 9050;
    s.proxyUser = QStringLiteral("user");
    s.proxyPassword = QStringLiteral("secret");
    s.proxyTrackersOnly = false;
    s.audioLanguages = QStringLiteral("jpn");
    s.subtitleLanguages = QStringLiteral("eng");
    s.subtitleMode = SubtitleMode::Never;
    s.rememberTracks = false;
    s.resumePlayback = false;
    s.autoplayNext = false;
    s.hardwareDecoding = false;
    return s;
}

} // namespace

// ---- Defaults ----

TEST(AppSettingsTest, DefaultsHoldTheDocumentedValues)
{
    const AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
    QJsonObject expected = parseObject(R"({
        "addPaused": false, "activeDownloads": 5, "activeSeeds": 10, "ratioLimit": 0,
        "seedTimeLimitMinutes": 0, "downloadLimitKiB": 0, "uploadLimitKiB": 0,
        "altDownloadLimitKiB": 1024, "altUploadLimitKiB": 128, "altSpeedEnabled": false,
        "maxConnections": 0, "maxConnectionsPerTorrent": 120, "uploadSlotsPerTorrent": 8,
        "profile": "standard", "listenPort": 30000, "upnp": true, "ipv6": true, "utp": true,
        "dht": true, "lsd": true, "encryption": "prefer", "banLeechers": false,
        "trackerMirrors": true, "autoTrackers": true, "customTrackers": "", "fetchedTrackers": [],
        "proxyKind": "none", "proxyHost": "", "proxyPort": 1080, "proxyUser": "",
        "proxyPassword": "", "proxyTrackersOnly": true, "audioLanguages": "rus, ru",
        "subtitleLanguages": "rus, ru", "subtitleMode": "auto", "rememberTracks": true,
        "resumePlayback": true, "autoplayNext": true, "hardwareDecoding": true
    })");
    expected.insert(QStringLiteral("downloadDirectory"), QDir::homePath() + "/Downloads/Velix");
    EXPECT_EQ(s.toJson(), expected);
}

TEST(AppSettingsTest, DefaultsOfARegionalProfileBringWhatChoosingItBrings)
{
    // Standard keeps Prefer at a first start, although picking Standard by hand sets Allow.
    for (auto profile : {NetworkProfile::Standard, NetworkProfile::Russia, NetworkProfile::China}) {
        const AppSettings s = AppSettings::defaults(profile, Port);
        SCOPED_TRACE(toWord(profile).toStdString());
        EXPECT_EQ(s.profile, profile);
        EXPECT_EQ(s.encryption, EncryptionMode::Prefer);
        EXPECT_EQ(s.banLeechers, profile == NetworkProfile::China);
        EXPECT_TRUE(s.trackerMirrors && s.ipv6);
    }
}

TEST(AppSettingsTest, ARecordWithoutAPortDrawsItsOwnInRange)
{
    QSet<int> ports;
    for (int i = 0; i < 50; ++i) {
        const int port = i % 2 ? AppSettings::defaults().listenPort
                               : AppSettings::fromJson(parseObject(R"({"upnp": false})")).listenPort;
        EXPECT_GE(port, 20000);
        EXPECT_LE(port, 60000);
        ports.insert(port);
    }
    EXPECT_GT(ports.size(), 1);
}

// ---- Decoding ----

TEST(AppSettingsTest, EveryFieldSurvivesTheRoundTripUnderItsOwnKey)
{
    const AppSettings original = everyFieldChanged();
    const AppSettings base = AppSettings::defaults(NetworkProfile::Standard, Port);
    ASSERT_NE(original, base);
    const QJsonObject json = original.toJson();
    EXPECT_EQ(json.size(), 41);
    EXPECT_EQ(AppSettings::fromJson(json, base), original);

    // Each key by itself must carry its field: without it, the base value comes back.
    for (const QString &key : json.keys()) {
        QJsonObject without = json;
        without.remove(key);
        EXPECT_NE(AppSettings::fromJson(without, base), original) << key.toStdString();
    }
}

TEST(AppSettingsTest, EnumerationsAreStoredAsWords)
{
    const QJsonObject json = everyFieldChanged().toJson();
    EXPECT_EQ(json.value("profile"), QJsonValue("china"));
    EXPECT_EQ(json.value("encryption"), QJsonValue("require"));
    EXPECT_EQ(json.value("proxyKind"), QJsonValue("socks5"));
    EXPECT_EQ(json.value("subtitleMode"), QJsonValue("never"));
    for (auto p : {NetworkProfile::Standard, NetworkProfile::Russia, NetworkProfile::China})
        EXPECT_EQ(fromWord<NetworkProfile>(toWord(p)), p);
    for (auto e : {EncryptionMode::Allow, EncryptionMode::Prefer, EncryptionMode::Require})
        EXPECT_EQ(fromWord<EncryptionMode>(toWord(e)), e);
    for (auto k : {ProxyKind::None, ProxyKind::Socks5, ProxyKind::Http})
        EXPECT_EQ(fromWord<ProxyKind>(toWord(k)), k);
    for (auto m : {SubtitleMode::Auto, SubtitleMode::Always, SubtitleMode::Never})
        EXPECT_EQ(fromWord<SubtitleMode>(toWord(m)), m);
}

TEST(AppSettingsTest, AValueOfTheWrongTypeKeepsItsDefaultAndSparesTheOthers)
{
    const char *wrong[] = {
        R"({"activeDownloads": "7"})", R"({"activeDownloads": 7.5})", R"({"activeDownloads": 1e12})",
        R"({"listenPort": null})", R"({"addPaused": 1})", R"({"ratioLimit": "2"})",
        R"({"downloadDirectory": ["/a"]})", R"({"profile": "mars"})", R"({"profile": 1})",
        R"({"encryption": "PREFER"})", R"({"proxyKind": {}})",
        R"({"fetchedTrackers": "udp://a.example:1/announce"})",
        R"({"fetchedTrackers": ["udp://a.example:1/announce", 5]})",
        R"({"trackersFetchedAt": "yesterday"})", R"({"trackersFetchedAt": true})",
    };
    const AppSettings base = AppSettings::defaults(NetworkProfile::Standard, Port);
    for (const char *json : wrong) {
        QJsonObject object = parseObject(json);
        ASSERT_FALSE(object.isEmpty()) << json;
        object.insert("activeSeeds", 3);
        AppSettings expected = base;
        expected.activeSeeds = 3;
        EXPECT_EQ(AppSettings::fromJson(object, base), expected) << json;
    }
}

TEST(AppSettingsTest, FetchTimeReadsSecondsOrIsoText)
{
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(1700000000500, Qt::UTC);
    const AppSettings base = AppSettings::defaults(NetworkProfile::Standard, Port);

    EXPECT_EQ(AppSettings::fromJson(parseObject(R"({"trackersFetchedAt": 1700000000.5})"), base)
                  .trackersFetchedAt,
              when);
    EXPECT_EQ(AppSettings::fromJson(
                  parseObject(R"({"trackersFetchedAt": "2023-11-14T22:13:20.500Z"})"), base)
                  .trackersFetchedAt,
              when);

    AppSettings withTime = base;
    withTime.trackersFetchedAt = when;
    EXPECT_EQ(withTime.toJson().value("trackersFetchedAt").toDouble(), 1700000000.5);
    EXPECT_FALSE(base.toJson().contains("trackersFetchedAt"));
}

// ---- Profiles ----

TEST(AppSettingsTest, AdoptingAProfileSetsItsRowAndDropsTheFetchedList)
{
    struct Case
    {
        NetworkProfile profile;
        EncryptionMode encryption;
        bool trackerMirrors, banLeechers, ipv6;
    };
    // From a record where each of these flags is off, so a set flag shows.
    const Case cases[] = {{NetworkProfile::Standard, EncryptionMode::Allow, false, false, false},
                          {NetworkProfile::Russia, EncryptionMode::Prefer, true, false, false},
                          {NetworkProfile::China, EncryptionMode::Prefer, false, true, true}};
    for (const Case &c : cases) {
        AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
        s.encryption = EncryptionMode::Require;
        s.trackerMirrors = false;
        s.banLeechers = false;
        s.ipv6 = false;
        s.fetchedTrackers = {QStringLiteral("udp://f.example:3/announce")};
        s.trackersFetchedAt = QDateTime::currentDateTimeUtc();

        s.adopt(c.profile);
        SCOPED_TRACE(toWord(c.profile).toStdString());
        EXPECT_EQ(s.profile, c.profile);
        EXPECT_EQ(s.encryption, c.encryption);
        EXPECT_EQ(s.trackerMirrors, c.trackerMirrors);
        EXPECT_EQ(s.banLeechers, c.banLeechers);
        EXPECT_EQ(s.ipv6, c.ipv6);
        EXPECT_TRUE(s.fetchedTrackers.isEmpty());
        EXPECT_FALSE(s.trackersFetchedAt.has_value());
    }
}

TEST(AppSettingsTest, ProfileFollowsRegionFirstThenTimeZone)
{
    struct Case
    {
        const char *timeZone;
        const char *region;
        NetworkProfile expected;
    };
    const NetworkProfile C = NetworkProfile::China, R = NetworkProfile::Russia,
                         S = NetworkProfile::Standard;
    const Case cases[] = {
        {"Europe/Moscow", "CN", C}, {"Asia/Shanghai", "RU", C}, {"Asia/Urumqi", "", C},
        {"Asia/Chongqing", "US", C}, {"Asia/Harbin", "", C},
        {"Asia/Shanghai2", "", S}, // China's zones match whole
        {"America/New_York", "RU", R}, {"Europe/Moscow", "", R}, {"Asia/Yekaterinburg", "DE", R},
        {"Asia/Novosibirsk", "", R}, {"Asia/Vladivostok", "", R}, {"Europe/Samara", "", R},
        {"Asia/Omsk", "", R}, {"Asia/Krasnoyarsk", "", R}, {"Asia/Irkutsk", "", R},
        {"Europe/Kaliningrad", "", S}, {"Asia/Hong_Kong", "HK", S}, {"UTC", "", S}, {"", "", S},
        {"Europe/Berlin", "cn", S}, // region codes are upper-case
    };
    for (const Case &c : cases) {
        EXPECT_EQ(detectedNetworkProfile(QString::fromLatin1(c.timeZone),
                                         QString::fromLatin1(c.region)),
                  c.expected)
            << c.timeZone << " " << c.region;
    }
}

TEST(AppSettingsTest, TrackerListSourcesPutTheReachableGroupFirst)
{
    const auto fileNames = [](const QList<QUrl> &urls) {
        QStringList names;
        for (const QUrl &url : urls) {
            EXPECT_TRUE(url.isValid());
            EXPECT_EQ(url.scheme(), "https");
            names.append(url.fileName());
        }
        return names;
    };
    const QString a = "trackers_best.txt", b = "best.txt";
    const QStringList aFirst{a, a, a, b, b, b, b}, bFirst{b, b, b, b, a, a, a};
    EXPECT_EQ(fileNames(trackerSources(NetworkProfile::Standard)), aFirst);
    EXPECT_EQ(fileNames(trackerSources(NetworkProfile::Russia)), aFirst);
    EXPECT_EQ(fileNames(trackerSources(NetworkProfile::China)), bFirst);

    const QList<QUrl> standard = trackerSources(NetworkProfile::Standard);
    const QList<QUrl> china = trackerSources(NetworkProfile::China);
    EXPECT_EQ(QSet<QUrl>(standard.begin(), standard.end()), QSet<QUrl>(china.begin(), china.end()));
    EXPECT_EQ(QSet<QUrl>(standard.begin(), standard.end()).size(), 7);
}

// ---- Settings text ----

TEST(AppSettingsTest, EachProfileGivesItsWholeSettingsText)
{
    const std::vector<std::string> common{
        "active_checking=1", "active_downloads=5", "active_limit=20", "active_seeds=10",
        "allowed_enc_level=3", "announce_to_all_tiers=1", "announce_to_all_trackers=1",
        "connections_limit=0", "download_rate_limit=0", "enable_dht=1", "enable_incoming_utp=1",
        "enable_lsd=1", "enable_natpmp=1", "enable_outgoing_utp=1", "enable_upnp=1",
        "in_enc_policy=1", "listen_interfaces=0.0.0.0:30000,[::]:30000", "out_enc_policy=1",
        "prefer_rc4=1", "proxy_type=0", "upload_rate_limit=0",
        "user_agent=Velix/0.1 libtorrent/2.1", "validate_https_trackers=1",
    };
    const std::string routers = "dht.libtorrent.org:25401,router.bittorrent.com:6881,"
                                "router.utorrent.com:6881,dht.transmissionbt.com:6881,"
                                "dht.aelitis.com:6881";
    const std::string extraRouter = "router.bitcomet.com:6881";
    struct Case
    {
        NetworkProfile profile;
        std::vector<std::string> rows;
    };
    const Case cases[] = {
        {NetworkProfile::Standard,
         {"connection_speed=30", "peer_connect_timeout=15", "request_timeout=60",
          "peer_timeout=120", "tracker_completion_timeout=30", "tracker_receive_timeout=10",
          "max_out_request_queue=500", "send_buffer_watermark=1048576",
          "dht_bootstrap_nodes=" + routers}},
        {NetworkProfile::Russia,
         {"connection_speed=50", "peer_connect_timeout=20", "request_timeout=45",
          "peer_timeout=180", "handshake_timeout=20", "tracker_completion_timeout=45",
          "tracker_receive_timeout=20", "max_out_request_queue=1500",
          "max_allowed_in_request_queue=2000", "request_queue_time=5",
          "send_buffer_watermark=4194304", "send_buffer_watermark_factor=150", "max_failcount=5",
          "min_reconnect_time=30", "stop_tracker_timeout=3",
          "dht_bootstrap_nodes=" + routers + "," + extraRouter}},
        {NetworkProfile::China,
         {"connection_speed=60", "peer_connect_timeout=25", "request_timeout=60",
          "peer_timeout=240", "handshake_timeout=25", "tracker_completion_timeout=60",
          "tracker_receive_timeout=25", "max_out_request_queue=2000",
          "max_allowed_in_request_queue=3000", "request_queue_time=6",
          "send_buffer_watermark=6291456", "send_buffer_watermark_factor=200", "max_failcount=8",
          "min_reconnect_time=20", "stop_tracker_timeout=3",
          "dht_bootstrap_nodes=" + extraRouter + "," + routers}},
    };
    for (const Case &c : cases) {
        AppSettings s = AppSettings::defaults(c.profile, Port);
        s.encryption = EncryptionMode::Prefer;
        std::vector<std::string> lines = common;
        lines.insert(lines.end(), c.rows.begin(), c.rows.end());
        // No key is a prefix of another followed by a character below "=", so sorting whole
        // lines sorts by key.
        std::sort(lines.begin(), lines.end());
        std::string expected;
        for (const std::string &line : lines)
            expected += (expected.empty() ? "" : "\n") + line;
        EXPECT_EQ(s.libtorrentSettings().toStdString(), expected) << toWord(c.profile).toStdString();
    }
}

TEST(AppSettingsTest, EncryptionModeGivesItsPolicyRows)
{
    struct Case
    {
        EncryptionMode mode;
        const char *out, *in, *level, *rc4;
    };
    const Case cases[] = {{EncryptionMode::Allow, "1", "1", "3", "0"},
                          {EncryptionMode::Prefer, "1", "1", "3", "1"},
                          {EncryptionMode::Require, "0", "0", "2", "1"}};
    for (auto profile : {NetworkProfile::Standard, NetworkProfile::China}) {
        for (const Case &c : cases) {
            AppSettings s = AppSettings::defaults(profile, Port);
            s.encryption = c.mode;
            const auto rows = rowsOf(s.libtorrentSettings());
            SCOPED_TRACE(toWord(c.mode).toStdString() + " on " + toWord(profile).toStdString());
            EXPECT_EQ(rows.at("out_enc_policy"), c.out);
            EXPECT_EQ(rows.at("in_enc_policy"), c.in);
            EXPECT_EQ(rows.at("allowed_enc_level"), c.level);
            EXPECT_EQ(rows.at("prefer_rc4"), c.rc4);
        }
    }
}

TEST(AppSettingsTest, ProxyRowsFollowKindAndLogin)
{
    struct Case
    {
        ProxyKind kind;
        const char *user;
        bool trackersOnly;
        const char *type, *peers;
    };
    const Case cases[] = {{ProxyKind::Socks5, "", true, "2", "0"},
                          {ProxyKind::Socks5, "alice", true, "3", "0"},
                          {ProxyKind::Http, "", false, "4", "1"},
                          {ProxyKind::Http, "alice", false, "5", "1"}};
    for (const Case &c : cases) {
        AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
        s.proxyKind = c.kind;
        s.proxyHost = QStringLiteral("proxy.example");
        s.proxyPort = 3128;
        s.proxyUser = QString::fromLatin1(c.user);
        s.proxyPassword = QStringLiteral("pw");
        s.proxyTrackersOnly = c.trackersOnly;
        const auto rows = rowsOf(s.libtorrentSettings());
        SCOPED_TRACE(c.type);
        EXPECT_EQ(rows.at("proxy_type"), c.type);
        EXPECT_EQ(rows.at("proxy_hostname"), "proxy.example");
        EXPECT_EQ(rows.at("proxy_port"), "3128");
        EXPECT_EQ(rows.at("proxy_username"), c.user);
        EXPECT_EQ(rows.at("proxy_password"), "pw");
        EXPECT_EQ(rows.at("proxy_hostnames"), "1");
        EXPECT_EQ(rows.at("proxy_tracker_connections"), "1");
        EXPECT_EQ(rows.at("proxy_peer_connections"), c.peers);
    }

    // Without a proxy the login fields stay out of the text, whatever they hold.
    AppSettings none = AppSettings::defaults(NetworkProfile::Standard, Port);
    none.proxyHost = QStringLiteral("proxy.example");
    none.proxyUser = QStringLiteral("alice");
    const auto rows = rowsOf(none.libtorrentSettings());
    EXPECT_EQ(rows.at("proxy_type"), "0");
    for (const auto &[key, value] : rows) {
        if (key != "proxy_type") {
            EXPECT_NE(key.rfind("proxy_", 0), 0u) << key;
        }
    }
}

TEST(AppSettingsTest, ALineBreakInAUserTextCannotAddASetting)
{
    AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
    s.proxyKind = ProxyKind::Http;
    s.proxyPassword = QStringLiteral("pw\nenable_dht=0\r\n");
    const auto rows = rowsOf(s.libtorrentSettings());
    EXPECT_EQ(rows.at("enable_dht"), "1");
    EXPECT_EQ(rows.at("proxy_password"), "pwenable_dht=0");
}

TEST(AppSettingsTest, ListenPortIsClampedInTheTextOnly)
{
    struct Case
    {
        int port;
        bool ipv6;
        const char *interfaces;
    };
    const Case cases[] = {{80, true, "0.0.0.0:1024,[::]:1024"},
                          {70000, true, "0.0.0.0:65535,[::]:65535"},
                          {1024, false, "0.0.0.0:1024"}, {65535, false, "0.0.0.0:65535"},
                          {51413, true, "0.0.0.0:51413,[::]:51413"}};
    for (const Case &c : cases) {
        AppSettings s = AppSettings::defaults(NetworkProfile::Standard, c.port);
        s.ipv6 = c.ipv6;
        EXPECT_EQ(rowOf(s, "listen_interfaces"), c.interfaces) << c.port;
        EXPECT_EQ(s.listenPort, c.port);
    }
}

TEST(AppSettingsTest, RatesAndLimitsBecomeLibtorrentUnits)
{
    struct Case
    {
        bool alt;
        int down, up, altDown, altUp;
        const char *downRate, *upRate;
    };
    const Case rates[] = {
        {true, 0, 0, 1024, 128, "1048576", "131072"}, {false, 500, 50, 1024, 128, "512000", "51200"},
        {true, 500, 50, 0, 0, "0", "0"}, {false, -5, -1, 1024, 128, "0", "0"},
        {false, 4000000, 0, 0, 0, "2147483647", "0"}, // libtorrent takes an int
    };
    for (const Case &c : rates) {
        AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
        s.altSpeedEnabled = c.alt;
        s.downloadLimitKiB = c.down;
        s.uploadLimitKiB = c.up;
        s.altDownloadLimitKiB = c.altDown;
        s.altUploadLimitKiB = c.altUp;
        EXPECT_EQ(rowOf(s, "download_rate_limit"), c.downRate) << c.down << "/" << c.altDown;
        EXPECT_EQ(rowOf(s, "upload_rate_limit"), c.upRate) << c.up << "/" << c.altUp;
    }

    struct Active
    {
        int downloads, seeds;
        const char *limit;
    };
    const Active actives[] = {{1, 1, "20"}, {10, 10, "20"}, {15, 10, "25"}, {0, 0, "20"}};
    for (const Active &a : actives) {
        AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
        s.activeDownloads = a.downloads;
        s.activeSeeds = a.seeds;
        EXPECT_EQ(rowOf(s, "active_limit"), a.limit) << a.downloads << "+" << a.seeds;
    }

    AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
    s.maxConnections = -3;
    EXPECT_EQ(rowOf(s, "connections_limit"), "0");
    s.maxConnections = 500;
    EXPECT_EQ(rowOf(s, "connections_limit"), "500");
}

TEST(AppSettingsTest, SwitchesMapToTheirLibtorrentFlags)
{
    AppSettings s = AppSettings::defaults(NetworkProfile::Standard, Port);
    s.upnp = false;
    s.utp = false;
    s.dht = false;
    s.lsd = false;
    const auto rows = rowsOf(s.libtorrentSettings());
    for (const char *key : {"enable_upnp", "enable_natpmp", "enable_outgoing_utp",
                            "enable_incoming_utp", "enable_dht", "enable_lsd"})
        EXPECT_EQ(rows.at(key), "0") << key;
}

// ---- Trackers ----

TEST(AppSettingsTest, ExtraTrackersCombineCustomFetchedAndBuiltInLists)
{
    const QString fetchedA = QStringLiteral("udp://fetched-a.example:6969/announce");
    const QString fetchedB = QStringLiteral("udp://fetched-b.example:6969/announce");
    const QString custom = QStringLiteral("https://custom.example/announce");

    AppSettings base = AppSettings::defaults(NetworkProfile::Standard, Port);
    base.autoTrackers = false;
    base.customTrackers.clear();
    EXPECT_TRUE(base.extraTrackers().isEmpty());

    // Off with a custom list: only the custom lines, trimmed, without empties or repeats.
    AppSettings customOnly = base;
    customOnly.customTrackers = "  " + custom + " \r\n\n   \n" + fetchedA + "\n" + custom;
    EXPECT_EQ(customOnly.extraTrackers(), QStringList({custom, fetchedA}));

    // On, standard, with a fetched list: custom, fetched, then the three always-added trackers.
    AppSettings fetched = customOnly;
    fetched.autoTrackers = true;
    fetched.fetchedTrackers = {fetchedA, fetchedB};
    const QStringList withFetched = fetched.extraTrackers();
    ASSERT_EQ(withFetched.size(), 6); // fetchedA is already in the custom list
    EXPECT_EQ(withFetched.mid(0, 3), QStringList({custom, fetchedA, fetchedB}));
    QList<int> alwaysPorts;
    for (const QString &url : withFetched.mid(3)) {
        const QUrl parsed(url);
        EXPECT_TRUE(parsed.scheme() == "http" || parsed.scheme() == "https") << url.toStdString();
        EXPECT_EQ(parsed.path(), "/announce");
        alwaysPorts.append(parsed.port(parsed.scheme() == "http" ? 80 : 443));
    }
    EXPECT_EQ(alwaysPorts, QList<int>({80, 443, 443}));

    // On, nothing fetched yet: the seven fallback UDP trackers stand in.
    AppSettings fallback = base;
    fallback.autoTrackers = true;
    const QStringList withFallback = fallback.extraTrackers();
    ASSERT_EQ(withFallback.size(), 10);
    QList<int> fallbackPorts;
    for (const QString &url : withFallback.mid(0, 7)) {
        const QUrl parsed(url);
        EXPECT_EQ(parsed.scheme(), "udp");
        EXPECT_EQ(parsed.path(), "/announce");
        fallbackPorts.append(parsed.port());
    }
    EXPECT_EQ(fallbackPorts, QList<int>({1337, 1337, 80, 6969, 451, 6969, 6969}));
    EXPECT_EQ(withFallback.mid(7), withFetched.mid(3)); // the same three at the end

    // Russia puts its local retracker right after the custom lines.
    AppSettings russia = fetched;
    russia.profile = NetworkProfile::Russia;
    russia.customTrackers = custom;
    const QStringList withRetracker = russia.extraTrackers();
    ASSERT_EQ(withRetracker.size(), 7);
    EXPECT_EQ(withRetracker.at(1), "http://retracker.local/announce");
    EXPECT_EQ(withRetracker.mid(2), withFetched.mid(1));
}

TEST(AppSettingsTest, ExtraTrackersHoldNoDuplicates)
{
    for (auto profile : {NetworkProfile::Standard, NetworkProfile::Russia, NetworkProfile::China}) {
        AppSettings s = AppSettings::defaults(profile, Port);
        const QStringList builtIn = s.extraTrackers();
        // Custom lines repeating built-in ones are kept once, at their first place.
        s.customTrackers = builtIn.last() + "\n" + builtIn.first();
        const QStringList trackers = s.extraTrackers();
        EXPECT_EQ(trackers.size(), builtIn.size());
        EXPECT_EQ(trackers.first(), builtIn.last());
        EXPECT_EQ(QSet<QString>(trackers.begin(), trackers.end()).size(), trackers.size());
    }
}

// ---- Language lists ----

TEST(AppSettingsTest, LanguageListsSplitIntoLowerCaseTokens)
{
    struct Case
    {
        const char *text;
        QStringList tokens;
    };
    const Case cases[] = {{" ENG ,, Jpn ", {"eng", "jpn"}}, {"und", {"und"}}, {" , ,", {}}};
    for (const Case &c : cases)
        EXPECT_EQ(AppSettings::split(QString::fromLatin1(c.text)), c.tokens) << c.text;
}
