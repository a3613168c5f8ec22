// 64-bit FNV-1a over bytes and values, and its hexadecimal spelling: the recorded
// checksums of the result guards.
#pragma once

#include <cstdint>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>

#include "SmallVector"

namespace hemiray::testing {

class Fnv1a {
public:
    void bytes(const void* data, size_t size) {
        const auto* p = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < size; ++i) {
            hash_ ^= p[i];
            hash_ *= 0x100000001b3ull;
        }
    }
    void value(int64_t v) { bytes(&v, sizeof v); }
    void value(double v) {
        uint64_t bits = 0;
        std::memcpy(&bits, &v, sizeof bits);
        bytes(&bits, sizeof bits);
    }
    void value(const Vec3& v) {
        for (double c : v.v) value(c);
    }
    uint64_t digest() const { return hash_; }

private:
    uint64_t hash_ = 0xcbf29ce484222325ull;
};

inline std::string hex(uint64_t v) {
    std::ostringstream s;
    s << "0x" << std::hex << std::setw(16) << std::setfill('0') << v;
    return s.str();
}

inline std::string hex(const std::string& bytes) {
    Fnv1a hash;
    hash.bytes(bytes.data(), bytes.size());
    return hex(hash.digest());
}

}  // namespace hemiray::testing
