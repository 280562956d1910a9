#include "core/SerialQueue.h"

#include <QThread>

#include <future>

SerialQueue::SerialQueue(const QString &label)
    : m_label(label)
{
    m_thread = new QThread;
    m_thread->setObjectName(label);
    m_context = new QObject;
    m_context->moveToThread(m_thread);
    m_thread->start();
}

SerialQueue::~SerialQueue()
{
    // Let everything posted so far finish before the loop ends: QThread::quit drops events
    // still waiting in the queue.
    sync([] {});
    QObject *context = m_context;
    m_context = nullptr;
    QMetaObject::invokeMethod(context, [context] { delete context; }, Qt::QueuedConnection);
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
}

void SerialQueue::post(std::function<void()> fn)
{
    if (!m_context)
        return;
    QMetaObject::invokeMethod(m_context, std::move(fn), Qt::QueuedConnection);
}

void SerialQueue::sync(const std::function<void()> &fn)
{
    if (isCurrent()) {
        fn();
        return;
    }
    if (!m_context)
        return;
    std::promise<void> done;
    auto finished = done.get_future();
    QMetaObject::invokeMethod(
        m_context,
        [&fn, &done] {
            fn();
            done.set_value();
        },
        Qt::QueuedConnection);
    finished.wait();
}

bool SerialQueue::isCurrent() const
{
    return QThread::currentThread() == m_thread;
}
