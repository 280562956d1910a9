#include "remote/PeerCredentials.h"

#include <QFile>
#include <QList>

#include <array>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// The kernel prints an address as its 32-bit words in the machine's own order, "%08X" each,
// and the port in host order as "%04X": 127.0.0.1:8080 is "0100007F:1F90" on x86.
QByteArray procForm(const SocketEndpoint &endpoint)
{
    QByteArray text;
    for (qsizetype i = 0; i + 4 <= endpoint.address.size(); i += 4) {
        quint32 word = 0;
        std::memcpy(&word, endpoint.address.constData() + i, 4);
        text += QByteArray::number(word, 16).rightJustified(8, '0');
    }
    text += ':' + QByteArray::number(endpoint.port, 16).rightJustified(4, '0');
    return text.toUpper();
}

SocketEndpoint mapped(const SocketEndpoint &endpoint)
{
    if (endpoint.address.size() != 4)
        return endpoint;
    return {QByteArray(10, '\0') + QByteArray(2, '\xff') + endpoint.address, endpoint.port};
}

std::optional<SocketEndpoint> endpointOf(const sockaddr_storage &address)
{
    if (address.ss_family == AF_INET) {
        const auto *v4 = reinterpret_cast<const sockaddr_in *>(&address);
        return SocketEndpoint{QByteArray(reinterpret_cast<const char *>(&v4->sin_addr), 4), ntohs(v4->sin_port)};
    }
    if (address.ss_family == AF_INET6) {
        const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&address);
        return SocketEndpoint{QByteArray(reinterpret_cast<const char *>(&v6->sin6_addr), 16), ntohs(v6->sin6_port)};
    }
    return std::nullopt;
}

} // namespace

std::optional<quint32> socketOwner(QByteArrayView table, const SocketEndpoint &local, const SocketEndpoint &remote)
{
    const std::array<std::pair<QByteArray, QByteArray>, 2> forms{{
        {procForm(local), procForm(remote)},
        {procForm(mapped(local)), procForm(mapped(remote))},
    }};
    // "sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid ..."
    for (const QByteArray &line : table.toByteArray().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 8)
            continue;
        for (const auto &[localText, remoteText] : forms) {
            if (fields.at(1).toUpper() != localText || fields.at(2).toUpper() != remoteText)
                continue;
            bool valid = false;
            const quint32 uid = fields.at(7).toUInt(&valid);
            if (valid)
                return uid;
        }
    }
    return std::nullopt;
}

std::optional<quint32> peerUid(int descriptor)
{
    sockaddr_storage ours{};
    sockaddr_storage theirs{};
    socklen_t oursLength = sizeof ours;
    socklen_t theirsLength = sizeof theirs;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr *>(&ours), &oursLength) != 0
        || ::getpeername(descriptor, reinterpret_cast<sockaddr *>(&theirs), &theirsLength) != 0)
        return std::nullopt;
    const auto server = endpointOf(ours);
    const auto client = endpointOf(theirs);
    if (!server || !client)
        return std::nullopt;
    // The client's socket: its local end is our far end. The kernel writes the tables a page
    // at a time while sockets come and go, so a line can slip past one reading; a second reading
    // finds it.
    for (int attempt = 0; attempt < 2; ++attempt) {
        for (const char *path : {"/proc/net/tcp", "/proc/net/tcp6"}) {
            QFile file(QString::fromLatin1(path));
            if (!file.open(QIODevice::ReadOnly))
                continue;
            // procfs files report no size; readAll reads to the end.
            if (const auto uid = socketOwner(file.readAll(), *client, *server))
                return uid;
        }
    }
    return std::nullopt;
}
