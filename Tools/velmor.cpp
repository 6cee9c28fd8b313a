// The `velmor` command.

#include <atomic>
#include <csignal>
#include <iostream>
#include <unistd.h>

#include "VelmorTool.h"

namespace {
std::atomic<bool> interrupted {false};
static_assert(std::atomic<bool>::is_always_lock_free);
extern "C" void onSignal(int) { interrupted.store(true); }
} // namespace

int main(int argc, char** argv)
{
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    VelmorToolIO io {std::cout, std::cerr, false, nullptr, {}};
    io.colour = isatty(STDOUT_FILENO) && !std::getenv("NO_COLOR");
    io.interrupted = &interrupted;
    return velmorToolRun(std::vector<std::string>(argv + 1, argv + argc), io);
}
