#include "outputreader.h"

#include <csignal>
#include <iostream>

namespace {

#ifdef SIGPIPE
void handleBrokenPipe(void (*handler)(int))
{
    std::signal(SIGPIPE, handler);
}
#else
void handleBrokenPipe(void (*)(int)) { }
#endif

} // namespace

void output_reader::outlive()
{
    handleBrokenPipe(SIG_IGN);
}

void output_reader::endWith()
{
    handleBrokenPipe(SIG_DFL);
    std::cout.clear(); // after a failure it would write nothing more, and so never notice
}
