#pragma once
// Test support for the index state machines: the five inputs and an Index, helpers that write
// the inputs the way their owners do, and a flattening of an Index into sorted leaf facts
// ("chipAclMapping[1].aclIntfMapping[a/ip/in].intfId[Ethernet1]") that tests compare against
// expectations and that the differential test diffs between two indexes.
// Header only, for tests and benchmarks; not part of the library.

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "ovinmirel/acl/OvinMirelAcl.h"
#include "ovinmirel/index/OvinMirelIndex.h"
#include "platform/interface/SubIntf.h"
#include "platform/lag/LagPhyIntfMapping.h"
#include "platform/mirel/PDStatus.h"
#include "platform/vlan/VlanPhyIntfConfig.h"
#include "tests/TestSupport.h"

namespace OvinMirel::IndexTest {

using Facts = std::vector<std::string>;
using TestSupport::aclKey;

// Every leaf of the Index as one line, sorted.
inline std::set<std::string> indexFacts(const Index& ix) {
    std::set<std::string> out;
    auto add = [&](const auto&... parts) {
        std::ostringstream os;
        (os << ... << parts);
        out.insert(os.str());
    };
    for (const auto& [i, e] : ix.intfAclMapping())
        for (const auto& a : e->aclKey())
            add("intfAclMapping[", i, "].aclKey[", a, "]");
    for (const auto& [a, e] : ix.aclPhyIntfMapping())
        for (const auto& [p, m] : e->phyIntfMapping())
            for (const auto& parent : m->parentIntfId())
                add("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "].parentIntfId[", parent,
                    "]");
    for (const auto& [a, e] : ix.aclChipMapping())
        for (const auto& [c, m] : e->chipIntfMapping())
            for (const auto& i : m->intfId())
                add("aclChipMapping[", a, "].chipIntfMapping[", c, "].intfId[", i, "]");
    for (const auto& [c, e] : ix.chipAclMapping())
        for (const auto& [a, m] : e->aclIntfMapping())
            for (const auto& i : m->intfId())
                add("chipAclMapping[", c, "].aclIntfMapping[", a, "].intfId[", i, "]");
    for (const auto& [c, e] : ix.chipIntfMapping())
        for (const auto& i : e->intfId())
            add("chipIntfMapping[", c, "].intfId[", i, "]");
    for (const auto& [c, e] : ix.chipVlanMapping())
        for (const auto& [v, m] : e->vlanPhyIntfColl())
            for (const auto& p : m->phyIntfId())
                add("chipVlanMapping[", c, "].vlanPhyIntfColl[", v, "].phyIntfId[", p, "]");
    for (const auto& [c, e] : ix.chipSubIntfMapping())
        for (const auto& [s, m] : e->subPhyIntfColl())
            for (const auto& p : m->phyIntfId())
                add("chipSubIntfMapping[", c, "].subPhyIntfColl[", s, "].phyIntfId[", p, "]");
    for (const auto& [p, e] : ix.phyIntfVlanMapping())
        for (const auto& v : e->vlanId())
            add("phyIntfVlanMapping[", p, "].vlanId[", v, "]");
    for (const auto& [p, e] : ix.phySubIntfMapping())
        for (const auto& s : e->subIntfId())
            add("phySubIntfMapping[", p, "].subIntfId[", s, "]");
    for (const auto& [s, e] : ix.subPhyIntfMapping())
        for (const auto& p : e->phyIntfId())
            add("subPhyIntfMapping[", s, "].phyIntfId[", p, "]");
    for (const auto& [l, e] : ix.lagSubIntfMapping())
        for (const auto& s : e->subIntfId())
            add("lagSubIntfMapping[", l, "].subIntfId[", s, "]");
    for (const auto& [s, e] : ix.subIntfAclMapping())
        for (const auto& a : e->aclKey())
            add("subIntfAclMapping[", s, "].aclKey[", a, "]");
    for (const auto& [v, e] : ix.vlanAclMapping())
        for (const auto& a : e->aclKey())
            add("vlanAclMapping[", v, "](", e->vlanIntfId(), ").aclKey[", a, "]");
    for (const auto& [i, e] : ix.intfAclTypeMapping())
        for (const auto& [t, m] : e->aclTableTypeMapping())
            for (const auto& a : m->aclKey())
                add("intfAclTypeMapping[", i, "].aclTableTypeMapping[", t, "].aclKey[", a, "]");
    return out;
}

// The leaves of one top-level collection (the name up to its '['), sorted.
inline Facts facts(const Index& ix, std::string_view collection) {
    Facts out;
    for (const std::string& f : indexFacts(ix)) {
        if (f.size() > collection.size() && f.compare(0, collection.size(), collection) == 0 &&
            f[collection.size()] == '[') {
            out.push_back(f);
        }
    }
    return out;
}

// Whether two indexes hold the same entries, without formatting anything (the fast path of
// indexDifference).
template <class Field, class Same>
bool sameEntries(const Field& a, const Field& b, Same same) {
    if (a.size() != b.size())
        return false;
    for (const auto& [k, v] : a) {
        auto other = b.find(k);
        if (!other || !same(*v, *other))
            return false;
    }
    return true;
}
template <class Field>
bool sameMembers(const Field& a, const Field& b) {
    if (a.size() != b.size())
        return false;
    for (const auto& k : a) {
        if (!b.contains(k))
            return false;
    }
    return true;
}
inline bool sameIndex(const Index& x, const Index& y) {
    auto aclKeys = [](const auto& a, const auto& b) { return sameMembers(a.aclKey(), b.aclKey()); };
    auto intfIds = [](const auto& a, const auto& b) { return sameMembers(a.intfId(), b.intfId()); };
    auto phyIntfIds = [](const auto& a, const auto& b) {
        return sameMembers(a.phyIntfId(), b.phyIntfId());
    };
    auto subIntfIds = [](const auto& a, const auto& b) {
        return sameMembers(a.subIntfId(), b.subIntfId());
    };
    return sameEntries(x.intfAclMapping(), y.intfAclMapping(), aclKeys) &&
           sameEntries(x.aclPhyIntfMapping(), y.aclPhyIntfMapping(),
                       [](const AclPhyIntfColl& a, const AclPhyIntfColl& b) {
                           return sameEntries(a.phyIntfMapping(), b.phyIntfMapping(),
                                              [](const PhyIntfMapping& m, const PhyIntfMapping& n) {
                                                  return sameMembers(m.parentIntfId(),
                                                                     n.parentIntfId());
                                              });
                       }) &&
           sameEntries(x.aclChipMapping(), y.aclChipMapping(),
                       [&](const AclChipColl& a, const AclChipColl& b) {
                           return sameEntries(a.chipIntfMapping(), b.chipIntfMapping(), intfIds);
                       }) &&
           sameEntries(x.chipAclMapping(), y.chipAclMapping(),
                       [&](const ChipAclColl& a, const ChipAclColl& b) {
                           return sameEntries(a.aclIntfMapping(), b.aclIntfMapping(), intfIds);
                       }) &&
           sameEntries(x.chipIntfMapping(), y.chipIntfMapping(), intfIds) &&
           sameEntries(x.chipVlanMapping(), y.chipVlanMapping(),
                       [&](const ChipVlanColl& a, const ChipVlanColl& b) {
                           return sameEntries(a.vlanPhyIntfColl(), b.vlanPhyIntfColl(), phyIntfIds);
                       }) &&
           sameEntries(x.chipSubIntfMapping(), y.chipSubIntfMapping(),
                       [&](const ChipSubIntfColl& a, const ChipSubIntfColl& b) {
                           return sameEntries(a.subPhyIntfColl(), b.subPhyIntfColl(), phyIntfIds);
                       }) &&
           sameEntries(x.phyIntfVlanMapping(), y.phyIntfVlanMapping(),
                       [](const PhyIntfVlanColl& a, const PhyIntfVlanColl& b) {
                           return sameMembers(a.vlanId(), b.vlanId());
                       }) &&
           sameEntries(x.phySubIntfMapping(), y.phySubIntfMapping(), subIntfIds) &&
           sameEntries(x.subPhyIntfMapping(), y.subPhyIntfMapping(), phyIntfIds) &&
           sameEntries(x.lagSubIntfMapping(), y.lagSubIntfMapping(), subIntfIds) &&
           sameEntries(x.subIntfAclMapping(), y.subIntfAclMapping(), aclKeys) &&
           sameEntries(x.vlanAclMapping(), y.vlanAclMapping(),
                       [&](const VlanAclColl& a, const VlanAclColl& b) {
                           return a.vlanIntfId() == b.vlanIntfId() && aclKeys(a, b);
                       }) &&
           sameEntries(x.intfAclTypeMapping(), y.intfAclTypeMapping(),
                       [&](const IntfAclTableTypeColl& a, const IntfAclTableTypeColl& b) {
                           return sameEntries(a.aclTableTypeMapping(), b.aclTableTypeMapping(),
                                              aclKeys);
                       });
}

// The first leaf that one index has and the other lacks, in words; nullopt when they agree.
inline std::optional<std::string> indexDifference(const Index& have, const Index& want,
                                                  std::string_view haveName,
                                                  std::string_view wantName) {
    if (sameIndex(have, want))
        return std::nullopt;
    const std::set<std::string> a = indexFacts(have);
    const std::set<std::string> b = indexFacts(want);
    auto ia = a.begin();
    auto ib = b.begin();
    while (ia != a.end() || ib != b.end()) {
        if (ib == b.end() || (ia != a.end() && *ia < *ib)) {
            return *ia + " is in the " + std::string(haveName) + " index only";
        }
        if (ia == a.end() || *ib < *ia) {
            return *ib + " is in the " + std::string(wantName) + " index only";
        }
        ++ia;
        ++ib;
    }
    // Same leaves, different entries: one side keeps an empty entry.
    return std::string("the ") + std::string(haveName) + " and " + std::string(wantName) +
           " indexes differ in an empty entry";
}

// The five inputs and an Index, with the writes their owners make.
struct World {
    Vorn::Ptr<OvinMirelAclColl> acls = ovinMirelAclCollFactory("OvinMirelAclColl");
    Vorn::Ptr<Mirel::PDStatus> pd = Mirel::pdStatusFactory("PDStatus");
    Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir> vlans =
        VlanPhyIntfConfigLib::vlanPhyIntfConfigDirFactory("VlanPhyIntfConfigDir");
    Vorn::Ptr<Lag::LagPhyIntfMapping> lags = Lag::lagPhyIntfMappingFactory("LagPhyIntfMapping");
    Vorn::Ptr<Interface::SubIntfConfigDir> subs =
        Interface::subIntfConfigDirFactory("SubIntfConfigDir");
    Vorn::Ptr<Index> index = indexFactory("OvinMirelIndex");

    void onChip(const Zamu::IntfId& intf, uint32_t chip) {
        pd->intfMappingIs(intf, Mirel::ChipId(chip));
    }
    void offChip(const Zamu::IntfId& intf) { pd->intfMappingDel(intf); }
    void vlanMember(int vlan, const Zamu::IntfId& intf, bool member = true) {
        vlans->vlanPhyIntfConfigIs(Bridging::VlanId(vlan))->phyIntfIs(intf, member);
    }
    void lagMember(const Zamu::IntfId& lag, const Zamu::IntfId& intf, bool member = true) {
        lags->lagPhyIntfConfigIs(lag)->phyIntfIs(intf, member);
    }
    void subIntf(const Zamu::IntfId& sub, bool configured = true) {
        if (configured) {
            subs->intfConfigIs(sub);
        } else {
            subs->intfConfigDel(sub);
        }
    }
    // Binds (or unbinds) an ACL to a configured interface, creating the ACL when needed.
    void bind(const Ovin::AclKey& acl, const Zamu::IntfId& intf, bool member = true) {
        acls->aclIs(acl)->intfIs(intf, member);
    }
    Facts facts(std::string_view collection) const { return IndexTest::facts(*index, collection); }
};

}  // namespace OvinMirel::IndexTest
