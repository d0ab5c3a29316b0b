#include "TrustRecord.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Engine {

namespace {

constexpr std::size_t HASH_DIGITS = 64;
constexpr std::string_view DIGITS = "0123456789abcdef";

bool IsPackable(std::string_view hash) {
    const auto isDigit = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    return hash.size() == HASH_DIGITS && std::all_of(hash.begin(), hash.end(), isDigit);
}

unsigned int ValueOf(char digit) {
    return static_cast<unsigned int>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

std::string Pack(std::string_view hash) {
    std::string bytes(hash.size() / 2, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(ValueOf(hash[2 * i]) << 4U | ValueOf(hash[2 * i + 1]));
    }
    return bytes;
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
    const bool hashPacked = IsPackable(info.hash);
    const std::string_view name = nameEndsPath ? std::string_view() : info.name;
    const std::string hash = hashPacked ? Pack(info.hash) : info.hash;
    const Header header{info.size,      info.type,    LengthOf(info.path), LengthOf(info.name),
                        LengthOf(hash), nameEndsPath, hashPacked};
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
    return IsPackable(hash) && bytes == Pack(hash);
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
