// Fuzz target: the ACL helper's rule translation (engine subrule to hardware rule).
//
// Input: a sequence of subrule creations decoded from the bytes: the helper's capabilities
// (supported TCP flags, non-contiguous IPv4 masks, established), then per step an IPv4 or
// IPv6 rule (addresses and masks of any shape, protocol, DSCP, traffic class, flags, ICMP),
// its eight port values, its TCP flags, and the unique id, rule and subrule numbers (drawn
// from a few values, so that steps replace each other's entries). Steps go to one ACL of each
// IP type, a fragment rule now and then. Checked after every step, against a model written
// from the rules the helper must follow rather than from its code:
//  - the answer is 0 or 14, 14 exactly when the model refuses the subrule, and a range error
//    exactly for a backward port range on an L4 subrule;
//  - a refusal or a range error leaves the ACL's store entry exactly as it was;
//  - an accepted subrule is stored under its AceIndex with the port ranges, DSCP and protocol
//    the model expects;
//  - the per-protocol counts add up to the number of stored IP entries.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ovinmirel/acl/OvinMirelAclHelper.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Exception.h"

namespace {

using Zamu::IpAddr;
using Zamu::IpAddrWithMask;

[[noreturn]] void fail(const char* what, const std::string& detail = {}) {
    std::fprintf(stderr, "RuleTranslationFuzz: %s %s\n", what, detail.c_str());
    std::abort();
}

IpAddr addrOf(FuzzedDataProvider& in, bool v6) {
    if (!v6)
        return IpAddr::v4(in.ConsumeIntegral<uint32_t>());
    // Whole 16-bit groups as text: the only way to build an arbitrary IPv6 address.
    std::ostringstream os;
    os << std::hex;
    for (int i = 0; i < 8; ++i)
        os << (i ? ":" : "") << in.ConsumeIntegral<uint16_t>();
    return IpAddr(os.str());
}

// Mostly prefixes (the common case), sometimes any bit pattern.
IpAddrWithMask addrWithMaskOf(FuzzedDataProvider& in, bool v6) {
    const IpAddr addr = addrOf(in, v6);
    if (in.ConsumeIntegralInRange(0, 3) == 0)
        return {addr, addrOf(in, v6)};
    return {addr, IpAddr::mask(v6, in.ConsumeIntegralInRange(0, v6 ? 128 : 32))};
}

struct StoreView {
    std::vector<std::pair<Mirel::AceIndex, Mirel::IpRuleConfig>> ipRules;
    std::map<uint64_t, uint32_t> ruleNums;
    std::map<int, uint32_t> counts;
    bool operator==(const StoreView&) const = default;
};

StoreView viewOf(const OvinMirel::OvinMirelAcl& acl) {
    StoreView v;
    for (const auto& [k, r] : acl.ipRuleById())
        v.ipRules.emplace_back(k, r);
    for (const auto& [id, n] : acl.ruleNum())
        v.ruleNums[id.value] = n;
    for (const auto& [p, n] : acl.ruleCountByProtocol())
        v.counts[p.value()] = n;
    return v;
}

Mirel::L4PortRange expectedRange(bool l4, uint16_t port, uint16_t mask, uint16_t low,
                                 uint16_t high) {
    if (!l4 || (mask != 0xffff && low == 0 && high == 0))
        return Mirel::L4PortRange(0, 0xffff);
    if (mask == 0xffff)
        return Mirel::L4PortRange(port, port);
    return Mirel::L4PortRange(low, high);
}

struct World {
    Vorn::ScopedVirtualClock clock{1.0};
    Vorn::Ptr<OvinMirel::OvinMirelAclColl> aclColl = OvinMirel::ovinMirelAclCollFactory("aclColl");
    Vorn::Ptr<OvinMirel::GlueConfig> glueConfig = OvinMirel::glueConfigFactory("glueConfig");
    Vorn::Ptr<OvinMirel::GlueStatus> glueStatus = OvinMirel::glueStatusFactory("glueStatus");
    Vorn::Ptr<Mirel::HwCapabilityColl> hwCapabilityColl =
        Mirel::hwCapabilityCollFactory("hwCapabilityColl");
    Vorn::Ptr<OvinMirel::Index> index = OvinMirel::indexFactory("index");
    Vorn::Ptr<OvinMirel::AclHelper> helper =
        OvinMirel::aclHelperFactory(aclColl, glueConfig, glueStatus, hwCapabilityColl, index);
};

Ovin::AclData dataOf(Acl::AclType type) {
    Ovin::AclData d;
    d.key.name = type == Acl::aclTypeIpv6 ? "six" : "four";
    d.key.type = type;
    return d;
}

void step(World& w, FuzzedDataProvider& in, const Ovin::AclData& data) {
    const bool v6 = data.key.type == Acl::aclTypeIpv6;
    const auto acl = w.aclColl->acl(data.key);
    if (!acl)
        fail("the ACL's store entry is gone");

    Acl::Ip6Filter f6;
    Acl::IpFilter f4;
    Acl::IpFilter& f = v6 ? static_cast<Acl::IpFilter&>(f6) : f4;
    f.sourceIs(addrWithMaskOf(in, v6));
    f.destinationIs(addrWithMaskOf(in, v6));
    const uint8_t protos[] = {0, 1, 6, 17, 58, 132, in.ConsumeIntegral<uint8_t>()};
    f.protocolIs(protos[in.ConsumeIntegralInRange<size_t>(0, 6)]);
    const int dscp = in.ConsumeIntegralInRange(-1, 70);
    if (dscp >= 0) {
        try {
            f.dscpIs(dscp);
        } catch (const Vorn::RangeException& e) {
            if (dscp <= 63 || std::string(e.what()) != "IpFilter::dscp < 0 or > 63 not allowed")
                fail("DSCP refusal", std::to_string(dscp) + ": " + e.what());
        }
    }
    f.establishedIs(in.ConsumeBool());
    f.fragmentsIs(in.ConsumeBool());
    if (in.ConsumeBool())
        f.icmpTypeIs(in.ConsumeIntegral<uint8_t>());
    if (in.ConsumeBool())
        f.icmpCodeIs(in.ConsumeIntegral<uint8_t>());
    uint8_t tc = 0, tcMask = 0;
    if (v6 && in.ConsumeBool()) {
        tc = in.ConsumeIntegral<uint8_t>();
        const uint8_t masks[] = {0xfc, 0xff, 0xf0, in.ConsumeIntegral<uint8_t>()};
        tcMask = masks[in.ConsumeIntegralInRange(0, 3)];
        f6.trafficClassIs(tc, tcMask);
    }
    Acl::IpRuleConfig rule = v6 ? Acl::IpRuleConfig(f6) : Acl::IpRuleConfig(f4);
    rule.actionIs(in.ConsumeBool() ? Acl::aclActionDeny : Acl::aclActionPermit);
    rule.countIs(in.ConsumeBool());

    const Acl::UniqueId id{in.ConsumeIntegralInRange<uint64_t>(1, 4)};
    const uint32_t ruleNum = in.ConsumeIntegralInRange<uint32_t>(1, 4) * 10;
    const bool frag = in.ConsumeIntegralInRange(0, 7) == 0;
    const uint32_t subruleNum = in.ConsumeIntegralInRange<uint32_t>(0, 3);
    uint16_t p[8];
    for (uint16_t& v : p) {
        const uint16_t picks[] = {0, 0xffff, 80, in.ConsumeIntegral<uint16_t>()};
        v = picks[in.ConsumeIntegralInRange(0, 3)];
    }
    const bool l4 = !frag && in.ConsumeBool();
    const uint8_t tcpFlags = frag ? 0 : in.ConsumeIntegral<uint8_t>() & 0x7f;
    if (frag)
        std::fill(std::begin(p), std::end(p), uint16_t{0});

    // The model: what this hardware cannot express, by the helper's contract.
    const IpAddrWithMask src = v6 ? f.source().subnet() : f.source();
    const IpAddrWithMask dst = v6 ? f.destination().subnet() : f.destination();
    const bool badTc = tcMask != 0 && ((tc & 0x03) != 0 || tcMask != 0xfc);
    const bool badFlags = (tcpFlags & ~w.helper->supportedTcpFlags()) != 0;
    const bool badEstablished = f.established() && !w.helper->establishedSupported();
    const bool prefixOk = (!v6 && w.helper->nonContiguousIpMaskSupported()) ||
                          (src.isValidPrefix() && dst.isValidPrefix());
    const bool refused = badTc || badFlags || badEstablished || !prefixOk;
    auto backward = [&](int i) {
        return l4 && p[i + 1] != 0xffff && !(p[i + 2] == 0 && p[i + 3] == 0) && p[i + 2] > p[i + 3];
    };
    const bool rangeError = backward(0) || backward(4);

    const StoreView before = viewOf(*acl);
    std::optional<Ovin::AclCreateError> result;
    try {
        if (frag) {
            result = w.helper->createIpFragRule(data, rule, id, ruleNum, subruleNum);
        } else {
            result = w.helper->createIpAclSubrule(data.key.type, rule, id, data, ruleNum,
                                                  subruleNum, p[0], p[1], p[2], p[3], p[4], p[5],
                                                  p[6], p[7], 0, 0, 0, 0, tcpFlags, l4, 0, 0);
        }
    } catch (const Vorn::RangeException& e) {
        if (!rangeError ||
            std::string(e.what()) != "L4PortRange::rangeStart > L4PortRange::rangeEnd not allowed")
            fail("unexpected range error", e.what());
    }
    if (rangeError && result)
        fail("backward port range accepted");
    if (!result || *result == Ovin::aclCreateNotSupportedByHw) {
        if (result && !refused)
            fail("expressible subrule refused");
        if (!(viewOf(*acl) == before))
            fail("a refusal changed the store");
    } else {
        if (*result != Ovin::aclCreateOk)
            fail("answer neither 0 nor 14");
        if (refused)
            fail("inexpressible subrule accepted");
        const Mirel::IpRuleConfig* stored =
            acl->ipRuleById(Mirel::AceIndex{ruleNum, subruleNum, id});
        if (!stored)
            fail("accepted subrule not stored");
        if (stored->filter.protocol != f.protocol() || stored->filter.ipv6 != v6 ||
            stored->filter.source != src || stored->filter.destination != dst ||
            stored->filter.matchFragments != (f.fragments() || frag))
            fail("stored filter differs");
        if (stored->sourcePort != expectedRange(l4, p[0], p[1], p[2], p[3]) ||
            stored->destinationPort != expectedRange(l4, p[4], p[5], p[6], p[7]))
            fail("stored port ranges differ");
        const int wantDscp = tcMask == 0xfc ? tc >> 2 : (f.matchDscp() ? f.dscp() : -1);
        if (wantDscp >= 0 && (!stored->filter.matchDscp || stored->filter.dscp != wantDscp))
            fail("stored DSCP differs");
        const uint32_t* n = acl->ruleNum(id);
        if (!n || *n != ruleNum)
            fail("rule number not recorded");
    }
    size_t counted = 0;
    for (const auto& [proto, n] : acl->ruleCountByProtocol())
        counted += n;
    if (counted != acl->ipRuleById().size())
        fail("protocol counts do not add up",
             std::to_string(counted) + " vs " + std::to_string(acl->ipRuleById().size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider in(bytes, size);
    World w;
    w.helper->supportedTcpFlagsIs(in.ConsumeIntegral<uint8_t>() & Acl::kAllTcpFlags);
    w.helper->nonContiguousIpMaskSupportedIs(in.ConsumeBool());
    w.helper->establishedSupportedIs(in.ConsumeBool());
    const Ovin::AclData four = dataOf(Acl::aclTypeIpv4);
    const Ovin::AclData six = dataOf(Acl::aclTypeIpv6);
    Ovin::AclDataStatus status;
    w.helper->precreateAcl(four, status);
    w.helper->precreateAcl(six, status);
    for (int i = 0; i < 16 && in.remaining_bytes() > 0; ++i)
        step(w, in, in.ConsumeBool() ? six : four);
    return 0;
}
