#pragma once

// The `velmor` command as a library: main() and the tests call velmorToolRun() with the words of a
// command line and the streams to write to.

#include <atomic>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

struct VelmorToolIO {
    std::ostream& out;
    std::ostream& err;
    // Colour on standard output (a terminal).
    bool colour = false;
    // Set from a signal handler: a running monitor stops at once, a send before its next message.
    const std::atomic<bool>* interrupted = nullptr;
    // Called on the main thread after each line that `monitor` writes (without its newline), and once
    // with "" when it is listening. Tests act on what they see through it.
    std::function<void(const std::string& line)> onMonitorLine;
};

// Runs one command line (`arguments` without the program's name) and returns the exit status:
// 0 success, 1 a failure at run time (no such source or output, the service cannot be had),
// 2 a command line that could not be understood. Errors are one line on `io.err`.
int velmorToolRun(const std::vector<std::string>& arguments, VelmorToolIO& io);
