#pragma once

// Choosing the MIDI service of the process. The in-process service is the default (and what the tests
// use); an application that wants the machine's own MIDI system calls one of these before the manager
// starts, that is before the first VelmorManager::sharedManager().

namespace VelmorPlatform {

// Makes the ALSA sequencer service current. False, with the current service unchanged, when this build
// has no ALSA support or the sequencer cannot be opened (no /dev/snd/seq, no permission).
bool useALSAService();
// Makes the JACK service current, as a JACK client named `clientName` of the default JACK server (or
// $JACK_DEFAULT_SERVER). False, with the current service unchanged, when this build has no JACK
// support or no JACK server answers; it never starts a server.
bool useJACKService(const char* clientName = "Velmor");
// The system's service where there is one, else the in-process service. True when the system's service
// is now current.
bool useSystemServiceIfAvailable();

} // namespace VelmorPlatform
