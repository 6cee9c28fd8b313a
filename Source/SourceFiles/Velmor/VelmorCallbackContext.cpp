#include "VelmorCallbackContext.h"

#include <mutex>
#include <vector>

namespace {

struct Retired {
    std::mutex mutex;
    std::vector<std::shared_ptr<VelmorCallbackContext>> contexts;
};

Retired& retired()
{
    static Retired* list = new Retired;  // never destroyed: a service thread may still call with one
    return *list;
}

} // namespace

void VelmorCallbackContext::end(std::shared_ptr<VelmorCallbackContext> context, bool ended)
{
    if (!context || ended)
        return;
    auto& list = retired();
    std::lock_guard<std::mutex> lock(list.mutex);
    list.contexts.push_back(std::move(context));
}

std::size_t VelmorCallbackContext::retiredCount()
{
    auto& list = retired();
    std::lock_guard<std::mutex> lock(list.mutex);
    return list.contexts.size();
}
