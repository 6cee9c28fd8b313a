// Serving the main queue from a poll(2) loop: the queue's descriptor is readable while work is pending.
//   velmor-example-poll [SECONDS]    (0 or nothing: until interrupted)

#include <poll.h>

#include <chrono>
#include <cstdlib>

#include "ExampleListener.h"

int main(int argc, char** argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 0;
    if (!exampleStart("Velmor poll example"))
        return 1;
    VelmorMainQueue& queue = VelmorMainQueue::mainQueue();
    pollfd descriptor {queue.fileDescriptor(), POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (seconds == 0 || std::chrono::steady_clock::now() < end) {
        // Other descriptors of the application would go into the same poll.
        if (poll(&descriptor, 1, 100) > 0)
            queue.runPending();
    }
    VelmorManager::sharedManager()->flushManager();
    return 0;
}
