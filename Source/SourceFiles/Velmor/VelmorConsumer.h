#pragma once

#include <memory>

class VelmorEvent;
class VelmorRemoteSource;

// What an application registers on a source. Both operations are required: the source calls them
// without asking, on the main thread, and ignores what they do.
class VelmorConsumer {
public:
    virtual ~VelmorConsumer() = default;

    // One event of a row this consumer stands in.
    virtual void handleMIDIEvent(const std::shared_ptr<VelmorEvent>& event) = 0;
    // The source is going away: once for each row the consumer stands in.
    virtual void sourceIsTerminating(const std::shared_ptr<VelmorRemoteSource>& source) = 0;

    // Presence in a row and removal from it go by this test. A plain consumer is equal only to itself.
    virtual bool isEqualToConsumer(const VelmorConsumer* other) const { return this == other; }
};
