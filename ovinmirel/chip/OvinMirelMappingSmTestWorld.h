#pragma once
// The MappingSm test world: one chip (1) with its glue status, root configurations, hardware
// capability, data-flow configuration and ACL policy result, and the machine over them. Tests
// and benchmarks write the inputs through it and read the data-flow tables back; after every
// step the world runs `afterStep` (tests: the mapping checker, and the index checker when the
// step changed the index).
//
// The policy result comes from one of two sources:
//  - bindings (the default): ACLs bound in the ACL store to ports, VLAN interfaces and
//    sub-interfaces, with VLAN and LAG membership, sub-interface configuration and chip
//    placement; the index machines keep a real Index and the chip's real AclPolicySm writes
//    the status. A step runs the timer wheel until nothing is due, so the reviews it scheduled
//    are done when it returns. Ethernet1 to Ethernet8 sit on the chip from the start.
//  - DirectPolicy: the result written by hand, for what the policy machine never writes.
// Header only; not part of the library.

#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ovinmirel/chip/OvinMirelAclPolicySm.h"
#include "ovinmirel/chip/OvinMirelChipTestWorld.h"
#include "ovinmirel/chip/OvinMirelMappingSm.h"
#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"

namespace OvinMirel::MappingTest {

using Zamu::IntfId;

inline Ovin::AclKey acl(std::string name, Acl::AclType type, std::optional<int> vlan,
                        Acl::AclDirection direction) {
    Ovin::AclKey k;
    k.name = std::move(name);
    k.type = type;
    k.direction = direction;
    if (vlan)
        k.vlanId = Bridging::VlanId(*vlan);
    return k;
}
// A port ACL (IPv4 unless told), a router ACL (it carries a VLAN id), a MAC ACL.
inline Ovin::AclKey pacl(std::string name, Acl::AclDirection d = Acl::aclDirectionIn,
                         Acl::AclType type = Acl::aclTypeIpv4) {
    return acl(std::move(name), type, std::nullopt, d);
}
inline Ovin::AclKey racl(std::string name, int vlan = 1, Acl::AclDirection d = Acl::aclDirectionIn,
                         Acl::AclType type = Acl::aclTypeIpv4) {
    return acl(std::move(name), type, vlan, d);
}
inline Ovin::AclKey macl(std::string name, Acl::AclDirection d = Acl::aclDirectionIn) {
    return acl(std::move(name), Acl::aclTypeMac, std::nullopt, d);
}

// The policy result written as it is: each setter makes the place's entry hold exactly the
// given ACLs, one ACL at a time (each a change the machine sees), and deletes the entry when
// none are given.
class DirectPolicy {
  public:
    explicit DirectPolicy(const Vorn::Ptr<AclPolicyStatus>& status) : status_(status) {}

    void intfAcls(const IntfId& intf, const AclKeySet& acls) {
        write(
            status_->intfAclMapping(intf), acls, [&] { return status_->intfAclMappingIs(intf); },
            [&] { status_->intfAclMappingDel(intf); });
    }
    void routedPortAcls(const IntfId& intf, const AclKeySet& acls) {
        write(
            status_->routedPortSharedAclMapping(intf), acls,
            [&] { return status_->routedPortSharedAclMappingIs(intf); },
            [&] { status_->routedPortSharedAclMappingDel(intf); });
    }
    void vlanAcls(int vlan, const AclKeySet& acls) {
        const Bridging::VlanId v(vlan);
        write(
            status_->vlanAclMapping(v), acls, [&] { return status_->vlanAclMappingIs(v); },
            [&] { status_->vlanAclMappingDel(v); });
    }
    void subIntfAcls(const IntfId& subIntf, const AclKeySet& acls) {
        write(
            status_->subIntfAclMapping(subIntf), acls,
            [&] { return status_->subIntfAclMappingIs(subIntf); },
            [&] { status_->subIntfAclMappingDel(subIntf); });
    }

  private:
    template <class Entry, class Make, class Del>
    void write(Vorn::Ptr<Entry> entry, const AclKeySet& acls, Make make, Del del) {
        if (acls.empty()) {
            if (entry)
                del();
            return;
        }
        if (!entry)
            entry = make();
        for (const Ovin::AclKey& k : entry->aclKey().keys()) {
            if (!acls.contains(k))
                entry->aclKeyDel(k);
        }
        for (const Ovin::AclKey& k : acls)
            entry->aclKeyIs(k);
    }

    Vorn::Ptr<AclPolicyStatus> status_;
};

enum class PolicySource { bindings, direct };

class World {
  public:
    explicit World(uint32_t hwAclIndexMax = 100, uint32_t hwAclIndexReserved = 0,
                   PolicySource source = PolicySource::bindings)
        : glue(glueStatusFactory("glueStatus")),
          capability(inputs.chip(chip.value(), {Mirel::AclTypeCombinationBitMask::kMax})),
          machines(mappingSmCollFactory()),
          direct_(nullptr) {
        glue->initialize();
        policyStatus = glue->aclPolicyStatusColl()->statusIs(chip);
        dataFlow = glue->piChipDataFlowConfigIs(chip);
        capability->hwAclIndexMaxIs(hwAclIndexMax);
        capability->hwAclIndexReservedIs(hwAclIndexReserved);
        direct_ = DirectPolicy(policyStatus);
        if (source == PolicySource::direct)
            return;
        for (uint32_t n = 1; n <= 8; ++n)
            inputs.onChip(IntfId::ethernet(n), chip.value());
        inputs.startIndex();
        // The policy machine writes the status the mapping machine reads.
        inputs.statuses = glue->aclPolicyStatusColl();
        policy = inputs.startPolicy(chip.value());
        inputs.settle();
    }

    uint32_t rootId(uint32_t slot) const { return rootSmIdOf(chip, slot); }

    // Writes the configuration of root `slot`: every ACL with one id for all protocols, or
    // with a TCP and a non-TCP id when it is in `split`. Ids count from `firstId`.
    Vorn::Ptr<Mirel::RootConfig> rootIs(uint32_t slot, const std::vector<Ovin::AclKey>& acls,
                                        const AclKeySet& split = {}, uint32_t firstId = 1) {
        auto root = glue->rootConfigColl()->rootConfigIs(rootId(slot));
        root->aclKeyToAclIdTypeSetDelAll();
        uint32_t id = firstId;
        for (const Ovin::AclKey& k : acls) {
            auto ids = root->aclKeyToAclIdTypeSetIs(k);
            const Mirel::TableType t = IntfAclTypeIndexSm::getTableType(k);
            if (split.contains(k)) {
                ids->aclIdTypeIs(Mirel::protocolTcp_, Mirel::AclId(t, uint8_t(id++), k.direction));
                ids->aclIdTypeIs(Mirel::protocolNonTcp_,
                                 Mirel::AclId(t, uint8_t(id++), k.direction));
            } else {
                ids->aclIdTypeIs(Mirel::protocolAll_, Mirel::AclId(t, uint8_t(id++), k.direction));
            }
        }
        return root;
    }
    // Makes root `slot` the chip's active root.
    void activate(uint32_t slot) {
        glue->activeRootSmIdIs(chip, rootId(slot));
        step(false);
    }
    // Creates the machine and marks it initialized.
    void start() {
        sm = machines->smIs(chip, glue, policyStatus, capability, dataFlow);
        sm->handleInitialized();
        step(false);
    }

    // ---- the bindings source ----

    // Makes the configured interface (a port, VLAN interface or sub-interface) carry exactly
    // `acls`: one unbind or bind per ACL that changes, in key order.
    void bind(const IntfId& intf, const AclKeySet& acls) {
        AclKeySet& held = bound_[intf];
        for (const Ovin::AclKey& k : AclKeySet(held)) {
            if (!acls.contains(k))
                inputs.bind(k, intf, false);
        }
        for (const Ovin::AclKey& k : acls) {
            if (!held.contains(k))
                inputs.bind(k, intf);
        }
        held = acls;
        settle();
    }
    void vlanMember(int vlan, const IntfId& port, bool member = true) {
        inputs.vlanMember(vlan, port, member);
        settle();
    }
    void lagMember(const IntfId& lag, const IntfId& port, bool member = true) {
        inputs.lagMember(lag, port, member);
        settle();
    }
    void subIntfConfigured(const IntfId& sub, bool configured = true) {
        inputs.subIntf(sub, configured);
        settle();
    }
    // The chip's supported ACL-kind combinations, preferred first; whether routed ports share
    // their router ACLs. Both are read at the next review: set them before binding.
    void combinations(std::initializer_list<uint32_t> ranked) { inputs.chip(chip.value(), ranked); }
    void raclSharing(bool supported) { inputs.hw->routedPortRaclSharingSupportedIs(supported); }

    // ---- the DirectPolicy source: the places' ACLs, as the policy result ----

    void intf(const IntfId& i, const AclKeySet& acls) {
        direct_.intfAcls(i, acls);
        step(false);
    }
    void routedPort(const IntfId& i, const AclKeySet& acls) {
        direct_.routedPortAcls(i, acls);
        step(false);
    }
    void vlan(int v, const AclKeySet& acls) {
        direct_.vlanAcls(v, acls);
        step(false);
    }
    void subIntf(const IntfId& i, const AclKeySet& acls) {
        direct_.subIntfAcls(i, acls);
        step(false);
    }

    // ---- reading back ----

    // The indexes written into the data-flow configuration (nullopt: not mapped).
    std::optional<int> intfIndex(const IntfId& i) const {
        return of(dataFlow->intfToHwAclIndex(i));
    }
    std::optional<int> routedPortIndex(const IntfId& i) const {
        return of(dataFlow->routedPortToHwAclIndex(i));
    }
    std::optional<int> vlanIndex(int v) const {
        return of(dataFlow->vlanToHwAclIndex(Bridging::VlanId(v)));
    }
    std::optional<int> subIntfIndex(const IntfId& i) const {
        return of(dataFlow->subIntfToHwAclIndex(i));
    }
    // The 2nd-level entries of one index, as (table type, direction, protocol, rule list id).
    std::vector<std::string> secondLevel(int index) const {
        std::vector<std::string> out;
        for (const auto& [k, id] : dataFlow->chipRuleListKeyToId()) {
            if (k.hwAclIndex().value() != index)
                continue;
            out.push_back(std::to_string(int(k.tableType())) + "/" +
                          Acl::aclDirectionName(k.direction()) + "/" +
                          Mirel::protocolTypeName(k.protocolType()) + "=" +
                          std::to_string(int(id.chipRuleListId())));
        }
        return out;
    }
    // Numbers in use in a pool (the reserved one included).
    std::vector<uint32_t> numbersInUse(HwAclIndexAllocatorType pool) const {
        auto alloc = sm->hwAclIndexAllocator(pool);
        if (!alloc || !alloc->status())
            return {};
        return alloc->status()->allocated().keys();
    }

    // Runs the reviews that are due, then ends the step.
    void settle() {
        inputs.settle();
        step(true);
    }
    // After every step, once the machine runs.
    void step(bool indexChanged) {
        if (sm && afterStep)
            afterStep(indexChanged);
    }

    const Mirel::ChipId chip{1};
    // The ACL store, interface inputs, index and its machines, capabilities, timer wheel and
    // virtual clock; declared first, so it goes last.
    ChipTest::World inputs;
    Vorn::Ptr<GlueStatus> glue;
    Vorn::Ptr<AclPolicyStatus> policyStatus;
    Vorn::Ptr<Mirel::ChipHwCapability> capability;
    Vorn::Ptr<Mirel::ChipDataFlowConfig> dataFlow;
    // The chip's policy machine; null with DirectPolicy.
    Vorn::Ptr<AclPolicySm> policy;
    Vorn::Ptr<MappingSmColl> machines;
    Vorn::Ptr<MappingSm> sm;
    std::function<void(bool indexChanged)> afterStep;

  private:
    static std::optional<int> of(const Mirel::HwAclIndex* i) {
        return i ? std::optional<int>(i->value()) : std::nullopt;
    }
    DirectPolicy direct_;
    std::map<IntfId, AclKeySet> bound_;
};

}  // namespace OvinMirel::MappingTest
