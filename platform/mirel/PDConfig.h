#pragma once
// Mirel::PDConfig: what this layer asks of the platform-dependent driver.
//  - per chip a ChipConfig: the data-flow configuration the hardware programs (written only by
//    the chip's mapping loader) and the chip's nine field transforms;
//  - blockedIntf: the interfaces whose traffic the driver holds while their ACLs are replaced
//    (written only by the interface blocking loader).
//
// A transform compresses one match field (a source MAC address, an IPv4 prefix, a port
// range, ...) into a small class id the TCAM rules match on. The driver takes a transform
// request by its request id: the hardware layer writes the entries and a new
// attemptedRequestId, the driver answers it in its PD status, and activeRequestId names the
// request now in force.

#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

#include "platform/mirel/ChipDataFlowConfig.h"
#include "platform/mirel/ChipId.h"
#include "platform/vorn/Entity.h"
#include "platform/zamu/IntfId.h"

namespace Mirel {

// The nine transforms of a chip, in the order the driver services them.
enum XformType : uint8_t {
    xformSrcMacAddr_ = 0,
    xformDstMacAddr_ = 1,
    xformMacEtherType_ = 2,
    xformSrcIpV4Prefix_ = 3,
    xformDstIpV4Prefix_ = 4,
    xformSrcIpV6Prefix_ = 5,
    xformDstIpV6Prefix_ = 6,
    xformSrcPortRange_ = 7,
    xformDstPortRange_ = 8,
};
constexpr int kXformTypeCount = 9;

// The name of the chip configuration's attribute for the transform ("chipSrcMacAddrConfig");
// nullptr for a value outside the enumeration, which prints as its number.
const char* xformConfigName(XformType t);
std::ostream& operator<<(std::ostream& os, XformType t);

class XformConfig : public Vorn::Entity {
    VORN_ENTITY("Mirel::XformConfig")
  public:
    explicit XformConfig(XformType xformType) : xformType_(xformType) {}
    XformType xformType() const { return xformType_; }

    VORN_ATTR(uint32_t, attemptedRequestId, 0)
    VORN_ATTR(uint32_t, activeRequestId, 0)
    // The attempted request's entries: the field value as text ("10.1.0.0/16", "80-443")
    // -> the class id it is compressed to.
    VORN_ORDERED_MAP(Vorn::String, uint32_t, attemptedXform)

  private:
    const XformType xformType_;
};

class ChipConfig : public Vorn::Entity {
    VORN_ENTITY("Mirel::ChipConfig")
  public:
    // The data-flow configuration exists for the chip config's whole life.
    explicit ChipConfig(ChipId chipId);
    ChipId chipId() const { return chipId_; }
    const Vorn::Ptr<ChipDataFlowConfig>& chipDataFlowConfig() const { return chipDataFlowConfig_; }

    // Absent until initialize(); the driver reports a missing one as not initialized.
    VORN_PTR_ATTR(XformConfig, chipSrcMacAddrConfig)
    VORN_PTR_ATTR(XformConfig, chipDstMacAddrConfig)
    VORN_PTR_ATTR(XformConfig, chipMacEtherTypeConfig)
    VORN_PTR_ATTR(XformConfig, chipSrcIpV4PrefixConfig)
    VORN_PTR_ATTR(XformConfig, chipDstIpV4PrefixConfig)
    VORN_PTR_ATTR(XformConfig, chipSrcIpV6PrefixConfig)
    VORN_PTR_ATTR(XformConfig, chipDstIpV6PrefixConfig)
    VORN_PTR_ATTR(XformConfig, chipSrcPortRangeConfig)
    VORN_PTR_ATTR(XformConfig, chipDstPortRangeConfig)
    VORN_ATTR(bool, initialized, false)

    // The transform of a type (null when absent or the type is out of range).
    Vorn::Ptr<XformConfig> xformConfig(XformType t) const;
    // Subscribes f to all nine transform references: f(type) after each one is set, replaced
    // or cleared.
    std::vector<Vorn::Subscription> xformConfigNotify(std::function<void(XformType)> f) const;
    // Creates every missing transform, keeps the existing ones, then sets initialized.
    void initialize();

  private:
    const ChipId chipId_;
    const Vorn::Ptr<ChipDataFlowConfig> chipDataFlowConfig_;
};

class PDConfig : public Vorn::Entity {
    VORN_ENTITY("Mirel::PDConfig")
  public:
    explicit PDConfig(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    VORN_ORDERED_ENTITY_MAP(ChipId, ChipConfig, chipConfig)
    VORN_ORDERED_SET(Zamu::IntfId, blockedIntf)

  private:
    const Vorn::Name name_;
};

Vorn::Ptr<PDConfig> pdConfigFactory(const Vorn::Name& name);
Vorn::Ptr<ChipConfig> chipConfigFactory(ChipId chipId);

}  // namespace Mirel
