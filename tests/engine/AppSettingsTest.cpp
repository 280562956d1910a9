#include "engine/AppSettings.h"

#include <QDir>
#include <QJsonDocument>
#include <QSet>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
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
constexpr NetworkProfile Standard = NetworkProfile::Standard, Russia = NetworkProfile::Russia,
                         China = NetworkProfile::China;

AppSettings standard()
{
    return AppSettings::defaults(Standard, Port);
}

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

} // namespace

// ---- Defaults and decoding ----

TEST(AppSettingsTest, DefaultsHoldTheDocumentedValues)
{
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
    EXPECT_EQ(standard().toJson(), expected);
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

TEST(AppSettingsTest, EveryFieldSurvivesTheRoundTripUnderItsOwnKey)
{
    // Every value differs from the base, so each key by itself must carry its field.
    const QJsonObject json = parseObject(R"({
        "downloadDirectory": "/media/store", "addPaused": true, "activeDownloads": 2,
        "activeSeeds": 3, "ratioLimit": 1.5, "seedTimeLimitMinutes": 90, "downloadLimitKiB": 700,
        "uploadLimitKiB": 70, "altDownloadLimitKiB": 300, "altUploadLimitKiB": 30,
        "altSpeedEnabled": true, "maxConnections": 400, "maxConnectionsPerTorrent": 60,
        "uploadSlotsPerTorrent": 4, "profile": "china", "listenPort": 45678, "upnp": false,
        "ipv6": false, "utp": false, "dht": false, "lsd": false, "encryption": "require",
        "banLeechers": true, "trackerMirrors": false, "autoTrackers": false,
        "customTrackers": "udp://one.example:1/announce\nudp://two.example:2/announce",
        "fetchedTrackers": ["udp://f.example:3/announce"], "trackersFetchedAt": 1700000000.125,
        "proxyKind": "socks5", "proxyHost": "proxy.example", "proxyPort": 9050,
        "proxyUser": "user", "proxyPassword": "secret", "proxyTrackersOnly": false,
        "audioLanguages": "jpn", "subtitleLanguages": "eng", "subtitleMode": "never",
        "rememberTracks": false, "resumePlayback": false, "autoplayNext": false,
        "hardwareDecoding": false
    })");
    ASSERT_EQ(json.size(), 41);
    const AppSettings read = AppSettings::fromJson(json, standard());
    EXPECT_EQ(read.toJson(), json);
    for (const QString &key : json.keys()) {
        QJsonObject without = json;
        without.remove(key);
        EXPECT_NE(AppSettings::fromJson(without, standard()), read) << key.toStdString();
    }
}

TEST(AppSettingsTest, EnumerationWordsReadBack)
{
    for (auto p : {Standard, Russia, China})
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
    for (const char *json : wrong) {
        QJsonObject object = parseObject(json);
        ASSERT_FALSE(object.isEmpty()) << json;
        object.insert("activeSeeds", 3);
        AppSettings expected = standard();
        expected.activeSeeds = 3;
        EXPECT_EQ(AppSettings::fromJson(object, standard()), expected) << json;
    }
}

TEST(AppSettingsTest, FetchTimeAlsoReadsIsoText)
{
    const QJsonObject json = parseObject(R"({"trackersFetchedAt": "2023-11-14T22:13:20.500Z"})");
    EXPECT_EQ(AppSettings::fromJson(json, standard()).trackersFetchedAt,
              QDateTime::fromMSecsSinceEpoch(1700000000500, Qt::UTC));
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
    const Case cases[] = {{Standard, EncryptionMode::Allow, false, false, false},
                          {Russia, EncryptionMode::Prefer, true, false, false},
                          {China, EncryptionMode::Prefer, false, true, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(toWord(c.profile).toStdString());
        AppSettings s = standard();
        s.encryption = EncryptionMode::Require;
        s.trackerMirrors = s.ipv6 = false;
        s.fetchedTrackers = {QStringLiteral("udp://f.example:3/announce")};
        s.trackersFetchedAt = QDateTime::currentDateTimeUtc();

        s.adopt(c.profile);
        EXPECT_EQ(s.profile, c.profile);
        EXPECT_EQ(s.encryption, c.encryption);
        EXPECT_EQ(s.trackerMirrors, c.trackerMirrors);
        EXPECT_EQ(s.banLeechers, c.banLeechers);
        EXPECT_EQ(s.ipv6, c.ipv6);
        EXPECT_TRUE(s.fetchedTrackers.isEmpty());
        EXPECT_FALSE(s.trackersFetchedAt.has_value());

        // A first start on a regional profile brings what choosing it brings; Standard keeps
        // Prefer there (pinned by the defaults above).
        if (c.profile != Standard) {
            AppSettings chosen = standard();
            chosen.adopt(c.profile);
            EXPECT_EQ(AppSettings::defaults(c.profile, Port), chosen);
        }
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
    const NetworkProfile C = China, R = Russia, S = Standard;
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
        for (const QUrl &url : urls)
            names.append(url.scheme() + ':' + url.fileName());
        return names;
    };
    const QString a = "https:trackers_best.txt", b = "https:best.txt";
    const QStringList aFirst{a, a, a, b, b, b, b}, bFirst{b, b, b, b, a, a, a};
    EXPECT_EQ(fileNames(trackerSources(Standard)), aFirst);
    EXPECT_EQ(fileNames(trackerSources(Russia)), aFirst);
    EXPECT_EQ(fileNames(trackerSources(China)), bFirst);

    const QList<QUrl> standard = trackerSources(Standard), china = trackerSources(China);
    const QSet<QUrl> mirrors(standard.begin(), standard.end());
    EXPECT_EQ(mirrors, QSet<QUrl>(china.begin(), china.end()));
    EXPECT_EQ(mirrors.size(), 7);
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
        {Standard,
         {"connection_speed=30", "peer_connect_timeout=15", "request_timeout=60",
          "peer_timeout=120", "tracker_completion_timeout=30", "tracker_receive_timeout=10",
          "max_out_request_queue=500", "send_buffer_watermark=1048576",
          "dht_bootstrap_nodes=" + routers}},
        {Russia,
         {"connection_speed=50", "peer_connect_timeout=20", "request_timeout=45",
          "peer_timeout=180", "handshake_timeout=20", "tracker_completion_timeout=45",
          "tracker_receive_timeout=20", "max_out_request_queue=1500",
          "max_allowed_in_request_queue=2000", "request_queue_time=5",
          "send_buffer_watermark=4194304", "send_buffer_watermark_factor=150", "max_failcount=5",
          "min_reconnect_time=30", "stop_tracker_timeout=3",
          "dht_bootstrap_nodes=" + routers + "," + extraRouter}},
        {China,
         {"connection_speed=60", "peer_connect_timeout=25", "request_timeout=60",
          "peer_timeout=240", "handshake_timeout=25", "tracker_completion_timeout=60",
          "tracker_receive_timeout=25", "max_out_request_queue=2000",
          "max_allowed_in_request_queue=3000", "request_queue_time=6",
          "send_buffer_watermark=6291456", "send_buffer_watermark_factor=200", "max_failcount=8",
          "min_reconnect_time=20", "stop_tracker_timeout=3",
          "dht_bootstrap_nodes=" + extraRouter + "," + routers}},
    };
    for (const Case &c : cases) {
        std::vector<std::string> lines = common;
        lines.insert(lines.end(), c.rows.begin(), c.rows.end());
        // No key is a prefix of another followed by a character below "=", so sorting whole
        // lines sorts by key.
        std::sort(lines.begin(), lines.end());
        std::string expected;
        for (const std::string &line : lines)
            expected += (expected.empty() ? "" : "\n") + line;
        EXPECT_EQ(AppSettings::defaults(c.profile, Port).libtorrentSettings().toStdString(), expected)
            << toWord(c.profile).toStdString();
    }
}

TEST(AppSettingsTest, FieldsBecomeTheirLibtorrentRows)
{
    using Rows = std::map<std::string, std::string>;
    struct Case
    {
        const char *what;
        std::function<void(AppSettings &)> change;
        Rows rows;
    };
    const auto rates = [](const char *down, const char *up) {
        return Rows{{"download_rate_limit", down}, {"upload_rate_limit", up}};
    };
    const Case cases[] = {
        {"allow", [](AppSettings &s) { s.encryption = EncryptionMode::Allow; },
         {{"out_enc_policy", "1"}, {"in_enc_policy", "1"}, {"allowed_enc_level", "3"}, {"prefer_rc4", "0"}}},
        {"require", [](AppSettings &s) { s.encryption = EncryptionMode::Require; },
         {{"out_enc_policy", "0"}, {"in_enc_policy", "0"}, {"allowed_enc_level", "2"}, {"prefer_rc4", "1"}}},
        // The port is clamped into 1024..65535.
        {"port 80", [](AppSettings &s) { s.listenPort = 80; }, {{"listen_interfaces", "0.0.0.0:1024,[::]:1024"}}},
        {"port 70000", [](AppSettings &s) { s.listenPort = 70000; },
         {{"listen_interfaces", "0.0.0.0:65535,[::]:65535"}}},
        {"port 1024 on IPv4", [](AppSettings &s) { s.listenPort = 1024; s.ipv6 = false; },
         {{"listen_interfaces", "0.0.0.0:1024"}}},
        {"port 65535 on IPv4", [](AppSettings &s) { s.listenPort = 65535; s.ipv6 = false; },
         {{"listen_interfaces", "0.0.0.0:65535"}}},
        {"alt speed", [](AppSettings &s) { s.altSpeedEnabled = true; }, rates("1048576", "131072")},
        {"normal speed", [](AppSettings &s) { s.downloadLimitKiB = 500; s.uploadLimitKiB = 50; },
         rates("512000", "51200")},
        {"alt limits of 0", [](AppSettings &s) {
             s.altSpeedEnabled = true;
             s.downloadLimitKiB = 500;
             s.uploadLimitKiB = 50;
             s.altDownloadLimitKiB = s.altUploadLimitKiB = 0;
         }, rates("0", "0")},
        {"negative limits", [](AppSettings &s) { s.downloadLimitKiB = -5; s.uploadLimitKiB = -1; }, rates("0", "0")},
        {"a rate beyond int", [](AppSettings &s) { s.downloadLimitKiB = 4000000; }, rates("2147483647", "0")},
        {"15 + 10 active", [](AppSettings &s) { s.activeDownloads = 15; }, {{"active_limit", "25"}}},
        // The bridge reads numbers with atoi: a sum beyond int would come out negative.
        {"active limits beyond int", [](AppSettings &s) { s.activeDownloads = s.activeSeeds = INT_MAX; },
         {{"active_limit", "2147483647"}}},
        {"negative connections", [](AppSettings &s) { s.maxConnections = -3; }, {{"connections_limit", "0"}}},
        {"500 connections", [](AppSettings &s) { s.maxConnections = 500; }, {{"connections_limit", "500"}}},
        {"switches off", [](AppSettings &s) { s.upnp = s.utp = s.dht = s.lsd = false; },
         {{"enable_upnp", "0"}, {"enable_natpmp", "0"}, {"enable_outgoing_utp", "0"},
          {"enable_incoming_utp", "0"}, {"enable_dht", "0"}, {"enable_lsd", "0"}}},
        // A line break in a user's text cannot add a setting of its own.
        {"line break", [](AppSettings &s) {
             s.proxyKind = ProxyKind::Http;
             s.proxyPassword = QStringLiteral("pw\nenable_dht=0\r\n");
         }, {{"enable_dht", "1"}, {"proxy_password", "pwenable_dht=0"}}},
        // The bridge reads the text as a C string: a NUL would end it there.
        {"NUL", [](AppSettings &s) {
             s.proxyKind = ProxyKind::Http;
             s.proxyHost = QStringLiteral("a") + QChar(0) + QStringLiteral("b");
         }, {{"proxy_hostname", "ab"}, {"user_agent", "Velix/0.1 libtorrent/2.1"}}},
    };
    for (const Case &c : cases) {
        AppSettings s = standard();
        c.change(s);
        const Rows rows = rowsOf(s.libtorrentSettings());
        for (const auto &[key, value] : c.rows) {
            const auto it = rows.find(key);
            EXPECT_EQ(it == rows.end() ? "<absent>" : it->second, value) << c.what << ": " << key;
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
    AppSettings s = standard();
    s.proxyHost = QStringLiteral("proxy.example");
    s.proxyPort = 3128;
    s.proxyPassword = QStringLiteral("pw");
    for (const Case &c : cases) {
        s.proxyKind = c.kind;
        s.proxyUser = QString::fromLatin1(c.user);
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
    s.proxyKind = ProxyKind::None;
    EXPECT_EQ(s.libtorrentSettings(), standard().libtorrentSettings());
}

// ---- Trackers ----

TEST(AppSettingsTest, ExtraTrackersCombineCustomFetchedAndBuiltInLists)
{
    const QString fetchedA = QStringLiteral("udp://fetched-a.example:6969/announce");
    const QString fetchedB = QStringLiteral("udp://fetched-b.example:6969/announce");
    const QString custom = QStringLiteral("https://custom.example/announce");

    AppSettings base = standard();
    base.autoTrackers = false;
    EXPECT_TRUE(base.extraTrackers().isEmpty());

    // Off with a custom list: only the custom lines, trimmed, without empties or repeats.
    AppSettings customOnly = base;
    customOnly.customTrackers = "  " + custom + " \r\n\n   \n" + fetchedA + "\n" + custom;
    EXPECT_EQ(customOnly.extraTrackers(), QStringList({custom, fetchedA}));

    // On with a fetched list: custom, fetched (a repeat keeps its first place, a padded entry
    // is trimmed, a blank one goes), then three TCP trackers that are always added.
    AppSettings fetched = customOnly;
    fetched.autoTrackers = true;
    fetched.fetchedTrackers = {fetchedA, " " + fetchedB + "\t", QString(), QStringLiteral("  ")};
    const QStringList withFetched = fetched.extraTrackers();
    ASSERT_EQ(withFetched.size(), 6);
    EXPECT_EQ(withFetched.mid(0, 3), QStringList({custom, fetchedA, fetchedB}));
    for (const QString &url : withFetched.mid(3))
        EXPECT_TRUE(url.startsWith("http://") || url.startsWith("https://")) << url.toStdString();

    // On, nothing fetched yet: seven built-in UDP trackers stand in, then the same three.
    AppSettings fallback = base;
    fallback.autoTrackers = true;
    const QStringList withFallback = fallback.extraTrackers();
    ASSERT_EQ(withFallback.size(), 10);
    for (const QString &url : withFallback.mid(0, 7))
        EXPECT_TRUE(url.startsWith("udp://")) << url.toStdString();
    EXPECT_EQ(withFallback.mid(7), withFetched.mid(3));

    // Russia puts its local retracker right after the custom lines.
    AppSettings russia = fetched;
    russia.profile = Russia;
    russia.customTrackers = custom;
    const QStringList withRetracker = russia.extraTrackers();
    ASSERT_EQ(withRetracker.size(), 7);
    EXPECT_EQ(withRetracker.at(1), "http://retracker.local/announce");
    EXPECT_EQ(withRetracker.mid(2), withFetched.mid(1));
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
