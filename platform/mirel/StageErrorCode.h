#pragma once
// Mirel::StageErrorCode: why the hardware layer could not compute or load a root, as it reports
// it in the root status. 0 is success; 1 to 7 are the chip's own failures, which the glue
// publishes per chip; 8 marks a root that was aborted only because another chip failed, so it
// is not the chip's fault and is not published.

#include <cstdint>
#include <ostream>

namespace Mirel {

enum StageErrorCode : uint32_t {
    stageSuccess_ = 0,
    stageResourceExhausted_ = 1,  // an allocator of the chip ran dry (ids, indexes, transforms)
    stageTcamFull_ = 2,           // the rules do not fit the chip's TCAM slices
    stageInvalidConfig_ = 3,      // the root configuration contradicts itself
    stageHwError_ = 4,            // the driver refused or failed a write
    stageTimeout_ = 5,            // the hardware did not answer in time
    stageUnsupported_ = 6,        // a rule asks for a match or action the chip cannot do
    stageInternalError_ = 7,      // the hardware layer's own invariant broke
    stageAbortedByPeer_ = 8,      // aborted because some other chip failed
};

// The enumerator's name without the trailing underscore ("tcamFull"); nullptr for a value
// outside the enumeration.
inline const char* stageErrorCodeName(StageErrorCode c) {
    switch (c) {
        case stageSuccess_:
            return "success";
        case stageResourceExhausted_:
            return "resourceExhausted";
        case stageTcamFull_:
            return "tcamFull";
        case stageInvalidConfig_:
            return "invalidConfig";
        case stageHwError_:
            return "hwError";
        case stageTimeout_:
            return "timeout";
        case stageUnsupported_:
            return "unsupported";
        case stageInternalError_:
            return "internalError";
        case stageAbortedByPeer_:
            return "abortedByPeer";
    }
    return nullptr;
}

// Codes beyond the enumeration can arrive from a newer hardware layer; they print as their
// number so that nothing is hidden.
inline std::ostream& operator<<(std::ostream& os, StageErrorCode c) {
    if (const char* name = stageErrorCodeName(c))
        return os << name;
    return os << "stageErrorCode(" << uint32_t(c) << ")";
}

}  // namespace Mirel
