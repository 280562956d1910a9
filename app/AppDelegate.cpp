#include "app/AppDelegate.h"

#include "app/LaunchEnvironment.h"
#include "engine/TorrentEngine.h"

AppDelegate::AppDelegate(QObject *parent)
    : QObject(parent)
    , m_engineFactory([] { return TorrentEngine::shared(); })
{
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
    // A port that doesn't parse is ignored without a word: scripts set it, users don't.
    m_controlPort = LaunchEnvironment::parseControlPort(qEnvironmentVariable("VELIX_CONTROL_PORT"));
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
