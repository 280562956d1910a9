#include "core/SerialQueue.h"

#include "support/TestSupport.h"

#include <QCoroFuture>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

TEST(SerialQueueTest, RunsPostedWorkInOrderOnOneNamedThread)
{
    SerialQueue queue(QStringLiteral("velix.test"));
    std::mutex lock;
    std::vector<int> order;
    QSet<QThread *> threads;
    QStringList names;
    for (int k = 0; k < 200; ++k) {
        queue.post([&, k] {
            std::lock_guard<std::mutex> guard(lock);
            order.push_back(k);
            threads.insert(QThread::currentThread());
            names << QThread::currentThread()->objectName();
        });
    }
    // sync waits for everything posted before it.
    queue.sync([] {});
    ASSERT_EQ(order.size(), 200u);
    for (int k = 0; k < 200; ++k)
        EXPECT_EQ(order[static_cast<size_t>(k)], k);
    EXPECT_EQ(threads.size(), 1);
    EXPECT_FALSE(threads.contains(QThread::currentThread()));
    EXPECT_EQ(names.first(), QStringLiteral("velix.test"));
}

TEST(SerialQueueTest, SyncFromTheQueueItselfRunsInlineInsteadOfDeadlocking)
{
    SerialQueue queue(QStringLiteral("velix.test"));
    std::atomic<bool> inner{false};
    queue.sync([&] { queue.sync([&] { inner = queue.isCurrent(); }); });
    EXPECT_TRUE(inner.load());
}

TEST(SerialQueueTest, DestructionFinishesWorkAlreadyPosted)
{
    std::atomic<int> done{0};
    {
        SerialQueue queue(QStringLiteral("velix.test"));
        for (int k = 0; k < 50; ++k)
            queue.post([&] {
                QThread::usleep(200);
                ++done;
            });
    }
    EXPECT_EQ(done.load(), 50);
}

TEST(SerialQueueTest, RunHandsTheResultBackToAnAwaitingCoroutine)
{
    SerialQueue queue(QStringLiteral("velix.test"));
    QThread *worker = nullptr;
    int result = 0;
    bool finished = false;
    auto task = [&]() -> QCoro::Task<void> {
        result = co_await queue.run<int>([&] {
            worker = QThread::currentThread();
            return 42;
        });
        // The continuation comes back to the thread that awaited.
        EXPECT_EQ(QThread::currentThread(), qApp->thread());
        finished = true;
    };
    auto running = task();
    ASSERT_TRUE(testsupport::waitFor([&] { return finished; }));
    EXPECT_EQ(result, 42);
    EXPECT_NE(worker, qApp->thread());
}
