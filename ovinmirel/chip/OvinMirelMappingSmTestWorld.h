#pragma once
// The MappingSm test world: one chip with its glue status, root configurations, hardware
// capability, data-flow configuration and ACL policy result, and the machine over them.
// Tests and benchmarks write the inputs through it and read the data-flow tables back; after
// every step the world runs `afterStep` (tests: the mapping checker).
//
// The policy result is written straight into AclPolicyStatus by DirectPolicy. Once the
// per-chip policy machine exists, a policy source that binds ACLs in the index and lets that
// machine write the status can take DirectPolicy's place: the world's place setters are the
// only users. Header only; not part of the library.

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

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

class World {
  public:
    explicit World(uint32_t hwAclIndexMax = 100, uint32_t hwAclIndexReserved = 0)
        : glue(glueStatusFactory("glueStatus")),
          capability(Vorn::make<Mirel::ChipHwCapability>(chip)),
          machines(mappingSmCollFactory()),
          policy_(nullptr) {
        glue->initialize();
        policyStatus = glue->aclPolicyStatusColl()->statusIs(chip);
        dataFlow = glue->piChipDataFlowConfigIs(chip);
        capability->hwAclIndexMaxIs(hwAclIndexMax);
        capability->hwAclIndexReservedIs(hwAclIndexReserved);
        policy_ = DirectPolicy(policyStatus);
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
        step();
    }
    void deactivate() {
        glue->activeRootSmIdDel(chip);
        step();
    }
    // Creates the machine and marks it initialized.
    void start() {
        sm = machines->smIs(chip, glue, policyStatus, capability, dataFlow);
        sm->handleInitialized();
        step();
    }

    // The places' ACLs, as the policy result.
    void intf(const IntfId& i, const AclKeySet& acls) {
        policy_.intfAcls(i, acls);
        step();
    }
    void routedPort(const IntfId& i, const AclKeySet& acls) {
        policy_.routedPortAcls(i, acls);
        step();
    }
    void vlan(int v, const AclKeySet& acls) {
        policy_.vlanAcls(v, acls);
        step();
    }
    void subIntf(const IntfId& i, const AclKeySet& acls) {
        policy_.subIntfAcls(i, acls);
        step();
    }

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

    // After every step, once the machine runs.
    void step() {
        if (sm && afterStep)
            afterStep();
    }

    const Mirel::ChipId chip{1};
    Vorn::Ptr<GlueStatus> glue;
    Vorn::Ptr<AclPolicyStatus> policyStatus;
    Vorn::Ptr<Mirel::ChipHwCapability> capability;
    Vorn::Ptr<Mirel::ChipDataFlowConfig> dataFlow;
    Vorn::Ptr<MappingSmColl> machines;
    Vorn::Ptr<MappingSm> sm;
    std::function<void()> afterStep;

  private:
    static std::optional<int> of(const Mirel::HwAclIndex* i) {
        return i ? std::optional<int>(i->value()) : std::nullopt;
    }
    DirectPolicy policy_;
};

}  // namespace OvinMirel::MappingTest
