#pragma once

#include <csignal>
#include <sys/prctl.h>

/// Makes this process, which a test is about to turn into another program, end with the test, however that ends.
inline void endWithTheTest()
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
}
