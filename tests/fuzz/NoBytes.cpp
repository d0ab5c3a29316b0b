// A target that finds something in every input but the empty one, to see that a finding is noticed.

#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* /*data*/, std::size_t size) noexcept {
    Fuzz::Require(size == 0, "there are no bytes");
    return 0;
}
