#pragma once

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ProcessInfo.h"

namespace Engine {

// A trust entry as the local and the server list keep it: what a ProcessInfo says of a trusted program
// (path, name, hash, type, size) in one piece of memory, a third of the size. What a ProcessInfo says of
// a process (pid, arguments, ...) is not kept.
//
//     ┌ lengths, type, size ┬ path ┬ name, unless it is the end of the path ┬ hash ┐
//
// A hash in the usual form, 64 lowercase hexadecimal digits, takes 32 bytes; any other text is kept as it
// is. Each text is at most 4 GiB long. A record never changes; one that was moved from may only be destroyed
// or assigned to.
class TrustRecord {
public:
    explicit TrustRecord(const ProcessInfo& info);

    // Good as long as the record.
    std::string_view GetPath() const;

    bool HasHash(std::string_view hash) const;

    // The record as a ProcessInfo of a trust list: pid 0, nothing known of a process.
    ProcessInfo Expand() const;

    // Orders by the bytes of the path, as a map with the path as its key does.
    struct ByPath {
        using is_transparent = void;

        bool operator()(const TrustRecord& a, const TrustRecord& b) const { return a.GetPath() < b.GetPath(); }
        bool operator()(const TrustRecord& a, std::string_view b) const { return a.GetPath() < b; }
        bool operator()(std::string_view a, const TrustRecord& b) const { return a < b.GetPath(); }
    };

private:
    struct Header;

    Header ReadHeader() const;
    std::string_view GetHashBytes() const;

    std::unique_ptr<char[]> mBytes; // a Header, then the texts
};

// One record a path, in byte order of the paths.
using TrustRecordSet = std::set<TrustRecord, TrustRecord::ByPath>;

// Records that are looked up together, in file order.
using TrustGroup = std::vector<TrustRecord>;

} // namespace Engine
