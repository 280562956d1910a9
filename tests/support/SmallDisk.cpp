#include "support/SmallDisk.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace testsupport {

namespace {

constexpr const char *MountVariable = "VELIX_TEST_SMALL_DISK";

// The ways to a private mount, best first: a user namespace of its own (what an ordinary user
// can do), or, where that is closed, a mount namespace alone when the test already runs as root.
const std::vector<QStringList> &namespaceCommands()
{
    static const std::vector<QStringList> commands{
        {QStringLiteral("--user"), QStringLiteral("--map-root-user"), QStringLiteral("--mount"),
         QStringLiteral("--propagation"), QStringLiteral("private")},
        {QStringLiteral("--mount"), QStringLiteral("--propagation"), QStringLiteral("private")},
    };
    return commands;
}

// sh runs the mount and then becomes the command behind it.
QStringList mountThen(const QStringList &unshare, int64_t bytes, const QString &point, const QStringList &command)
{
    return unshare
        + QStringList{QStringLiteral("--"), QStringLiteral("sh"), QStringLiteral("-c"),
                      QStringLiteral("mount -t tmpfs -o size=%1 velix-small-disk \"$0\" && exec \"$@\"").arg(bytes), point}
        + command;
}

} // namespace

std::optional<std::string> onSmallDisk(int64_t bytes)
{
    if (const char *mounted = std::getenv(MountVariable))
        return std::string(mounted);

    const ::testing::TestInfo *test = ::testing::UnitTest::GetInstance()->current_test_info();
    const QString filter = QString::fromUtf8(test->test_suite_name()) + QLatin1Char('.') + QString::fromUtf8(test->name());
    QTemporaryDir point(QDir::tempPath() + QStringLiteral("/velix-small-disk-XXXXXX"));
    if (!point.isValid()) {
        ADD_FAILURE() << "no directory to mount on";
        return std::nullopt;
    }

    // Which way works is found with a bare mount first, so that a failure of the test itself
    // is never mistaken for a system that can't mount.
    QStringList reasons;
    std::optional<QStringList> chosen;
    for (const QStringList &unshare : namespaceCommands()) {
        QProcess probe;
        probe.start(QStringLiteral("unshare"), mountThen(unshare, bytes, point.path(), {QStringLiteral("true")}));
        if (probe.waitForFinished(30000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0) {
            chosen = unshare;
            break;
        }
        reasons << QStringLiteral("unshare %1: %2").arg(unshare.join(QLatin1Char(' ')),
                                                          QString::fromLocal8Bit(probe.readAllStandardError()).trimmed());
    }
    if (!chosen) {
        const std::string why = reasons.join(QStringLiteral("; ")).toStdString();
        // The skip marks the test; it returns only from the lambda, and none makes the test return.
        [&why] { GTEST_SKIP() << "no tmpfs can be mounted in a private namespace here, so the full disk is not tried: " << why; }();
        return std::nullopt;
    }

    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(MountVariable), point.path());
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(QStringLiteral("unshare"),
                mountThen(*chosen, bytes, point.path(),
                          {QCoreApplication::applicationFilePath(), QStringLiteral("--gtest_filter=") + filter}));
    if (!child.waitForFinished(15 * 60 * 1000)) {
        child.kill();
        child.waitForFinished();
        ADD_FAILURE() << "the test on the small disk did not end";
        return std::nullopt;
    }
    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit) << "the test on the small disk crashed";
    EXPECT_EQ(child.exitCode(), 0) << "the test on the small disk failed; its output is above";
    return std::nullopt;
}

std::string fillDisk(const std::string &dir)
{
    const std::string path = dir + "/filler";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return path;
    // Big blocks first, then single bytes, so not even a page is left over.
    std::vector<char> block(64 * 1024, 'x');
    for (const size_t size : {block.size(), size_t(4096), size_t(1)}) {
        while (::write(fd, block.data(), size) > 0) {
        }
    }
    ::close(fd);
    return path;
}

} // namespace testsupport
