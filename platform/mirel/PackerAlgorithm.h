#pragma once
// Mirel::PackerAlgorithm: how the hardware layer packs rules into a chip's TCAM slices. Stored
// and forwarded by this layer, never interpreted by it.

#include <cstdint>
#include <ostream>

namespace Mirel {

enum PackerAlgorithm : uint32_t {
    packerNone = 0,
    packerFirstFit = 1,  // the default
    packerBestFit = 2,
};

inline std::ostream& operator<<(std::ostream& os, PackerAlgorithm p) {
    return os << uint32_t(p);
}

}  // namespace Mirel
