// settings.json, read key by key over the defaults, then handed to the bridge as "key=value"
// lines. Whatever the file holds, the record must save and read back as itself, and every
// line the engine writes must reach libtorrent's settings as written: the bridge skips a key
// libtorrent doesn't know without a word, and reads numbers with atoi.

#include "FuzzSupport.h"

#include "bridge/BridgeText.h"
#include "bridge/tb_session.h"
#include "engine/AppSettings.h"

#include <libtorrent/settings_pack.hpp>

#include <QSet>

#include <algorithm>

namespace {

const AppSettings &base()
{
    // Fixed, so that one input always reads the same; the detected profile and a random port
    // would make a crash that can't be replayed.
    static const AppSettings settings = AppSettings::defaults(NetworkProfile::Standard, 6881);
    return settings;
}

void checkBridgeText(const AppSettings &settings)
{
    const QByteArray text = settings.libtorrentSettings().toUtf8();
    const QList<QByteArray> lines = text.split('\n');
    const auto read = tb::options(text.constData());
    Fuzz::require(read.size() == size_t(lines.size()), "the bridge reads one setting for every line");

    const lt::settings_pack pack = tb::make_pack(text.constData());
    for (const QByteArray &line : lines) {
        const qsizetype eq = line.indexOf('=');
        Fuzz::require(eq > 0, "every line is key=value");
        const std::string key = line.left(eq).toStdString();
        const std::string value = line.mid(eq + 1).toStdString();
        const int name = lt::setting_by_name(key);
        Fuzz::require(name >= 0, "every key is a libtorrent setting");
        switch (name & lt::settings_pack::type_mask) {
        case lt::settings_pack::string_type_base:
            Fuzz::require(pack.get_str(name) == value, "a text setting arrives as written");
            break;
        case lt::settings_pack::int_type_base:
            Fuzz::require(std::to_string(pack.get_int(name)) == value, "a number setting arrives as written");
            break;
        case lt::settings_pack::bool_type_base:
            Fuzz::require(value == "0" || value == "1", "a switch is 0 or 1");
            Fuzz::require(pack.get_bool(name) == (value == "1"), "a switch arrives as written");
            break;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QJsonDocument document = QJsonDocument::fromJson(Fuzz::bytes(data, size));
    if (!document.isObject())
        return 0;
    const AppSettings settings = AppSettings::fromJson(document.object(), base());

    const QJsonDocument saved = QJsonDocument::fromJson(Fuzz::savedText(settings.toJson()));
    Fuzz::require(saved.isObject(), "saved settings are one object");
    Fuzz::require(AppSettings::fromJson(saved.object(), base()) == settings, "saved settings read back as they were");

    checkBridgeText(settings);

    const QStringList trackers = settings.extraTrackers();
    Fuzz::require(QSet<QString>(trackers.begin(), trackers.end()).size() == trackers.size(), "no tracker is added twice");
    Fuzz::require(std::all_of(trackers.begin(), trackers.end(), [](const QString &url) {
                      return !url.isEmpty() && url == url.trimmed();
                  }),
                  "no tracker is empty or padded with blanks");
    AppSettings::split(settings.audioLanguages);
    return 0;
}
