#pragma once

#include <mutex>

// The once-guard: `work` runs once in the life of the process, whichever thread comes first; a second
// caller waits until it has ended.
using VelmorOnceToken = std::once_flag;

template <class Work>
void VelmorOnce(VelmorOnceToken& token, Work&& work)
{
    std::call_once(token, std::forward<Work>(work));
}
