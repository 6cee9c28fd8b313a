#include "VelmorData.h"

#include <algorithm>
#include <cstring>

VelmorData VelmorData::allocate(std::size_t length, std::size_t capacity)
{
    VelmorData data;
    data.null_ = false;
    data.length_ = length;
    if (capacity > 0) {
        data.storage_ = std::make_shared<Storage>();
        data.storage_->bytes = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
        data.storage_->capacity = capacity;
        data.storage_->used.store(length, std::memory_order_relaxed);
    }
    return data;
}

VelmorData::VelmorData(const std::uint8_t* bytes, std::size_t length)
{
    *this = allocate(length, length);
    if (length > 0)
        std::memcpy(storage_->bytes.get(), bytes, length);
}

VelmorData::VelmorData(std::initializer_list<std::uint8_t> bytes) : VelmorData(bytes.begin(), bytes.size()) {}

VelmorData::VelmorData(const std::vector<std::uint8_t>& bytes) : VelmorData(bytes.data(), bytes.size()) {}

VelmorData VelmorData::empty()
{
    return allocate(0, 0);
}

VelmorData VelmorData::byAppending(const VelmorData& other) const
{
    return byAppending(other.bytes(), other.length());
}

VelmorData VelmorData::byAppending(const std::uint8_t* bytes, std::size_t length) const
{
    if (length == 0) {
        VelmorData same = *this;
        same.null_ = false;
        return same;
    }
    const std::size_t total = length_ + length;
    if (storage_ && storage_->capacity >= total) {
        std::size_t expected = length_;
        // Claim the bytes behind this view; fails when another view already reaches further.
        if (storage_->used.compare_exchange_strong(expected, total, std::memory_order_acq_rel)) {
            std::memcpy(storage_->bytes.get() + length_, bytes, length);
            VelmorData longer = *this;
            longer.length_ = total;
            return longer;
        }
    }
    // Room to grow, so that a run of appends stays linear.
    VelmorData grown = allocate(total, std::max<std::size_t>(total * 2, 64));
    if (length_ > 0)
        std::memcpy(grown.storage_->bytes.get(), this->bytes(), length_);
    std::memcpy(grown.storage_->bytes.get() + length_, bytes, length);
    return grown;
}

VelmorData VelmorData::subdata(std::size_t start, std::size_t length) const
{
    if (length == 0)
        return empty();
    return VelmorData(bytes() + start, length);
}

bool operator==(const VelmorData& a, const VelmorData& b)
{
    if (a.null_ || b.null_)
        return a.null_ == b.null_;
    return a.length_ == b.length_ && (a.length_ == 0 || std::memcmp(a.bytes(), b.bytes(), a.length_) == 0);
}

std::string VelmorData::description() const
{
    if (null_)
        return "(null)";
    static const char digits[] = "0123456789abcdef";
    std::string text = "<";
    text.reserve(2 + length_ * 3);
    for (std::size_t i = 0; i < length_; ++i) {
        if (i > 0)
            text += ' ';
        const std::uint8_t byte = (*this)[i];
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    text += '>';
    return text;
}
