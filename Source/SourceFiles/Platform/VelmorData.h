#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

// The framework's byte buffer. A value: copies are cheap and share immutable storage. It may be null,
// and null is not empty: VelmorData() is null, VelmorData::empty() and VelmorData({}) are empty.
//
// byAppending() returns a new buffer and leaves the receiver alone. When the receiver is the longest
// view of its storage and the storage has room, the new bytes go behind it in place, so that a run of
// appends (an exclusive message joined from many platform packets) costs time linear in its bytes.
class VelmorData {
public:
    VelmorData() = default;  // null
    VelmorData(const std::uint8_t* bytes, std::size_t length);
    VelmorData(std::initializer_list<std::uint8_t> bytes);
    explicit VelmorData(const std::vector<std::uint8_t>& bytes);

    static VelmorData empty();
    // A new buffer of `length` bytes that `fill` writes once, before anyone else sees them.
    template <class Fill>
    static VelmorData make(std::size_t length, Fill&& fill)
    {
        VelmorData data = allocate(length, length);
        fill(data.storage_ ? data.storage_->bytes : nullptr);
        return data;
    }

    bool isNull() const { return null_; }
    explicit operator bool() const { return !null_; }
    std::size_t length() const { return length_; }
    std::size_t size() const { return length_; }
    const std::uint8_t* bytes() const { return storage_ ? storage_->bytes : nullptr; }
    std::span<const std::uint8_t> span() const { return {bytes(), length_}; }
    const std::uint8_t* begin() const { return bytes(); }
    const std::uint8_t* end() const { return bytes() + length_; }
    // No bounds check: callers test length() first.
    std::uint8_t operator[](std::size_t position) const { return storage_->bytes[position]; }
    std::vector<std::uint8_t> toVector() const { return {begin(), end()}; }

    // The receiver's bytes followed by the argument's. A null receiver counts as empty here.
    VelmorData byAppending(const VelmorData& other) const;
    VelmorData byAppending(const std::uint8_t* bytes, std::size_t length) const;
    // The bytes [start, start + length), which must lie inside the buffer. Shares storage.
    VelmorData subdata(std::size_t start, std::size_t length) const;
    // Appends to this value itself, which then equals what byAppending would have given; other values
    // of the storage don't change. While this value alone holds its storage, a full storage grows
    // geometrically where it stands (for a large buffer the system may move its pages instead of copying
    // them), so that a buffer built piece by piece is written once.
    void append(const std::uint8_t* bytes, std::size_t length);

    // Null equals null only; otherwise equal bytes.
    friend bool operator==(const VelmorData& a, const VelmorData& b);

    // "<90 3c 40>", "<>" for empty, "(null)" for null.
    std::string description() const;

private:
    struct Storage {
        // A message's few bytes live inside, in the one allocation with the reference count.
        static constexpr std::size_t insideCapacity = 16;

        Storage() = default;
        Storage(const Storage&) = delete;
        Storage& operator=(const Storage&) = delete;
        ~Storage();

        // `inside`, or from malloc, so that growing may reallocate in place.
        std::uint8_t* bytes = nullptr;
        std::size_t capacity = 0;
        // How far the longest view reaches. Only the view that ends here may append in place.
        std::atomic<std::size_t> used {0};
        std::uint8_t inside[insideCapacity];
    };

    static VelmorData allocate(std::size_t length, std::size_t capacity);

    std::shared_ptr<Storage> storage_;
    std::size_t length_ = 0;
    bool null_ = true;

};
