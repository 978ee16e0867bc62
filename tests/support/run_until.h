// Runs the runtime stand-in's loop until a condition holds or the time is up.
#ifndef XBC_TEST_RUN_UNTIL_H
#define XBC_TEST_RUN_UNTIL_H

#include "xbc_host.h"

#include <climits>

namespace xbctest {

inline bool runUntil(xbchost::Host &host, const std::function<bool()> &done, int maxMs)
{
    xbchost::runFor(host, INT_MAX, maxMs, done);
    return done();
}

} // namespace xbctest

#endif
