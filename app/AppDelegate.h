#pragma once

#include <QList>
#include <QObject>
#include <QUrl>

#include <cstdint>
#include <functional>
#include <optional>

class ControlServer;
class TorrentEngine;

// The process's start and stop order. Services that come up after the engine register their
// stop step here, and applicationWillTerminate runs them in the fixed order, engine last.
class AppDelegate : public QObject
{
    Q_OBJECT

public:
    struct StopSteps
    {
        std::function<void()> stopAutomation;
        std::function<void()> hideWindows;
        std::function<void()> killCoverHelper;
        std::function<void()> stopPlayer;
    };

    explicit AppDelegate(QObject *parent = nullptr);

    // Reads VELIX_BACKGROUND; true means no window is shown and no focus is taken.
    void applicationWillFinishLaunching();
    // Brings up the engine (and with it the session), then the servers.
    void applicationDidFinishLaunching();
    // Files and links the desktop asked to open, in their order; they wait in pendingOpen.
    void openUrls(const QList<QUrl> &urls);
    // The ordered stop; blocks until the session is closed (at most its 13 s of limits).
    void applicationWillTerminate();
    bool applicationShouldTerminateAfterLastWindowClosed() const { return false; }

    bool background() const { return m_background; }
    std::optional<uint16_t> controlPort() const { return m_controlPort; }
    StopSteps &stopSteps() { return m_stopSteps; }
    // Whether the automation server and the player join the start and stop order; tests that
    // only drive the engine leave them out.
    void setProcessServices(bool on) { m_processServices = on; }
    ControlServer *controlServer() const { return m_control; }
    // The engine the delegate drives; the process-wide one unless a test sets another.
    void setEngineFactory(std::function<TorrentEngine *()> factory) { m_engineFactory = std::move(factory); }
    TorrentEngine *engine() const { return m_engine; }

private:
    bool m_background = false;
    bool m_terminated = false;
    std::optional<uint16_t> m_controlPort;
    StopSteps m_stopSteps;
    std::function<TorrentEngine *()> m_engineFactory;
    TorrentEngine *m_engine = nullptr;
    ControlServer *m_control = nullptr;
    bool m_processServices = true;
    QList<QUrl> m_earlyUrls;
};
