#pragma once

// The QML modules linked into this program register their types here, once, before the first
// view loads. Their libraries are static, so nothing else would pull their registration in.
namespace QmlModules {

void registerTypes();

} // namespace QmlModules
