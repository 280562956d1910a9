#pragma once

#include <QString>

#include <cstdint>
#include <optional>

// The switches a script sets for one run, read once at launch.
namespace LaunchEnvironment {

// Exactly "1" runs without showing windows or taking focus; any other value is a normal run.
bool isBackground(const QByteArray &value);
// A decimal that fits 16 bits unsigned, with an optional leading "+"; anything else is no port.
std::optional<uint16_t> parseControlPort(const QString &text);

} // namespace LaunchEnvironment
