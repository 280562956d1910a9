#include "playback/PlayerCore.h"

#include "playback/MPVCore.h"

#include <mpv/client.h>

namespace {

class MPVPlayerCore final : public PlayerCore
{
public:
    explicit MPVPlayerCore(std::unique_ptr<MPVCore> core)
        : m_core(std::move(core))
    {
    }

    void set(const QString &name, const QString &value) override { m_core->set(name, value); }
    void commandAsync(const QStringList &arguments) override { m_core->commandAsync(arguments); }
    void setOnEvent(std::function<void(const MPVEvent &)> onEvent) override { m_core->setOnEvent(std::move(onEvent)); }
    QString errorText(int error) const override { return QString::fromUtf8(mpv_error_string(error)); }
    bool loadfileTakesIndex() const override
    {
        // The library loaded at run time decides, not the header built against.
        return mpv_client_api_version() >= MPV_MAKE_VERSION(2, 3);
    }
    void destroy() override { m_core->destroy(); }
    MPVCore *mpvCore() override { return m_core.get(); }

private:
    std::unique_ptr<MPVCore> m_core;
};

} // namespace

std::unique_ptr<PlayerCore> makeMPVPlayerCore(tb_session *session, bool hardwareDecoding, bool silent)
{
    std::unique_ptr<MPVCore> core = MPVCore::create(session, hardwareDecoding, silent);
    if (!core)
        return nullptr;
    return std::make_unique<MPVPlayerCore>(std::move(core));
}
