// Bounded waiting for tests: serves the event loop of this thread until a
// condition holds or the time is up.
#ifndef XBC_TEST_WAIT_H
#define XBC_TEST_WAIT_H

#include <functional>

namespace xbctest {

bool waitUntil(const std::function<bool()> &condition, int maxMs);

} // namespace xbctest

#endif
