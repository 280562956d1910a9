#include "ControlServerHarness.h"
#include "remote/PeerCredentials.h"

#include <bit>
#include <cerrno>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tuple>
#include <vector>

using namespace controltest;

namespace {

SocketEndpoint loopback(quint16 port)
{
    return {QByteArray("\x7f\x00\x00\x01", 4), port};
}

TEST(PeerCredentialsTest, TheOwnerIsReadFromTheClientsOwnSocket)
{
    if constexpr (std::endian::native != std::endian::little)
        GTEST_SKIP() << "the table below is in the kernel's little-endian form";
    // 127.0.0.1:54321 (D431) connected to a server on 127.0.0.1:8080 (1F90). The server's side of
    // the same connection, its listener and a dual-stack client stand beside it.
    const QByteArray tcp =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
        "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 100 1 0 100 0 0 10 0\n"
        "   1: 0100007F:1F90 0100007F:D431 01 00000000:00000000 00:00000000 00000000     0        0 101 1 0 20 4 30 10 -1\n"
        "   2: 0100007F:D431 0100007F:1F90 01 00000000:00000000 00:00000000 00000000  1000        0 102 1 0 20 4 30 10 -1\n";
    const QByteArray tcp6 =
        "  sl  local_address                         remote_address                        st tx_queue rx_queue tr "
        "tm->when retrnsmt   uid  timeout inode\n"
        "   0: 0000000000000000FFFF00000100007F:D432 0000000000000000FFFF00000100007F:1F90 01 00000000:00000000 "
        "00:00000000 00000000  1001        0 103 1 0 20 4 30 10 -1\n";
    const std::vector<std::tuple<QByteArray, SocketEndpoint, SocketEndpoint, std::optional<quint32>>> rows{
        {tcp, loopback(54321), loopback(8080), 1000},
        {tcp, loopback(8080), loopback(54321), 0}, // asked the other way round: the server's side
        {tcp, loopback(54322), loopback(8080), std::nullopt},
        {tcp6, loopback(54322), loopback(8080), 1001},
        {tcp6, loopback(54321), loopback(8080), std::nullopt},
        {"", loopback(54321), loopback(8080), std::nullopt},
    };
    for (const auto &[table, local, remote, uid] : rows)
        EXPECT_EQ(socketOwner(table, local, remote), uid) << local.port << " -> " << remote.port;
}

// How a client process ended.
enum Outcome { Answered = 1, ClosedUnanswered = 2, CannotSwitch = 3, NoConnection = 4 };

// Forks a client that takes `uid` (unless it is our own), sends `request` and reads until the
// server closes. The child uses system calls only, since the parent has threads and the child
// inherits only the one that forked.
int exchangeAs(uid_t uid, quint16 port, const QByteArray &request)
{
    const pid_t child = ::fork();
    if (child == 0) {
        // The raw call: glibc's wrapper would try to reach the parent's other threads.
        if (uid != ::geteuid() && (::syscall(SYS_setresgid, uid, uid, uid) != 0 || ::syscall(SYS_setresuid, uid, uid, uid) != 0))
            ::_exit(CannotSwitch);
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval limit{60, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            ::_exit(NoConnection);
        ::send(fd, request.constData(), static_cast<size_t>(request.size()), MSG_NOSIGNAL);
        char buffer[512];
        ssize_t total = 0;
        ssize_t n = 0;
        while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
            total += n;
        ::_exit(total > 0 ? Answered : ClosedUnanswered);
    }
    int status = 0;
    // The server runs on this thread: keep it serving while the child waits for it.
    testsupport::waitFor([&] { return ::waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(90));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ControlServerPeerTest : public ControlServerFixture
{
protected:
    void SetUp() override { startServer(); }
};

TEST_F(ControlServerPeerTest, AnotherUsersProcessIsClosedUnanswered)
{
    // Any uid that is not ours will do; the test's user namespace must map it, which a namespace
    // made by root (or with a range of subordinate uids) does and one that maps a single user
    // doesn't.
    const uid_t stranger = ::geteuid() == 4242 ? 4243 : 4242;
    const QByteArray state = request(port, "/state");
    const QByteArray stream = request(port, "/stream/" + QByteArray(40, 'a') + "/0/film.mkv");
    if (exchangeAs(stranger, port, state) == CannotSwitch)
        GTEST_SKIP() << "no second uid is mapped in this user namespace";

    const std::vector<std::tuple<uid_t, QByteArray, int>> rows{
        {stranger, state, ClosedUnanswered},
        {stranger, stream, ClosedUnanswered},
        {::geteuid(), state, Answered},
        {::geteuid(), stream, Answered}, // a 404 for a torrent it doesn't have, but an answer
    };
    for (const auto &[uid, sent, outcome] : rows)
        EXPECT_EQ(exchangeAs(uid, port, sent), outcome) << uid << " " << sent.left(30).constData();
}

} // namespace
