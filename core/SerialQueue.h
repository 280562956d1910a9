#pragma once

#include <QFuture>
#include <QObject>
#include <QPromise>
#include <QString>

#include <functional>
#include <memory>
#include <type_traits>

class QThread;

// One worker thread that runs posted work in order: the shape of a serial dispatch queue.
// The thread has a Qt event loop, so timers and queued calls can live on it through context().
class SerialQueue
{
public:
    explicit SerialQueue(const QString &label);
    ~SerialQueue();

    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    // Runs fn later on the queue's thread. Safe from any thread. Work posted after the
    // queue has begun to stop is dropped.
    void post(std::function<void()> fn);

    // Runs fn on the queue's thread and waits for it; called from the queue itself it runs
    // inline. The main thread uses this only in the ordered shutdown.
    void sync(const std::function<void()> &fn);

    // An object that lives on the queue's thread, for QTimer parents and invokeMethod targets.
    QObject *context() const { return m_context; }
    bool isCurrent() const;
    QString label() const { return m_label; }

    // Runs fn on the queue and hands its result back as a future, so a coroutine on the main
    // thread can co_await work that must not block it.
    template <typename T, typename Fn>
    QFuture<T> run(Fn fn)
    {
        auto promise = std::make_shared<QPromise<T>>();
        QFuture<T> future = promise->future();
        promise->start();
        post([promise, fn = std::move(fn)]() mutable {
            if constexpr (std::is_void_v<T>) {
                fn();
            } else {
                promise->addResult(fn());
            }
            promise->finish();
        });
        return future;
    }

private:
    QString m_label;
    QThread *m_thread = nullptr;
    QObject *m_context = nullptr;
};
