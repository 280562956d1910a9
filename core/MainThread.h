#pragma once

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QThread>

// Posts fn to the main (GUI) thread. With a receiver, the call is dropped when the receiver is
// gone by then, which is how work posted back from a queue holds its owner only weakly.
template <typename Fn>
void postToMain(QObject *receiver, Fn &&fn)
{
    QObject *target = receiver ? receiver : QCoreApplication::instance();
    if (!target)
        return;
    QMetaObject::invokeMethod(target, std::forward<Fn>(fn), Qt::QueuedConnection);
}

inline bool isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}
