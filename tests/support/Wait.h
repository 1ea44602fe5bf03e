// Waiting on a condition while the Qt event loop runs.
#pragma once

#include <QtCore/qtestsupport_core.h>

#include <functional>

namespace rdtest {

// Runs the event loop (deferred deletions too) until pred() holds or timeoutMs
// pass; returns pred().
inline bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 10000) {
  return QTest::qWaitFor(pred, timeoutMs);
}

// Runs the event loop for ms, only for checks that something does not happen
// (a second callback, a repeated push), which no condition can end.
inline void idleFor(int ms) { QTest::qWait(ms); }

}  // namespace rdtest
