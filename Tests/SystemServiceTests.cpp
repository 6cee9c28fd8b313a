#include <gtest/gtest.h>

#include <unistd.h>

#include "VelmorInProcessMIDIService.h"
#include "VelmorMIDIServices.h"
#include "VelmorSystemMIDIService.h"

#ifdef VELMOR_HAVE_ALSA
#include "VelmorALSAMIDIService.h"
#endif

using namespace VelmorPlatform;

// These run on machines without a sound system (the ALSA service itself is tested in the VM suite,
// Tests/alsa-vm): an application that asks for the system's service must still get a working one.
namespace {

bool haveSequencer()
{
    return access("/dev/snd/seq", R_OK | W_OK) == 0;
}

} // namespace

TEST(SystemService, WithoutASequencerTheInProcessServiceStaysAndWorks)
{
    if (haveSequencer())
        GTEST_SKIP() << "this machine has a sequencer: the VM suite covers it";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(useALSAService());
    EXPECT_FALSE(useSystemServiceIfAvailable());
    const std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(currentService().serviceName(), "in-process");

    // The fallback is a usable service, not a placeholder.
    MIDIClientRef client = 0;
    ASSERT_EQ(MIDIClientCreate("fallback", nullptr, nullptr, &client), noErr);
    MIDIEndpointRef source = 0;
    EXPECT_EQ(MIDISourceCreate(client, "out", &source), noErr);
    EXPECT_NE(source, 0u);
    EXPECT_EQ(MIDIEndpointDispose(source), noErr);
    EXPECT_EQ(MIDIClientDispose(client), noErr);
#ifdef VELMOR_HAVE_ALSA
    // Why the system's service was not taken is said, once per attempt.
    EXPECT_NE(lines.find("VelmorALSAMIDIService: snd_seq_open failed"), std::string::npos) << lines;
#endif
}

TEST(SystemService, AFailedChoiceLeavesAServiceThatWasSetInPlace)
{
    if (haveSequencer())
        GTEST_SKIP() << "this machine has a sequencer";
    auto chosen = VelmorInProcessMIDIService::create();
    setCurrentService(chosen);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(useSystemServiceIfAvailable());
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(&currentService(), chosen.get());
}

#ifdef VELMOR_HAVE_ALSA
TEST(SystemService, TheALSAServiceCannotBeMadeWithoutASequencer)
{
    if (haveSequencer())
        GTEST_SKIP() << "this machine has a sequencer";
    testing::internal::CaptureStderr();
    EXPECT_EQ(VelmorALSAMIDIService::create(), nullptr);
    testing::internal::GetCapturedStderr();
}
#endif
