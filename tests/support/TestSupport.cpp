#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <filesystem>
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace testsupport {

TempDir::TempDir()
{
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/velix-test-XXXXXX"));
    dir.setAutoRemove(false);
    m_path = dir.path().toStdString();
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

bool waitFor(const std::function<bool()> &pred, std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (pred())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        if (QCoreApplication::instance())
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void writePatternFile(const std::string &path, int64_t size, uint32_t seed)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::mt19937 gen(seed);
    std::vector<char> block(64 * 1024);
    int64_t left = size;
    while (left > 0) {
        for (auto &c : block)
            c = static_cast<char>(gen() & 0xFF);
        const auto n = static_cast<std::streamsize>(std::min<int64_t>(left, static_cast<int64_t>(block.size())));
        out.write(block.data(), n);
        left -= n;
    }
}

std::string readWholeFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void forbidNewThreads()
{
    if (::geteuid() == 0) {
        // A uid of its own: its count of tasks is this process alone.
        constexpr uid_t Alone = 54321;
        [[maybe_unused]] const int groups = ::setgroups(0, nullptr);
        [[maybe_unused]] const int group = ::setgid(Alone);
        [[maybe_unused]] const int user = ::setuid(Alone);
    }
    const rlimit one{1, 1};
    ::setrlimit(RLIMIT_NPROC, &one);
}

} // namespace testsupport
