#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <optional>

// Whether the system saves power: the daemon's profile decides when it has answered
// ("power-saver"), else the firmware's platform profile ("low-power"), else no.
bool isLowPower(const std::optional<QString> &daemonProfile, const std::optional<QString> &platformProfile);

// Follows the system's power profile for the check governor. The power-profiles daemon is asked
// over the system bus without waiting, and its changes arrive as signals; until it has answered,
// or where there is none, the firmware's platform profile file is read. Main thread.
class LowPowerMonitor : public QObject
{
    Q_OBJECT

public:
    explicit LowPowerMonitor(QObject *parent = nullptr,
                             const QString &platformProfilePath = QStringLiteral("/sys/firmware/acpi/platform_profile"));

    // Cheap: the daemon's last answer, or one short read of the platform profile file.
    bool lowPower() const;

private slots:
    void daemonPropertiesChanged(const QString &interface, const QVariantMap &changed, const QStringList &invalidated);

private:
    void askDaemon(int serviceIndex);

    QString m_platformProfilePath;
    std::optional<QString> m_daemonProfile;
};
