// Attributes from arbitrary dictionaries (an application reads them back from a file or a pasteboard
// that another program wrote): every field type and nesting, known keys and others. What comes out is
// read in every way, and its dictionary form must give equal attributes again.

#include <string_view>

#include "FuzzSupport.h"
#include "VelmorAttributes.h"

using namespace VelmorFuzz;

namespace {

constexpr std::string_view kKeys[] = {
    "name", "model", "manufacturer",
    VelmorEventSourceNameKey, VelmorEventSourceModelKey, VelmorEventSourceManufacturerKey,
    VelmorEventSourceUniqueIDKey, VelmorEventSourceIndexKey, VelmorEventSourceIdentifierKey,
    VelmorAttributesKey,
};

VelmorDictionary dictionaryFrom(FuzzedDataProvider& input, int depth);

VelmorValue valueFrom(FuzzedDataProvider& input, int depth)
{
    switch (input.ConsumeIntegralInRange<int>(0, depth > 0 ? 6 : 3)) {
    case 0:
        return VelmorValue(input.ConsumeRandomLengthString(64));
    case 1:
        return VelmorValue::signedNumber(input.ConsumeIntegral<std::int64_t>());
    case 2:
        return VelmorValue::unsignedNumber(input.ConsumeIntegral<std::uint64_t>());
    case 3:
        return VelmorValue(std::shared_ptr<VelmorRootObject>(VelmorPacket::init()));
    case 4:
        return VelmorValue(dictionaryFrom(input, depth - 1));
    case 5: {
        VelmorArray array;
        const int count = input.ConsumeIntegralInRange<int>(0, 4);
        for (int i = 0; i < count; ++i)
            array.push_back(valueFrom(input, depth - 1));
        return VelmorValue(std::move(array));
    }
    default:
        return VelmorValue(std::shared_ptr<VelmorRootObject>(VelmorAttributes::initWithDictionary(nullptr)));
    }
}

VelmorDictionary dictionaryFrom(FuzzedDataProvider& input, int depth)
{
    VelmorDictionary dictionary;
    const int count = input.ConsumeIntegralInRange<int>(0, 12);
    for (int i = 0; i < count && input.remaining_bytes() > 0; ++i) {
        const bool known = input.ConsumeBool();
        const std::string key = known ? std::string(kKeys[input.ConsumeIntegralInRange<std::size_t>(0, std::size(kKeys) - 1)])
                                      : input.ConsumeRandomLengthString(16);
        dictionary.setObjectForKey(valueFrom(input, depth), key);
    }
    return dictionary;
}

std::size_t touch(const std::shared_ptr<VelmorAttributes>& attributes, std::uint64_t options)
{
    if (!attributes)
        return 0;
    std::size_t sum = attributes->description().size() + attributes->descriptiveString().size();
    const VelmorDictionary form = attributes->dictionaryRepresentation();
    sum += form.description().size();
    auto again = VelmorAttributes::initWithDictionary(&form);
    // A whole value (name, model and manufacturer present) survives its own dictionary form.
    if (attributes->name() && attributes->model() && attributes->manufacturer() && (!again || !again->isEqual(*attributes)))
        std::abort();
    if (auto copy = attributes->copy(); copy && !copy->isEqual(*attributes))
        std::abort();
    if (auto reduced = attributes->attributesWithOptions(options))
        sum += reduced->description().size();
    if (auto indexed = attributes->attributesbyReplacingIndexWith(options))
        sum += indexed->index() == options;
    return sum;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceLines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::uint64_t options = input.ConsumeIntegral<std::uint64_t>();
    const VelmorDictionary dictionary = dictionaryFrom(input, 2);
    volatile std::size_t sum = dictionary.description().size();
    sum = sum + touch(VelmorAttributes::initWithDictionary(&dictionary), options);
    sum = sum + touch(VelmorAttributes::attributesWithDictionary(&dictionary), options);
    return 0;
}
