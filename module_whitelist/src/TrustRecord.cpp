#include "TrustRecord.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace Engine {

namespace {

constexpr std::size_t HASH_DIGITS = 64;
constexpr std::string_view DIGITS = "0123456789abcdef";

constexpr unsigned char NO_DIGIT = 0xFF;

constexpr std::array<unsigned char, 256> ListValues() {
    std::array<unsigned char, 256> values{};
    values.fill(NO_DIGIT);
    for (std::size_t i = 0; i < DIGITS.size(); ++i) {
        values[static_cast<unsigned char>(DIGITS[i])] = static_cast<unsigned char>(i);
    }
    return values;
}

// NO_DIGIT for what is none.
unsigned char ValueOf(char digit) {
    static constexpr auto VALUES = ListValues();
    return VALUES[static_cast<unsigned char>(digit)];
}

using PackedHash = std::array<char, HASH_DIGITS / 2>;

// Nothing unless the hash is in the usual form.
std::optional<PackedHash> Pack(std::string_view hash) {
    if (hash.size() != HASH_DIGITS) {
        return std::nullopt;
    }
    PackedHash bytes;
    unsigned int all = 0;
    const char* digit = hash.data();
    for (char& byte : bytes) {
        const unsigned int high = ValueOf(*digit++);
        const unsigned int low = ValueOf(*digit++);
        all |= high | low;
        byte = static_cast<char>(high << 4U | low);
    }
    return all == (all & 0xFU) ? std::optional(bytes) : std::nullopt;
}

std::string_view ToText(const PackedHash& bytes) {
    return {bytes.data(), bytes.size()};
}

std::string Unpack(std::string_view bytes) {
    std::string hash;
    hash.reserve(HASH_DIGITS);
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        hash += DIGITS[value >> 4U];
        hash += DIGITS[value & 0xFU];
    }
    return hash;
}

std::uint32_t LengthOf(std::string_view text) {
    return static_cast<std::uint32_t>(text.size());
}

} // namespace

struct TrustRecord::Header {
    std::int64_t size;
    std::int32_t type;
    std::uint32_t pathLength;
    std::uint32_t nameLength;
    std::uint32_t hashLength; // of the bytes that are kept
    bool nameEndsPath;
    bool hashPacked;
};

TrustRecord::TrustRecord(const ProcessInfo& info) {
    const bool nameEndsPath = info.path.ends_with(info.name);
    const std::optional<PackedHash> packed = Pack(info.hash);
    const std::string_view name = nameEndsPath ? std::string_view() : info.name;
    const std::string_view hash = packed ? ToText(*packed) : info.hash;
    const Header header{info.size,      info.type,    LengthOf(info.path), LengthOf(info.name),
                        LengthOf(hash), nameEndsPath, packed.has_value()};
    mBytes = std::make_unique<char[]>(sizeof header + info.path.size() + name.size() + hash.size());
    std::memcpy(mBytes.get(), &header, sizeof header);
    char* next = std::copy(info.path.begin(), info.path.end(), mBytes.get() + sizeof header);
    next = std::copy(name.begin(), name.end(), next);
    std::copy(hash.begin(), hash.end(), next);
}

TrustRecord::Header TrustRecord::ReadHeader() const {
    Header header; // NOLINT(*-member-init): filled at once
    std::memcpy(&header, mBytes.get(), sizeof header);
    return header;
}

std::string_view TrustRecord::GetPath() const {
    return {mBytes.get() + sizeof(Header), ReadHeader().pathLength};
}

std::string_view TrustRecord::GetHashBytes() const {
    const Header header = ReadHeader();
    const std::size_t nameKept = header.nameEndsPath ? 0 : header.nameLength;
    return {mBytes.get() + sizeof header + header.pathLength + nameKept, header.hashLength};
}

bool TrustRecord::HasHash(std::string_view hash) const {
    const std::string_view bytes = GetHashBytes();
    if (!ReadHeader().hashPacked) {
        return bytes == hash;
    }
    const std::optional<PackedHash> packed = Pack(hash);
    return packed && bytes == ToText(*packed);
}

ProcessInfo TrustRecord::Expand() const {
    const Header header = ReadHeader();
    const std::string_view path = GetPath();
    const char* const name =
        header.nameEndsPath ? path.data() + (path.size() - header.nameLength) : path.data() + path.size();
    ProcessInfo info;
    info.path = path;
    info.name.assign(name, header.nameLength);
    info.hash = header.hashPacked ? Unpack(GetHashBytes()) : std::string(GetHashBytes());
    info.type = header.type;
    info.size = header.size;
    return info;
}

} // namespace Engine
