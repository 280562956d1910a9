#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QtGlobal>

#include <optional>

// Who is at the other end of a TCP connection on this machine. The control server has no
// password: it serves the user who runs Velix and nobody else, and another local user's process
// can reach 127.0.0.1 as well as ours. Linux tells the owner of every TCP socket of the network
// namespace in /proc/net/tcp and /proc/net/tcp6, so the owner of the client's own socket, the
// one whose local end is our connection's far end, is the user who connected.

// One end of a connection: the address's bytes in network order (4 or 16 of them), the port.
struct SocketEndpoint
{
    QByteArray address;
    quint16 port = 0;
    bool operator==(const SocketEndpoint &) const = default;
};

// The uid of the socket whose local end is `local` and whose far end is `remote`, found in the
// text of /proc/net/tcp or /proc/net/tcp6. An IPv4 pair is also found in its IPv4-mapped IPv6
// form, which a dual-stack client socket has. None when no line matches.
std::optional<quint32> socketOwner(QByteArrayView table, const SocketEndpoint &local, const SocketEndpoint &remote);

// The uid of the process's peer on a connected TCP socket, or none when the socket or its
// peer's entry can't be read. Reads /proc: call it off the main thread.
std::optional<quint32> peerUid(int descriptor);
