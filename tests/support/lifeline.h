#pragma once

#include <csignal>
#include <sys/prctl.h>

/// For a child process before it executes its program, which is then terminated when the test ends, even by a crash.
inline void endWithTheTest()
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
}
