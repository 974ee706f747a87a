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

void output_reader::ignoreBrokenPipe()
{
    handleBrokenPipe(SIG_IGN);
}

void output_reader::endOnBrokenPipe()
{
    handleBrokenPipe(SIG_DFL);
    std::cout.clear(); // a stream that has failed writes nothing, so SIGPIPE would never come
}

bool output_reader::hasLeft()
{
    return std::cout.fail();
}
