#pragma once

#include "support/TestSupport.h"

#include <QCoroTask>

#include <memory>
#include <optional>

// The result of a task, waited for with the event loop running; none when it never came.
template <typename T>
std::optional<T> resultOf(QCoro::Task<T> task)
{
    auto result = std::make_shared<std::optional<T>>();
    [](QCoro::Task<T> owned, std::shared_ptr<std::optional<T>> out) -> QCoro::Task<> {
        *out = co_await owned;
    }(std::move(task), result);
    testsupport::waitFor([&result] { return result->has_value(); });
    return *result;
}

// Whether a task without a result ended, waited for the same way.
inline bool finished(QCoro::Task<void> task)
{
    auto done = std::make_shared<bool>(false);
    [](QCoro::Task<void> owned, std::shared_ptr<bool> out) -> QCoro::Task<> {
        co_await owned;
        *out = true;
    }(std::move(task), done);
    testsupport::waitFor([&done] { return *done; });
    return *done;
}
