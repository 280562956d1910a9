#pragma once

// A real bridge session for the action, file-watch, reader and tracker tests, read back through
// its JSON reports the way the engine reads them. Loopback only, no DHT, LSD, UPnP or NAT-PMP.

#include "BridgeHarness.h"

#include "bridge/tb_bridge.h"
#include "support/LocalSwarm.h"
#include "support/TestSupport.h"

#include <QJsonArray>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace livebridge {

using bridgetest::parse;

class LiveBridge
{
public:
    explicit LiveBridge(const std::string &stateDir)
        : m_port(testsupport::freeTcpPort())
        , m_session(stateDir, testsupport::quietSettingsText(m_port))
    {
    }

    tb_session *get() const { return m_session.get(); }
    int port() const { return m_port; }

    // Adds a .torrent with its data under savePath; returns the id, or "" with a test failure.
    std::string add(const std::string &torrentPath, const std::string &savePath, bool paused = false)
    {
        const std::string options = "save_path=" + savePath + "\npaused=" + (paused ? "1" : "0");
        char *error = nullptr;
        const std::string id = bridgetest::take(tb_add_torrent(get(), torrentPath.c_str(), options.c_str(), &error));
        EXPECT_EQ(error, nullptr) << bridgetest::take(error);
        return id;
    }

    QJsonObject sessionInfo() const { return bridgetest::statusJson(get())["session"].toObject(); }

    // The torrent's status object; empty when the report doesn't have it.
    QJsonObject status(const std::string &id) const { return bridgetest::torrentStatus(get(), id); }

    std::string state(const std::string &id) const { return status(id)["state"].toString().toStdString(); }

    bool waitForState(const std::string &id, const std::string &wanted,
                      std::chrono::milliseconds deadline = std::chrono::seconds(60)) const
    {
        return testsupport::waitFor([&] { return state(id) == wanted; }, deadline);
    }

    QJsonArray files(const std::string &id) const { return parse(tb_files_json(get(), id.c_str())).array(); }
    QJsonArray trackers(const std::string &id) const { return parse(tb_trackers_json(get(), id.c_str())).array(); }
    QJsonArray peers(const std::string &id) const { return parse(tb_peers_json(get(), id.c_str())).array(); }

    // The index of the file whose path (relative to the save path) is `path`; -1 if none.
    int fileIndex(const std::string &id, const std::string &path) const
    {
        for (const QJsonValue &file : files(id)) {
            if (file["path"].toString().toStdString() == path)
                return file["i"].toInt();
        }
        return -1;
    }

    // The priority the files report gives a file; -1 if it has no such file.
    int priority(const std::string &id, int index) const
    {
        for (const QJsonValue &file : files(id)) {
            if (file["i"].toInt() == index)
                return file["prio"].toInt(-1);
        }
        return -1;
    }

    // Polls the bridge and keeps what came; returns the messages of all "error" events of the
    // torrent so far, oldest first.
    std::vector<std::string> errors(const std::string &id)
    {
        for (const QJsonValue &event : parse(tb_poll_events(get())).array())
            m_events.push_back(event.toObject());
        std::vector<std::string> messages;
        for (const QJsonObject &event : m_events) {
            if (event["type"].toString() == QLatin1String("error") && event["id"].toString().toStdString() == id)
                messages.push_back(event["message"].toString().toStdString());
        }
        return messages;
    }

private:
    int m_port = 0;
    bridgetest::BridgeSession m_session;
    std::vector<QJsonObject> m_events;
};

// The text the watch gives for a file that vanished, for the file's bare name.
inline std::string missingText(const std::string &fileName)
{
    return "Файл удалён или перемещён: «" + fileName
        + "». Верните файл и проверьте его или перезапустите загрузку.";
}

} // namespace livebridge
