#include "app/AppDelegate.h"

#include "app/LaunchEnvironment.h"
#include "engine/TorrentEngine.h"
#include "library/MainUIState.h"
#include "playback/PlayerModel.h"
#include "remote/AutomationServer.h"
#include "remote/ControlServer.h"

AppDelegate::AppDelegate(QObject *parent)
    : QObject(parent)
    , m_engineFactory([] { return TorrentEngine::shared(); })
{
    m_stopSteps.stopAutomation = [this] {
        if (m_processServices)
            AutomationServer::shared()->stop();
    };
    m_stopSteps.stopPlayer = [this] {
        // Streams read through the session, so they end before it does.
        if (m_control)
            m_control->stopStreams();
        if (m_processServices && PlayerModel::hasShared()) {
            PlayerModel::shared()->stop();
            PlayerModel::shared()->destroyCore();
        }
    };
}

void AppDelegate::applicationWillFinishLaunching()
{
    m_background = LaunchEnvironment::isBackground(qgetenv("VELIX_BACKGROUND"));
}

void AppDelegate::applicationDidFinishLaunching()
{
    m_engine = m_engineFactory();
    if (!m_earlyUrls.isEmpty()) {
        m_engine->appendPendingOpen(m_earlyUrls);
        m_earlyUrls.clear();
    }
    if (m_processServices)
        AutomationServer::shared()->start();
    // A port that doesn't parse is ignored without a word: scripts set it, users don't.
    m_controlPort = LaunchEnvironment::parseControlPort(qEnvironmentVariable("VELIX_CONTROL_PORT"));
    if (m_controlPort && m_processServices) {
        m_control = new ControlServer(m_engine, PlayerModel::shared(), MainUIState::shared(), this);
        m_control->start(*m_controlPort);
    }
}

void AppDelegate::openUrls(const QList<QUrl> &urls)
{
    if (m_engine)
        m_engine->appendPendingOpen(urls);
    else
        m_earlyUrls << urls;
}

void AppDelegate::applicationWillTerminate()
{
    if (m_terminated)
        return;
    m_terminated = true;
    auto run = [](const std::function<void()> &step) {
        if (step)
            step();
    };
    run(m_stopSteps.stopAutomation);
    // The user sees the program gone while the session still closes.
    run(m_stopSteps.hideWindows);
    run(m_stopSteps.killCoverHelper);
    run(m_stopSteps.stopPlayer);
    if (m_engine)
        m_engine->shutdown();
}
