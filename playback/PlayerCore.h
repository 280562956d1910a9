#pragma once

#include "playback/MPVEvent.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class MPVCore;
typedef struct tb_session tb_session;

// What the player model asks of a libmpv core: fire-and-forget property sets and commands, and
// its events on the main thread. The real one is an MPVCore; tests put a recorder in its place
// so that the model's rules run without libmpv. Main thread only.
class PlayerCore
{
public:
    virtual ~PlayerCore() = default;

    virtual void set(const QString &name, const QString &value) = 0;
    virtual void commandAsync(const QStringList &arguments) = 0;
    virtual void setOnEvent(std::function<void(const MPVEvent &)> onEvent) = 0;
    // libmpv's text for one of its (negative) error codes.
    virtual QString errorText(int error) const = 0;
    // libmpv from client API 2.3 on takes a playlist index before the per-file options of
    // "loadfile"; older ones take the options in its place.
    virtual bool loadfileTakesIndex() const { return false; }
    // Stops events and frees the handle; nothing is delivered afterwards. Idempotent.
    virtual void destroy() = 0;
    // The libmpv core itself, for the video item that makes its render context from it; null
    // for a stand-in.
    virtual MPVCore *mpvCore() { return nullptr; }
};

// A core over libmpv, or null when libmpv cannot start. `session` must outlive it.
std::unique_ptr<PlayerCore> makeMPVPlayerCore(tb_session *session, bool hardwareDecoding, bool silent);
