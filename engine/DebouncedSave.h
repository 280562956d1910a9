#pragma once

#include <QObject>

#include <chrono>
#include <functional>
#include <optional>

class QTimer;

// When a debounced save is due, `now` being the time of a change: `quiet` after it, but never
// later than `limit` after the first change that is not on disk yet, so a value that keeps
// changing (a slider held for ten seconds) still reaches the disk while it changes.
std::chrono::steady_clock::time_point saveDue(std::chrono::steady_clock::time_point now,
                                              std::chrono::steady_clock::time_point firstUnsaved,
                                              std::chrono::milliseconds quiet, std::chrono::milliseconds limit);

// A save that runs on the owner's thread some time after a change. `save` answers whether the
// file reached the disk; when it did not, the changes stay pending and the save runs again
// after `retry`, or at the next change, whichever comes first.
class DebouncedSave : public QObject
{
    Q_OBJECT

public:
    DebouncedSave(std::chrono::milliseconds quiet, std::chrono::milliseconds limit, std::chrono::milliseconds retry,
                  std::function<bool()> save, QObject *parent = nullptr);

    // Something changed: the save is (re)scheduled.
    void changed();
    // Whether a change is waiting for the disk.
    bool pending() const { return m_firstUnsaved.has_value(); }
    // Saves now when a change is waiting; for the end of the run.
    void flush();
    // Drops whatever is waiting without saving.
    void cancel();

private:
    void run();

    std::chrono::milliseconds m_quiet;
    std::chrono::milliseconds m_limit;
    std::chrono::milliseconds m_retry;
    std::function<bool()> m_save;
    QTimer *m_timer;
    std::optional<std::chrono::steady_clock::time_point> m_firstUnsaved;
};
