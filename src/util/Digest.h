#pragma once
// Digest: the 16 bytes of an MD5 checksum, as a value type. The default value is all zeros, the
// null digest, which stands for "not computed". Ordered by bytes, hashable, and written as 32
// lowercase hex digits.
//
// Thread contract: a plain value; distinct objects may be used on any threads.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace qor {

class Digest {
public:
    static constexpr size_t Size = 16;
    using Bytes = std::array<uint8_t, Size>;

    constexpr Digest() = default;
    constexpr explicit Digest(const Bytes& bytes) : _bytes(bytes) {}
    // Copies Size bytes from data.
    static Digest fromBytes(const void* data) {
        Digest d;
        std::memcpy(d._bytes.data(), data, Size);
        return d;
    }
    // Parses exactly 32 hex digits, in either case; nothing for any other text.
    static std::optional<Digest> fromHex(std::string_view hex) {
        if (hex.size() != 2 * Size) return std::nullopt;
        Digest d;
        for (size_t i = 0; i < Size; ++i) {
            int hi = nibble(hex[2 * i]), lo = nibble(hex[2 * i + 1]);
            if (hi < 0 || lo < 0) return std::nullopt;
            d._bytes[i] = static_cast<uint8_t>(hi << 4 | lo);
        }
        return d;
    }

    const Bytes& bytes() const { return _bytes; }
    const uint8_t* data() const { return _bytes.data(); }
    static constexpr size_t size() { return Size; }

    // True for the all-zero digest.
    constexpr bool isNull() const {
        for (uint8_t b : _bytes)
            if (b) return false;
        return true;
    }

    // 32 lowercase hex digits.
    std::string toHex() const {
        static constexpr char digits[] = "0123456789abcdef";
        std::string out(2 * Size, '0');
        for (size_t i = 0; i < Size; ++i) {
            out[2 * i] = digits[_bytes[i] >> 4];
            out[2 * i + 1] = digits[_bytes[i] & 15];
        }
        return out;
    }

    friend constexpr bool operator==(const Digest&, const Digest&) = default;
    friend constexpr auto operator<=>(const Digest&, const Digest&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Digest& d) { return out << d.toHex(); }

private:
    static int nibble(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    Bytes _bytes{};
};

}  // namespace qor

template <>
struct std::hash<qor::Digest> {
    size_t operator()(const qor::Digest& d) const noexcept {
        // The bytes of a checksum are evenly spread already: fold them into one word.
        uint64_t a, b;
        std::memcpy(&a, d.data(), 8);
        std::memcpy(&b, d.data() + 8, 8);
        return static_cast<size_t>(a ^ (b * 0x9E3779B97F4A7C15ull));
    }
};
