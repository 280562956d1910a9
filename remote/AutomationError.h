#pragma once

#include <QJsonValue>
#include <QString>

#include <variant>

// Why an automation tool call was refused or failed, in English words that go back to the
// agent as they are. The agent learns what to change from the text alone, so every text names
// the fault and, where it can, the way out.
struct AutomationError
{
    QString message;
    bool operator==(const AutomationError &) const = default;
};

// What a tool call gives back: its JSON result, or the error.
using AutomationOutcome = std::variant<QJsonValue, AutomationError>;
