#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

// Entries of a trust list as a host has them: 233 bytes of JSON each, so that 45,000 make 10 MiB.
struct TrustEntry {
    std::string path;
    std::string name;
    std::string hash;
};

constexpr std::size_t LARGE_LIST = 45000;

// Below the folder, which need not exist; paths of one length, in no order.
std::vector<TrustEntry> MakeEntries(const std::string& folder, std::size_t count);

// The bytes that the entries consist of.
std::size_t CountStringBytes(const std::vector<TrustEntry>& entries);

// The list document, as the agent writes it of files of one byte.
std::string ToDocument(std::vector<TrustEntry> entries);

// Makes the files of the entries, one byte each.
void MakeFiles(const std::vector<TrustEntry>& entries);

} // namespace Bench
