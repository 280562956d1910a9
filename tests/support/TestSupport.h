#pragma once

// Shared pieces for tests: a scratch directory per test, a bounded wait, and files made at run
// time. Deadlines here only stop a hang; they are generous on purpose and measure nothing.

#include <QString>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace testsupport {

// A fresh directory under the system temp dir, removed with everything in it at destruction.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return m_path; }
    QString qpath() const { return QString::fromStdString(m_path); }
    std::string file(const std::string &relative) const { return m_path + "/" + relative; }

private:
    std::string m_path;
};

// Polls pred every few milliseconds until it holds or the deadline passes; runs the Qt event
// loop in between when there is an application object, so queued work is delivered.
bool waitFor(const std::function<bool()> &pred,
             std::chrono::milliseconds deadline = std::chrono::seconds(30));

// Writes `size` bytes of a repeatable pattern (seeded by `seed`) to path, making parents.
void writePatternFile(const std::string &path, int64_t size, uint32_t seed = 1);
std::string readWholeFile(const std::string &path);

// For a death test's child: no new thread can start in this process from here on, so every
// library call that would start one fails the way it does on a machine out of threads. As
// root the process first becomes a user that runs nothing else, since the limit doesn't bind root.
void forbidNewThreads();

} // namespace testsupport
