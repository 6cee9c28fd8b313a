// A program of a user's: finds Velmor installed, names a note and lists the sources it sees.
#include <cstdio>
#include <cstring>

#include <velmor/Velmor.h>

int main()
{
    if (VelmorManager::noteName(60) != "C5")
        return 1;
    auto manager = VelmorManager::sharedManager();
    if (!manager)
        return 2;
    std::printf("velmor consumer: %zu sources\n", manager->sources().size());
    return 0;
}
