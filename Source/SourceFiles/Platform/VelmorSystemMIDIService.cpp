#include "VelmorSystemMIDIService.h"

#include "VelmorMIDIServices.h"

#include <vector>

#ifdef VELMOR_HAVE_ALSA
#include "VelmorALSAMIDIService.h"
#endif
#ifdef VELMOR_HAVE_JACK
#include "VelmorJACKMIDIService.h"
#endif

namespace VelmorPlatform {

bool useALSAService()
{
#ifdef VELMOR_HAVE_ALSA
    if (auto service = VelmorALSAMIDIService::create()) {
        setCurrentService(std::move(service));
        return true;
    }
#endif
    return false;
}

bool useJACKService(const char* clientName)
{
#ifdef VELMOR_HAVE_JACK
    if (auto service = VelmorJACKMIDIService::create(clientName ? clientName : "Velmor")) {
        // The current service outlives static destruction: globals of the application may still call
        // it on their way out. Its JACK client is closed at exit, before static objects go.
        static auto* keeper = new std::vector<std::shared_ptr<VelmorMIDIService>>;
        keeper->push_back(service);
        setCurrentService(std::move(service));
        return true;
    }
#else
    (void)clientName;
#endif
    return false;
}

bool useSystemServiceIfAvailable()
{
    if (useALSAService())
        return true;
    currentService();  // makes the in-process service current if nothing is
    return false;
}

} // namespace VelmorPlatform
