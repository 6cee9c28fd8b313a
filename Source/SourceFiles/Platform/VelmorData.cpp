#include "VelmorData.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::uint8_t* allocateBytes(std::size_t capacity)
{
    auto* bytes = static_cast<std::uint8_t*>(std::malloc(capacity));
    if (!bytes)
        throw std::bad_alloc();
    return bytes;
}

// Room to grow, so that a run of appends stays linear.
std::size_t grownCapacity(std::size_t total)
{
    return std::max<std::size_t>(total * 2, 64);
}

} // namespace

VelmorData::Storage::~Storage()
{
    if (bytes != inside)
        std::free(bytes);
}

VelmorData VelmorData::allocate(std::size_t length, std::size_t capacity)
{
    VelmorData data;
    data.null_ = false;
    data.length_ = length;
    if (capacity > 0) {
        data.storage_ = std::make_shared<Storage>();
        Storage& storage = *data.storage_;
        if (capacity <= Storage::insideCapacity) {
            storage.bytes = storage.inside;
            storage.capacity = Storage::insideCapacity;
        } else {
            storage.bytes = allocateBytes(capacity);
            storage.capacity = capacity;
        }
        storage.used.store(length, std::memory_order_relaxed);
    }
    return data;
}

VelmorData::VelmorData(const std::uint8_t* bytes, std::size_t length)
{
    *this = allocate(length, length);
    if (length > 0)
        std::memcpy(storage_->bytes, bytes, length);
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
            std::memcpy(storage_->bytes + length_, bytes, length);
            VelmorData longer = *this;
            longer.length_ = total;
            return longer;
        }
    }
    VelmorData grown = allocate(total, grownCapacity(total));
    if (length_ > 0)
        std::memcpy(grown.storage_->bytes, this->bytes(), length_);
    std::memcpy(grown.storage_->bytes + length_, bytes, length);
    return grown;
}

void VelmorData::append(const std::uint8_t* bytes, std::size_t length)
{
    const std::size_t total = length_ + length;
    // Alone with its storage, no other value can appear: its bytes are this value's to move or overwrite.
    // Bytes that come from the storage itself must stay where they are while they are copied.
    const auto address = reinterpret_cast<std::uintptr_t>(bytes);
    const auto own = reinterpret_cast<std::uintptr_t>(this->bytes());
    const bool fromItself = storage_ && address >= own && address < own + storage_->capacity;
    if (length > 0 && storage_ && !fromItself && storage_.use_count() == 1) {
        std::atomic_thread_fence(std::memory_order_acquire);  // after the last other holder let go
        if (storage_->capacity < total) {
            const std::size_t capacity = grownCapacity(total);
            Storage& storage = *storage_;
            if (storage.bytes == storage.inside) {
                storage.bytes = allocateBytes(capacity);
                std::memcpy(storage.bytes, storage.inside, length_);
                storage.capacity = capacity;
            } else if (auto* moved = static_cast<std::uint8_t*>(std::realloc(storage.bytes, capacity))) {
                storage.bytes = moved;
                storage.capacity = capacity;
            }
        }
        if (storage_->capacity >= total) {
            // Longer views that reached further are gone.
            std::memcpy(storage_->bytes + length_, bytes, length);
            storage_->used.store(total, std::memory_order_relaxed);
            length_ = total;
            return;
        }
    }
    *this = byAppending(bytes, length);
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
