#include "checking/LowPowerMonitor.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QFile>

#include <array>

namespace {

struct DaemonAddress
{
    const char *service;
    const char *path;
};

// The daemon moved to this name in later versions; older systems still answer to the first.
constexpr std::array<DaemonAddress, 2> DaemonAddresses{{
    {"org.freedesktop.UPower.PowerProfiles", "/org/freedesktop/UPower/PowerProfiles"},
    {"net.hadess.PowerProfiles", "/net/hadess/PowerProfiles"},
}};

constexpr QLatin1String PropertiesInterface("org.freedesktop.DBus.Properties");
constexpr QLatin1String ActiveProfile("ActiveProfile");

} // namespace

bool isLowPower(const std::optional<QString> &daemonProfile, const std::optional<QString> &platformProfile)
{
    if (daemonProfile)
        return *daemonProfile == QLatin1String("power-saver");
    if (platformProfile)
        return platformProfile->trimmed() == QLatin1String("low-power");
    return false;
}

LowPowerMonitor::LowPowerMonitor(QObject *parent, const QString &platformProfilePath)
    : QObject(parent)
    , m_platformProfilePath(platformProfilePath)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return;
    auto *watcher = new QDBusServiceWatcher(this);
    watcher->setConnection(bus);
    watcher->setWatchMode(QDBusServiceWatcher::WatchForUnregistration);
    for (const DaemonAddress &address : DaemonAddresses) {
        const QString service = QLatin1String(address.service);
        bus.connect(service, QLatin1String(address.path), PropertiesInterface, QStringLiteral("PropertiesChanged"),
                    this, SLOT(daemonPropertiesChanged(QString, QVariantMap, QStringList)));
        watcher->addWatchedService(service);
    }
    // A daemon that goes away leaves the decision to the firmware's profile again.
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] { m_daemonProfile.reset(); });
    askDaemon(0);
}

bool LowPowerMonitor::lowPower() const
{
    if (m_daemonProfile)
        return isLowPower(m_daemonProfile, std::nullopt);
    QFile file(m_platformProfilePath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    return isLowPower(std::nullopt, QString::fromLatin1(file.read(64)));
}

void LowPowerMonitor::askDaemon(int serviceIndex)
{
    if (serviceIndex >= static_cast<int>(DaemonAddresses.size()))
        return;
    const DaemonAddress &address = DaemonAddresses.at(static_cast<size_t>(serviceIndex));
    QDBusMessage get = QDBusMessage::createMethodCall(QLatin1String(address.service), QLatin1String(address.path),
                                                      PropertiesInterface, QStringLiteral("Get"));
    get << QLatin1String(address.service) << ActiveProfile;
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::systemBus().asyncCall(get), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, serviceIndex](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *call;
        if (reply.isError()) {
            askDaemon(serviceIndex + 1);
            return;
        }
        m_daemonProfile = reply.value().variant().toString();
    });
}

void LowPowerMonitor::daemonPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                              const QStringList &invalidated)
{
    Q_UNUSED(invalidated)
    bool ours = false;
    for (const DaemonAddress &address : DaemonAddresses)
        ours = ours || interface == QLatin1String(address.service);
    if (ours && changed.contains(ActiveProfile))
        m_daemonProfile = changed.value(ActiveProfile).toString();
}
