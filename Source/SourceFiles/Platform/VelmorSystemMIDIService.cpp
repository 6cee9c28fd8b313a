#include "VelmorSystemMIDIService.h"

#include "VelmorMIDIServices.h"

#ifdef VELMOR_HAVE_ALSA
#include "VelmorALSAMIDIService.h"
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

bool useSystemServiceIfAvailable()
{
    if (useALSAService())
        return true;
    currentService();  // makes the in-process service current if nothing is
    return false;
}

} // namespace VelmorPlatform
