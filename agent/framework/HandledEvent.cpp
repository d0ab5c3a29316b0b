#include "framework/HandledEvent.h"

namespace Framework {

namespace {

thread_local std::uint64_t handledNs = 0;

} // namespace

HandledEvent::HandledEvent(std::uint64_t timestampNs) : mOuterNs(handledNs) {
    handledNs = timestampNs;
}

HandledEvent::~HandledEvent() {
    handledNs = mOuterNs;
}

std::uint64_t HandledEvent::GetTimestampNs() {
    return handledNs;
}

} // namespace Framework
