#pragma once

// A player core that writes down what the model asks of libmpv. On its own it stands in for
// libmpv, and the test plays libmpv's part by handing events to the model; around a real core it
// passes everything on, so a test can count the loads that real playback took.

#include "playback/PlayerCore.h"
#include "support/TaskResult.h"
#include "support/TestSupport.h"

#include <QCoroTask>
#include <QList>
#include <QStringList>

#include <memory>
#include <optional>
#include <utility>

struct CoreLog
{
    QList<std::pair<QString, QString>> sets;
    QList<QStringList> commands;

    QList<QStringList> commandsNamed(const QString &name) const
    {
        QList<QStringList> found;
        for (const QStringList &command : commands) {
            if (command.first() == name)
                found.append(command);
        }
        return found;
    }
    int loads() const { return static_cast<int>(commandsNamed(QStringLiteral("loadfile")).size()); }
    QStringList valuesOf(const QString &name) const
    {
        QStringList values;
        for (const auto &[key, value] : sets) {
            if (key == name)
                values.append(value);
        }
        return values;
    }
    void clear() { *this = {}; }
};

class RecordingCore final : public PlayerCore
{
public:
    explicit RecordingCore(std::shared_ptr<CoreLog> log, std::unique_ptr<PlayerCore> real = nullptr)
        : m_log(std::move(log))
        , m_real(std::move(real))
    {
    }

    void set(const QString &name, const QString &value) override
    {
        m_log->sets.append({name, value});
        if (m_real)
            m_real->set(name, value);
    }
    void commandAsync(const QStringList &arguments) override
    {
        m_log->commands.append(arguments);
        if (m_real)
            m_real->commandAsync(arguments);
    }
    void setOnEvent(std::function<void(const MPVEvent &)> onEvent) override
    {
        if (m_real)
            m_real->setOnEvent(std::move(onEvent));
    }
    QString errorText(int error) const override
    {
        return m_real ? m_real->errorText(error) : QStringLiteral("error %1").arg(error);
    }
    bool loadfileTakesIndex() const override { return m_real && m_real->loadfileTakesIndex(); }
    void destroy() override
    {
        if (m_real)
            m_real->destroy();
    }

private:
    std::shared_ptr<CoreLog> m_log;
    std::unique_ptr<PlayerCore> m_real;
};


